// wait.cpp - the command AWaitZ.
//
// One turn of a wait:
//
//   find the node by name -> register on it -> search below it -> deliver what was found
//                                                     | nothing
//   step in again <- sleep <- step out, parked  <-----+
//
// Registering comes before the search, so an object that becomes ready behind the search's back
// ends the sleep.
#include "kyrno/boundary/wait.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "Apl/vaget.h"
#include "Apl/vaset.h"
#include "Apl/zblock.h"
#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/boundary/arrays.h"
#include "kyrno/boundary/ready.h"
#include "kyrno/modes/server.h"

static constexpr UI4 MODULE = 0x00000010;

namespace {

constexpr UI4 kQuietSpell = 20000;  // ms
constexpr SI4 kDefaultStrategy = 2;
constexpr UI4 kTimes = 3;

/// What a wait hands out.
struct EVENT {
  PCH1 objname;
  PCH1 word;
  PUI4* ppZ;
  PF8 times;

  void Clear() const {
    *objname = 0;
    *word = 0;
    free(*ppZ);
    *ppZ = nullptr;
  }
};

UI4 TimeLeft(SI4 timeout, F8 start) {
  const UI4 all = static_cast<UI4>(timeout);
  if (timeout == -1) return kQuietSpell;
  const F8 elapsed = std::floor((Micros() - start) / 1000);
  if (elapsed <= 0) return all;  // the clock may have been set back
  return elapsed < all ? all - static_cast<UI4>(elapsed) : 0;
}

bool IsFifo(PHIERAKI node) {
  return node && node->Obj() && node->Obj()->Type == TServer &&
         static_cast<SERVER*>(node->Obj())->FIFO;
}

PFNREADY Choose(PHIERAKI item, ROOT* root) {
  if (IsFifo(item)) return PopReady;
  const SI4 n = root->UseFnsReady;
  return root->pfnsReady[n >= 0 && n < kStrategies ? n : kDefaultStrategy];
}

/// Tells the connection above that data on its way to the application proved bad.
void FailConnection(PHIERAKI found, SI4 code) {
  for (PHIERAKI n = found->Parent(); n; n = n->Parent()) {
    PRPCOBJS const above = n->Obj();
    above->ChildFailed(n, code);
    if (above->Type == TClient || above->Type == TConnection) return;
  }
}

/// Reports a picked object. False when its data was bad: then it goes, and the search goes on.
bool Deliver(PHIERAKI found, ROOT* root, const EVENT& event) {
  PRPCOBJS const object = found->Obj();
  event.times[0] = object->timeCreate;
  event.times[1] = object->timeReady;
  event.times[2] = Micros();
  OBJSTATE next = SFinished;
  const SI4 code = object->GetWaitReturns(found, event.objname, event.word, &next, event.ppZ);
  const bool good = code == 0 || code == ERR_INVALID_OBJECT;
  PHIERAKI const parent = found->Parent();
  if (good) {
    // The parent first: once this one is out of the way, the parent's own event could be taken.
    if (object->NextPState == SFinished && parent) parent->Obj()->Finish();
    object->Unpick(next);
  } else {
    LOG(1, ("Wait %s failed %d", found->GetName(), code));
    FailConnection(found, code);
    object->Finish();
  }
  // An ended object above could not be taken while this one was on its way.
  if (parent && HasEnded(parent->Obj()->GetState())) root->Waiters.WakeNearest(parent);
  root->Dirty();
  return good;
}

/// Sleeps outside the gate. 0 to search again, TIMEOUT, or a code that ends the wait.
SI4 Sleep(ROOTSHARE& share, WAITER* waiter, UI4 milliseconds) {
  // Whoever unloads the root closes the gate first and wakes all that are registered then.
  if (share.IsClosing()) return ERR_OBJECT_NOT_FOUND;
  share.Park();
  errno = 0;
  SI4 code = waiter->AplWait(milliseconds);
  if (code == ERR_WAIT_SEM && errno == EINTR) code = 0;
  if (!share.Enter()) {
    waiter->AplWaitClear();
    code = ERR_OBJECT_NOT_FOUND;
  }
  share.Unpark();
  return code;
}

/// A time-out, which is an event or a code.
SI4 TimedOut(ROOTSHARE& share, PCH10 name, const EVENT& event) {
  if (share.Object()->EventMode < 1) return TIMEOUT;
  PHIERAKI const item = share.Root()->FindLeaf(name);
  if (!item) return ERR_OBJECT_NOT_FOUND;
  strcpy(event.word, eventname[ETimeout]);
  item->FullName(event.objname, kFullNameSize);
  *event.ppZ = ScalarZ(TIMEOUT);
  return 0;
}

/// (0, name, event word, times).
PAA EventResult(PCH10 objname, PCH10 word, const F8* times, UI4 n) {
  const UI4 four = 4;
  VAHOLD stamps(VANew(VAF8, 1, &n));
  VAHOLD result(VANew(VAPntr, 1, &four));
  if (!stamps || !result) return CodeResult(ERR_MEMORY_ALLOC);
  memcpy(VAData(stamps.Get()), times, n * sizeof *times);
  SI4 code = VASetSI4(result.Get(), 0, 0);
  if (!code) code = VASetCH1(result.Get(), 1, objname, static_cast<UI4>(strlen(objname)), VACHAR);
  if (!code) code = VASetCH1(result.Get(), 2, word, static_cast<UI4>(strlen(word)), VACHAR);
  if (!code) code = VASetpAA(result.Get(), 3, stamps.Get());
  if (code) return CodeResult(code);
  static_cast<void>(stamps.Release());
  return result.Release();
}

}  // namespace

SI4 WaitZ1(ROOTSHARE& share, PCH10 name, SI4 timeout, PCH1 objname, PCH1 event, PUI4* ppZ,
           PF8 times) {
  const EVENT out{objname, event, ppZ, times};
  *objname = 0;
  *event = 0;
  *ppZ = nullptr;
  ROOT* const root = share.Object();
  const F8 start = Micros();
  PFNREADY fn = nullptr;
  WAITER waiter(root->Waiters);
  for (;;) {
    if (const SI4 ended = root->lErrorObj) return share.IsClosing() ? ERR_OBJECT_NOT_FOUND : ended;
    PHIERAKI const item = share.Root()->FindLeaf(name);
    if (!item || !item->Obj()) return ERR_OBJECT_NOT_FOUND;
    if (item->Obj()->Type == TConnection && IsFifo(item->Parent())) return ERR_FIFOMODE;
    SI4 code = waiter.AplWaitInit(item);
    if (code) return code;
    if (!fn) fn = Choose(item, root);

    PHIERAKI found = nullptr;
    if (fn(item, &found)) {
      if (Deliver(found, root, out)) {
        LOG(2, ("Wait %s Success", name));
        return 0;
      }
      out.Clear();
      continue;
    }
    // A node that was unlinked before the registration wakes nobody.
    if (share.Root()->FindLeaf(name) != item) continue;
    code = Sleep(share, &waiter, TimeLeft(timeout, start));
    if (code == TIMEOUT) return TimedOut(share, name, out);
    if (code) return code;
  }
}

PAA AWaitZ(ROOTSHARE& share, PUI4* ppZ, PAA arg) {
  F8 times[kTimes + 1] = {};
  times[kTimes] = Micros();
  *ppZ = nullptr;
  TEXT name;
  SI4 timeout = 0;
  SI4 code = ReadText(arg, 0, &name);
  if (!code) code = VAGetSI4(arg, 1, &timeout);

  CH1 objname[kFullNameSize + 1] = {0};
  CH1 event[kEventSize] = {0};
  if (!code) code = WaitZ1(share, name.get(), timeout, objname, event, ppZ, times);
  PAA const result = code ? CodeResult(code) : EventResult(objname, event, times, kTimes + 1);
  if (!*ppZ) *ppZ = ScalarZ(0);
  return result;
}
