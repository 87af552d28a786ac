// roots.cpp - the roots of the process.
#include "kyrno/boundary/roots.h"

#include <pthread.h>

#include <cstring>
#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/base/log.h"
#include "kyrno/boundary/ready.h"
#include "kyrno/tls/sslcontrol.h"

static constexpr UI4 MODULE = 0x00000010;

namespace {

constexpr UI4 kCompLevel = 6;

constinit MUTEX Guard;
constinit PHIERAKI pRoots GUARDED_BY(Guard) = nullptr;  // ring, owned
constinit CH1 cLoadPath[2048] GUARDED_BY(Guard) = {};   // for whoever looks with a debugger

/// Keeps the folder of a path, with its slash. Deliberate: the first character stays in any case.
void SetLoadPath(PCH10 path) TSA(requires_capability(Guard)) {
  memset(cLoadPath, 0, sizeof cLoadPath);
  const size_t n = strnlen(path, sizeof cLoadPath - 1);
  memcpy(cLoadPath, path, n);
  for (size_t i = n; i > 1 && cLoadPath[i - 1] != '/'; --i) cLoadPath[i - 1] = 0;
}

/// Every root.
template <typename FN>
void EachRoot(FN fn) TSA(requires_capability(Guard)) {
  PHIERAKI const last = pRoots;
  if (!last) return;
  PHIERAKI t = last;
  do {
    t = t->Next();
    fn(static_cast<ROOT*>(t->Obj()));
  } while (t != last);
}

// A fork takes the guard and the locks of the ready queues with it, so that the child finds the
// ring and the queues whole. Other locks of the library may be held by threads that don't exist in
// the child, which therefore makes them anew.
void BeforeFork() TSA(no_thread_safety_analysis) {
  Guard.Lock();
  EachRoot([](ROOT* root) TSA(no_thread_safety_analysis) { root->Queue.Lock.Lock(); });
  GATE::BeforeFork();
  LOGBeforeFork();
}
void InParent() TSA(no_thread_safety_analysis) {
  LOGAfterFork();
  GATE::AfterFork();
  EachRoot([](ROOT* root) TSA(no_thread_safety_analysis) { root->Queue.Lock.Unlock(); });
  Guard.Unlock();
}
void InChild() TSA(release_capability(Guard)) {
  LOGAfterFork();
  GATE::AfterFork();
  if (PHIERAKI const last = pRoots) {
    PHIERAKI t = last;
    do {
      t = t->Next();
      t->ForkedChild();
      static_cast<ROOT*>(t->Obj())->ForkedChild();
    } while (t != last);
  }
  Guard.Unlock();
}

pthread_once_t forkOnce = PTHREAD_ONCE_INIT;
void PrepareForFork() { pthread_atfork(BeforeFork, InParent, InChild); }

/// A root that is not in the ring yet, its work thread running.
SI4 StartRoot(PCH10 name, PHIERAKI* node) {
  ROOT* const object = new (std::nothrow) ROOT;
  if (!object) return ERR_MEMORY_ALLOC;
  *node = new (std::nothrow) HIERAKI(name, object);
  if (!*node) {
    delete object;
    return ERR_MEMORY_ALLOC;
  }
  static constexpr PFNREADY strategies[kStrategies] = {FindReady, FindReadyRR, FindReadyTO,
                                                       FindReadyTS, FindReadyTnc};
  memcpy(object->pfnsReady, strategies, sizeof strategies);
  object->CompLevel = KyrnosslLoaded() ? kCompLevel : 0;

  const SI4 code = object->RootInit(*node);
  if (code) {
    delete *node;
    *node = nullptr;
  }
  return code;
}

PHIERAKI CloseDescriptors(PHIERAKI node, void*) {
  if (PRPCOBJS const object = node->Obj()) object->CloseAfterFork();
  node->LoopSub(CloseDescriptors, nullptr);
  return nullptr;
}

}  // namespace

ROOTSHARE::~ROOTSHARE() {
  if (inside) gate->Leave(ticket);
  if (hasReference) gate->Release();
}

bool ROOTSHARE::Open(PCH10 name) {
  MUTEXHOLD hold(Guard);
  return Hold(HIERAKI::Find(pRoots, name));
}

bool ROOTSHARE::OpenAny() {
  MUTEXHOLD hold(Guard);
  return Hold(pRoots);
}

bool ROOTSHARE::Hold(PHIERAKI root) {
  if (!root) return false;
  node = root;
  gate = static_cast<ROOT*>(root->Obj())->pGate;
  return Enter();
}

void ROOTSHARE::Leave() {
  if (!inside) return;
  if (!hasReference) gate->AddRef();
  hasReference = true;
  inside = false;
  gate->Leave(ticket);
}

bool ROOTSHARE::Enter() {
  inside = gate->Enter(&ticket);
  return inside;
}

void ROOTSHARE::Park() {
  gate->Park();
  Leave();
}

SI4 RPCLoad() {
  LoadKyrnossl();
  SslLoad();
  InitTimer();
  return 0;
}

void RPCUnloadLibrary() {
  {
    MUTEXHOLD hold(Guard);
    if (pRoots) return;
  }
  if (SslIsUsed()) return;
  SslUnload();
  UnloadKyrnossl();
}

SI4 CreateRoot(PCH10 name, PCH10 loadPath) {
  pthread_once(&forkOnce, PrepareForFork);
  {
    MUTEXHOLD hold(Guard);
    if (HIERAKI::Find(pRoots, name)) return ERR_ALREADY_INITIALIZED;
  }
  PHIERAKI node = nullptr;
  const SI4 code = StartRoot(name, &node);
  if (code) return code;
  {
    MUTEXHOLD hold(Guard);
    if (!HIERAKI::Find(pRoots, name)) {
      pRoots = HIERAKI::Add(pRoots, node);
      SetLoadPath(loadPath);
      return 0;
    }
  }
  // Another thread has made it meanwhile.
  static_cast<ROOT*>(node->Obj())->Endwork();
  delete node;
  return ERR_ALREADY_INITIALIZED;
}

SI4 RPCUnload(ROOTSHARE* own) {
  PHIERAKI const root = own ? own->Root() : nullptr;
  LOG(1, ("RPCUnload %p", static_cast<void*>(root)));
  if (!root) return 0;
  ROOT* const object = own->Object();
  GATE* const gate = object->pGate;
  {
    // One step, so that a fork never sees a closed root in the ring.
    MUTEXHOLD hold(Guard);
    if (!gate->Close()) return ERR_ROOT_NOT_FOUND;
    pRoots = HIERAKI::Remove(pRoots, root);
  }
  own->Leave();

  if (!object->IsOwnProcess()) {
    CloseDescriptors(root, nullptr);
    return 0;
  }
  // Whoever goes to sleep after this looks at the gate first.
  object->Waiters.WakeAll();
  object->Endwork();
  gate->WaitEmpty();
  gate->FreeAll();
  delete root;
  return 0;
}

void UnloadRoots() {
  bool more = true;
  while (more) {
    ROOTSHARE share;
    more = share.OpenAny() && RPCUnload(&share) == 0;
  }
  GATE::FreeUnused();
}
