// threadsem.cpp - the pool of wait semaphores.
#include "kyrno/tree/threadsem.h"

#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/tree/hieraki.h"
#include "kyrno/tree/rpcobjs.h"

static constexpr UI4 MODULE = 0x00000100;

namespace {
constexpr time_t kOldSeconds = 300;
}  // namespace

WAITPOOL::~WAITPOOL() {
  MUTEXHOLD hold(Lock);
  while (pThreadList) {
    PTHREADSEM const next = pThreadList->pNext;
    delete pThreadList;
    pThreadList = next;
  }
}

PTHREADSEM WAITPOOL::FindFree() {
  for (PTHREADSEM t = pThreadList; t; t = t->pNext) {
    if (t->ThreadId != FREEID) continue;
    t->ThreadId = pthread_self();
    // Deliberate: the take is noted in the head, so all others fall due 300 s after their creation.
    pThreadList->LastUsed = time(nullptr);
    LOG(2,
        ("WAITSEM %p taken by %p ", static_cast<void*>(t), reinterpret_cast<void*>(t->ThreadId)));
    return t;
  }
  return nullptr;
}

bool WAITPOOL::WakeNearest(HIERAKI* node) {
  MUTEXHOLD hold(Lock);
  return WakeFrom(node);
}

bool WAITPOOL::WakeFrom(HIERAKI* node) {
  for (HIERAKI* n = node; n; n = n->Parent()) {
    RPCOBJS* const object = n->Obj();
    PTHREADSEM const entry = object ? object->pWaiting : nullptr;
    if (!entry) continue;
    entry->Sem.release(1);
    return true;
  }
  return false;
}

void WAITPOOL::Detach(HIERAKI* node) {
  MUTEXHOLD hold(Lock);
  RPCOBJS* const object = node->Obj();
  PTHREADSEM const entry = object ? object->pWaiting : nullptr;
  if (!entry) return;
  object->pWaiting = nullptr;
  entry->pNode = nullptr;
  entry->Sem.release(static_cast<UI4>(entry->Users));
}

void WAITPOOL::WakeAll() {
  MUTEXHOLD hold(Lock);
  for (PTHREADSEM t = pThreadList; t; t = t->pNext) t->Sem.release(static_cast<UI4>(t->Users));
}

SI4 WAITPOOL::Count() {
  MUTEXHOLD hold(Lock);
  SI4 count = 0;
  for (PTHREADSEM t = pThreadList; t; t = t->pNext) ++count;
  return count;
}

void WAITPOOL::RemoveOld() {
  const time_t now = time(nullptr);
  MUTEXHOLD hold(Lock);
  if (!pThreadList) return;
  for (PTHREADSEM p = pThreadList; p->pNext;) {
    PTHREADSEM const n = p->pNext;
    if (now > n->LastUsed + kOldSeconds && n->ThreadId == FREEID) {
      p->pNext = n->pNext;
      delete n;
    } else {
      p = n;
    }
  }
}

void WAITPOOL::ForkedChild() {
  // The threads that held the lock or an entry did not come along.
  new (&Lock) MUTEX;
  MUTEXHOLD hold(Lock);
  for (PTHREADSEM t = pThreadList; t; t = t->pNext) {
    if (t->pNode) t->pNode->Obj()->pWaiting = nullptr;
    t->pNode = nullptr;
    t->ThreadId = FREEID;
    t->Users = 0;
  }
}

SI4 WAITER::AplWaitInit(HIERAKI* node) {
  {
    MUTEXHOLD hold(pool.Lock);
    if (pEntry && pEntry->pNode == node) return 0;
  }
  AplWaitClear();

  MUTEXHOLD hold(pool.Lock);
  RPCOBJS* const object = node->Obj();
  PTHREADSEM entry = object->pWaiting;
  if (!entry) entry = pool.FindFree();
  if (!entry) {
    PTHREADSEM const added = new (std::nothrow) THREADSEM(pool.pThreadList);
    if (!added) return ERR_THREAD_NOT_FOUND;
    pool.pThreadList = added;
    entry = pool.FindFree();
  }
  object->pWaiting = entry;
  entry->pNode = node;
  ++entry->Users;
  pEntry = entry;
  return 0;
}

SI4 WAITER::AplWait(UI4 milliseconds) {
  switch (pEntry->Sem.wait(milliseconds)) {
    case SemReleased:
      return 0;
    case SemTimeout:
      return TIMEOUT;
    default:
      return ERR_WAIT_SEM;
  }
}

void WAITER::AplWaitClear() {
  if (!pEntry) return;
  MUTEXHOLD hold(pool.Lock);
  if (--pEntry->Users == 0) {
    bool unused = false;
    while (pEntry->Sem.wait(0) == SemReleased) unused = true;
    HIERAKI* const node = pEntry->pNode;
    pEntry->pNode = nullptr;
    pEntry->ThreadId = FREEID;
    LOG(2, ("WAITSEM %p return by %p ", static_cast<void*>(pEntry),
            reinterpret_cast<void*>(pthread_self())));
    // Under the lock, because a parked thread is outside the gate: a node that still is somebody's
    // to wait on has not been retired.
    if (node) node->Obj()->pWaiting = nullptr;
    if (node && unused) pool.WakeFrom(node);
  }
  pEntry = nullptr;
}
