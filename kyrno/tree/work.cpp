// work.cpp - the turn: the work thread's loop, and what its role does.
#include "kyrno/tree/work.h"

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/tree/root.h"
#include "kyrno/tree/shadow.h"
#include "util/blockstore.h"
#include "util/pool.h"

static constexpr UI4 MODULE = 0x00000020;

namespace {

constexpr F8 kCollectMicros = 10e3;  // how soon to try again to free what somebody still looks at
constexpr F8 kPoolMicros = 60e6;     // between purges of the pool of waiters
constexpr F8 kStoreMicros = 2e6;     // ... of the stores of freed memory
constexpr F8 kWaitMicros = 300e6;

bool HasSocket(const RPCOBJS* object) {
  switch (object->Type) {
    case TRoot:
    case TServer:
    case TClient:
    case TConnection:
    case TUdp:
      return true;
    default:
      return false;
  }
}

PHIERAKI WithSocket(PHIERAKI node) {
  while (node && !HasSocket(node->Obj())) node = node->Parent();
  return node;
}

/// Turns until the end; the code of the wait that ended it, or 0.
SI4 Turns(ROOT* root) {
  SI4 brought = 0;
  for (;;) {
    LOG(4, ("Work thread activated"));
    root->TakeRole();
    root->Turn(brought);
    const bool end = root->Sets.endWorkThread;
    root->GiveRole();
    if (end) return 0;

    const SI4 code = root->Sleep(&brought);
    LOG(4, ("After wait lError: %d cnt: %d", code, brought));
    if (!root->IsOwnProcess()) return ERR_FORK;
    if (code) return code;
  }
}

}  // namespace

UI4 WorkThread(PVOID arg) {
  PHIERAKI const item = static_cast<PHIERAKI>(arg);
  ROOT* const root = static_cast<ROOT*>(item->Obj());
  const SI4 code = Turns(root);
  root->CloseSockets(item);
  LOG(1, ("Worker thread have ended! ErrorCode =%d ", code));
  root->WorkEnded();
  return static_cast<UI4>(code ? code : ERR_WORKSYNC_RECV);
}

void ROOT::Turn(SI4 brought) {
  inTurn = true;
  Clear(&Sets.ss);
  for (SI4 i = 0; i < brought; ++i)
    if (PVOID const owner = Sets.ss.Brought(i)) MakeDue(static_cast<PHIERAKI>(owner));
  const F8 now = Micros();
  while (TIMER* const limit = Timers.PopDue(now)) MakeDue(static_cast<PHIERAKI>(limit->Owner()));
  if (lookAtAll.exchange(false, std::memory_order_seq_cst)) LookAtAll(pItem);
  TakeTouched();
  RunDue();
  CallBack();

  if (Collect()) Sets.ss.WakeAt(now + kCollectMicros);
  if (pPending || pDue[0] || pDue[1]) Sets.ss.WakeAt(1);
  if (poolDue == 0 && Waiters.Count() > 1) poolDue = now + kPoolMicros;
  if (storeDue == 0 && !(BlockStoreIsEmpty() && PoolsAreEmpty())) storeDue = now + kStoreMicros;
  const F8 due = storeDue == 0 || (poolDue > 0 && poolDue < storeDue) ? poolDue : storeDue;
  PHIERAKI const item = pItem;
  if (due > 0 && item->Timer.Due() != due) SetTimer(item, due);
  const F8 next = Timers.Next();
  if (next > 0) Sets.ss.WakeAt(next);
  if (leftLately.exchange(false, std::memory_order_seq_cst)) tickUntil = now + kTickingMicros;
  if (now < tickUntil) Sets.ss.WakeAt(now + kTickMicros);
  sleepsUntil.store(Sets.ss.deadline > 0 ? Sets.ss.deadline : now + kWaitMicros,
                    std::memory_order_seq_cst);
  AssertNothingMissed(this, pItem);
  inTurn = false;
}

void ROOT::TakeTouched() {
  leftSince.store(0, std::memory_order_relaxed);
  PHIERAKI node = pPending;
  pPending = nullptr;
  for (int list = 0; list < 2; ++list) {
    while (node) {
      PHIERAKI const next = node->Touched.pNext;
      TOUCHLIST::Unmark(node);
      if (node->IsLinked()) LookAt(node);
      node = next;
    }
    if (list == 0) node = Touched.TakeAll();
  }
}

void ROOT::LookAt(PHIERAKI node) {
  RPCOBJS* const obj = node->Obj();
  if (!obj) return;
  PHIERAKI const owner = WithSocket(node);
  if (obj->GetState() == SFinished && obj->Type != TRoot) {
    if (obj->Abandon(node)) TakeOut(node);
    // What was to come for it is the connection's now.
    if (owner && owner != node) MakeDue(owner);
    return;
  }
  if (owner != node) {
    Sets.pItem = node;
    obj->Check(&Sets);
  }
  if (owner) MakeDue(owner);
}

void ROOT::LeaveToWorkThread(PHIERAKI node) {
  if (node->Touched.on.exchange(true, std::memory_order_seq_cst)) return;
  node->Touched.pNext = pPending;
  pPending = node;
}

void ROOT::LookAtAll(PHIERAKI node) {
  node->WalkSub([&](PHIERAKI child) {
    AssumeWorkThread();
    LookAtAll(child);
  });
  // Not at once: a walk must not unlink what it stands on.
  Mark(node);
}

void ROOT::MakeDue(PHIERAKI node) {
  if (node->isDue || !node->IsLinked()) return;
  node->isDue = true;
  PHIERAKI& last = pDue[node->Obj()->Type == TServer];
  node->pNextDue = last ? last->pNextDue : node;
  if (last) last->pNextDue = node;
  last = node;
}

void ROOT::RunDue() {
  for (PHIERAKI& due : pDue) {
    // Those that become due meanwhile have had their turn, or get it when the wait is over.
    for (PHIERAKI const last = due; due;) {
      PHIERAKI const node = due->pNextDue;
      due = node == due ? nullptr : due;
      if (due) due->pNextDue = node->pNextDue;
      node->pNextDue = nullptr;
      node->isDue = false;
      if (node->IsLinked()) {
        Sets.pItem = node;
        node->Obj()->Setinfo(&Sets);
        node->Obj()->Execute(&Sets);
        // Another object may be there now.
        Sets.pItem = node;
        if (node->IsLinked()) node->Obj()->Check(&Sets);
      }
      if (node == last) break;
    }
  }
}

void ROOT::Tell(PHIERAKI node) {
  if (node->pNextTold) return;  // it is asked what it has become, not what it was
  node->pNextTold = node;
  (pTold ? pToldLast->pNextTold : pTold) = node;
  pToldLast = node;
}

/// Before anything is freed: what is unlinked by now is still there.
void ROOT::CallBack() {
  while (PHIERAKI const node = pTold) {
    pTold = node == pToldLast ? nullptr : node->pNextTold;
    node->pNextTold = nullptr;
    if (!node->IsLinked()) continue;
    PHIERAKI owner = node;
    while (owner->Obj()->Type != TClient && owner->Obj()->Type != TConnection &&
           owner->Obj()->Type != TRoot)
      owner = owner->Parent();
    TPOOSFN const fn = owner->Obj()->Callback();
    if (!fn) continue;
    GiveRole();
    fn(node);
    Role.Take();
  }
}

void ROOT::TakeOut(PHIERAKI node) {
  struct LEAVE {
    static void Subtree(PHIERAKI node, PHIERAKI parent, ROOT* root) WORK_ONLY {
      node->Shut();
      root->Waiters.Detach(node);
      root->ClearTimer(node);
      if (RPCOBJS* const obj = node->Obj()) {
        obj->Leave(node);
        if (HasSocket(obj)) root->retiredSocket = true;
      }
      for (PHIERAKI n = parent; n && node->CleanUpCount > 0; n = n->Parent())
        n->Obj()->CleanUp(node);
      node->WalkSub([&](PHIERAKI sub) {
        AssumeWorkThread();
        Subtree(sub, node, root);
      });
    }
  };
  PHIERAKI const parent = node->Parent();
  node->Obj()->MarkForDeletion();
  parent->Unlink(node);
  LEAVE::Subtree(node, parent, this);
  ++retired;
  pGate->Retire(node);
}

void ROOT::Replace(PHIERAKI node, RPCOBJS* fresh) {
  RPCOBJS* const old = node->Obj();
  fresh->TakeOver(old);
  node->Replace(fresh);
  if (!old->Move(SConnected, SFinished)) (void)fresh->Close(node);
  pGate->Retire(old);
  ++retired;
  MakeDue(node);
}

bool ROOT::Collect() {
  const bool left = pGate->Collect(
      [](void* root) {
        AssumeWorkThread();
        static_cast<ROOT*>(root)->Forget();
      },
      this);
  retired = 0;
  if (!left) retiredSocket = false;
  return left;
}

/// Drops unlinked nodes from the lists; the others are kept for the next look.
void ROOT::Forget() {
  for (PHIERAKI& due : pDue) {
    PHIERAKI node = due ? due->pNextDue : nullptr;
    PHIERAKI const last = due;
    due = nullptr;
    while (node) {
      PHIERAKI const next = node == last ? nullptr : node->pNextDue;
      node->isDue = false;
      MakeDue(node);
      node = next;
    }
  }
  PHIERAKI kept = nullptr;
  PHIERAKI last = nullptr;
  PHIERAKI node = pPending;
  for (int list = 0; list < 2; ++list) {
    while (node) {
      PHIERAKI const next = node->Touched.pNext;
      if (node->IsLinked()) {
        node->Touched.pNext = nullptr;
        (last ? last->Touched.pNext : kept) = node;
        last = node;
      }
      node = next;
    }
    if (list == 0) node = Touched.TakeAll();
  }
  pPending = kept;
}

void ROOT::Housekeeping() {
  const F8 now = Micros();
  if (poolDue > 0 && now >= poolDue) {
    Waiters.RemoveOld();
    poolDue = 0;
  }
  if (storeDue > 0 && now >= storeDue) {
    BlockPurge();
    PoolPurge();
    storeDue = 0;
  }
}

void ROOT::CloseSockets(PHIERAKI item) {
  Role.Take();
  Sets.closeAllSockets = true;
  CloseAll(item);
  Role.Give();
}

void ROOT::CloseAll(PHIERAKI node) {
  node->WalkSub([&](PHIERAKI child) {
    AssumeWorkThread();
    CloseAll(child);
  });
  if (!node->Obj() || !HasSocket(node->Obj())) return;
  Sets.pItem = node;
  node->Obj()->Execute(&Sets);
}
