// wait.cpp - the command AWaitZ.
//
// One turn of a wait:
//
//   find the node by name -> search below it -> deliver what was found
//                                 | nothing                ^
//                                 +-> register on it -> search again
//                                                          | nothing
//   step in again <- sleep <- step out, parked  <----------+
//
// The second search comes behind the registration, so an object that becomes ready behind the
// search's back ends the sleep.
#include "kyrno/boundary/wait.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "Apl/zblock.h"
#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/boundary/arrays.h"
#include "kyrno/boundary/ready.h"
#include "kyrno/modes/server.h"
#include "util/blockstore.h"

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
    BlockFree(*ppZ);
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
bool Deliver(PHIERAKI found, ROOT* root, F8 now, const EVENT& event) {
  PRPCOBJS const object = found->Obj();
  event.times[0] = object->timeCreate;
  event.times[1] = object->timeReady;
  event.times[2] = now < event.times[1] ? event.times[1] : now;
  OBJSTATE next = SFinished;
  const SI4 code = object->GetWaitReturns(found, event.objname, event.word, &next, event.ppZ);
  const bool good = code == 0 || code == ERR_INVALID_OBJECT;
  PHIERAKI const parent = found->Parent();
  if (good) {
    // The parent first: once this one is out of the way, the parent's own event could be taken.
    if (object->NextPState == SFinished && parent) {
      parent->Obj()->Finish();
      root->Mark(parent);
    }
    object->Unpick(next);
  } else {
    LOG(1, ("Wait %s failed %d", found->GetName(), code));
    FailConnection(found, code);
    object->Finish();
  }
  // An ended object above could not be taken while this one was on its way.
  if (parent) root->Queue.Delivered(parent);
  if (parent && HasEnded(parent->Obj()->GetState())) root->Waiters.WakeNearest(parent);
  // A connection that was told is to be read at once.
  if (next == SConnected)
    root->Changed(found);
  else
    root->DeliveredInBurst(found, now);
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
PUI4 EventZ(PCH10 objname, PCH10 word, const F8* times, UI4 n) {
  const UI4 nameLen = static_cast<UI4>(strlen(objname));
  const UI4 wordLen = static_cast<UI4>(strlen(word));
  ZWRITER result(ZWRITER::kNestedBytes + ZWRITER::kIntBytes + ZWRITER::VectorBytes(VAC1, nameLen) +
                 ZWRITER::VectorBytes(VAC1, wordLen) + ZWRITER::VectorBytes(VAF8, n));
  if (!result) return CodeZ(ERR_MEMORY_ALLOC);
  result.Nested(4);
  result.Int(0);
  result.Text(objname, nameLen);
  result.Text(word, wordLen);
  result.Floats(times, n);
  return result.Finish();
}

/// The wait of a call that came at `start`.
SI4 WaitFrom(F8 start, ROOTSHARE& share, PCH10 name, SI4 timeout, const EVENT& out) {
  *out.objname = 0;
  *out.word = 0;
  *out.ppZ = nullptr;
  ROOT* const root = share.Object();
  PFNREADY fn = nullptr;
  WAITER waiter(root->Waiters);
  F8 now = start;
  for (;;) {
    if (const SI4 ended = root->lErrorObj) return share.IsClosing() ? ERR_OBJECT_NOT_FOUND : ended;
    PHIERAKI const item = share.Root()->FindLeaf(name);
    if (!item || !item->Obj()) return ERR_OBJECT_NOT_FOUND;
    if (item->Obj()->Type == TConnection && IsFifo(item->Parent())) return ERR_FIFOMODE;
    if (!fn) fn = Choose(item, root);
    root->Waiters.Begin();
    root->FlushOld(now);

    // A look first: what is there already needs no registration. A forked child looks at nothing:
    // what is ready is its parent's.
    PHIERAKI found = nullptr;
    if (root->IsOwnProcess()) fn(item, &found);
    if (!found) {
      root->Flush();
      if (const SI4 code = waiter.AplWaitInit(item)) return code;
      if (root->IsOwnProcess()) fn(item, &found);
      now = Micros();
    }
    if (found) {
      if (Deliver(found, root, now, out)) {
        LOG(2, ("Wait %s Success", name));
        return 0;
      }
      out.Clear();
      continue;
    }
    // A node that was unlinked before the registration wakes nobody.
    if (share.Root()->FindLeaf(name) != item) continue;
    const SI4 code = Sleep(share, &waiter, TimeLeft(timeout, start));
    if (code == TIMEOUT) return TimedOut(share, name, out);
    if (code) return code;
    now = Micros();
  }
}

}  // namespace

SI4 WaitZ1(ROOTSHARE& share, PCH10 name, SI4 timeout, PCH1 objname, PCH1 event, PUI4* ppZ,
           PF8 times) {
  return WaitFrom(Micros(), share, name, timeout, {objname, event, ppZ, times});
}

PUI4 AWaitZ(ROOTSHARE& share, PUI4* ppZ, ARGUMENT& arg) {
  F8 times[kTimes + 1] = {};
  times[kTimes] = Micros();
  *ppZ = nullptr;
  PATH name;
  SI4 timeout = 0;
  SI4 code = arg.GetPath(&name);
  if (!code) code = arg.GetNumber(&timeout);

  CH1 objname[kFullNameSize + 1];
  CH1 event[kEventSize];
  if (!code)
    code = WaitFrom(times[kTimes], share, name.Get(), timeout, {objname, event, ppZ, times});
  PUI4 const result = code ? CodeZ(code) : EventZ(objname, event, times, kTimes + 1);
  if (!*ppZ) *ppZ = ScalarZ(0);
  return result;
}
