// work.cpp - the work thread's turn.
#include "kyrno/tree/work.h"

#include <cassert>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/tree/root.h"

static constexpr UI4 MODULE = 0x00000020;

namespace {

constexpr SI4 kWaitSeconds = 300;
constexpr F8 kCollectMicros = 10000;  // how soon to try again to free what somebody still looks at

/// Takes a finished subtree out of reach: it can't be found any more, and whoever waits on any part
/// of it wakes up.
void TakeOut(PHIERAKI parent, PHIERAKI child, ROOT* root) WORK_ONLY {
  parent->Unlink(child);
  struct LEAVE {
    static void Subtree(PHIERAKI node, PHIERAKI parent, ROOT* root) WORK_ONLY {
      root->Waiters.Detach(node);
      for (PHIERAKI n = parent; n && node->CleanUpCount > 0; n = n->Parent())
        n->Obj()->CleanUp(node);
      node->WalkSub([&](PHIERAKI sub) {
        AssumeWorkThread();
        Subtree(sub, node, root);
      });
    }
  };
  LEAVE::Subtree(child, parent, root);
  root->pGate->Retire(child);
}

void CheckSub(PHIERAKI node, PFDSETS sets, ROOT* root) WORK_ONLY;

/// Children, the object itself, then the removal of what the walk marked.
void CheckBody(PHIERAKI node, PFDSETS sets, ROOT* root) WORK_ONLY {
  node->WalkSub([&](PHIERAKI sub) {
    AssumeWorkThread();
    CheckSub(sub, sets, root);
  });
  sets->pItem = node;
  node->Obj()->Check(sets);

  while (sets->cntFinished > 0) {
    PHIERAKI dead = nullptr;
    node->WalkSub([&](PHIERAKI sub) {
      if (!dead && sub->Obj() && sub->Obj()->GetState() == SMarkedForDeletion) dead = sub;
    });
    if (!dead) break;
    TakeOut(node, dead, root);
    --sets->cntFinished;
  }
}

void CheckSub(PHIERAKI node, PFDSETS sets, ROOT* root) {
  RPCOBJS* const obj = node->Obj();
  if (!obj) return;
  if (obj->GetState() == SFinished && obj->Abandon(node)) {
    obj->SetState(SMarkedForDeletion);
    ++sets->cntFinished;
    return;
  }
  if (obj->Type > TUdpPeer) return;
  if (obj->Type == TClient || obj->Type == TConnection || obj->Type == TUdp) {
    sets->pItem = node;
    obj->Setinfo(sets);
  }
  CheckBody(node, sets, root);
}

void ExecSub(PHIERAKI node, PFDSETS sets) WORK_ONLY {
  RPCOBJS* const obj = node->Obj();
  if (!obj || obj->Type >= TUdpPeer) return;
  switch (obj->Type) {
    case TRoot:
    case TServer:
    case TUdp:
      sets->pItem = node;
      obj->Setinfo(sets);
      node->WalkSub([&](PHIERAKI sub) {
        AssumeWorkThread();
        ExecSub(sub, sets);
      });
      break;
    case TClient:
    case TConnection:
      break;
    default:
      return;
  }
  sets->pItem = node;
  obj->Execute(sets);
}

/// Turns until the end; the code of the wait that ended it, or 0.
SI4 Turns(PHIERAKI item, ROOT* root) WORK_ONLY {
  for (;;) {
    LOG(4, ("Work thread activated"));
    FDSETS sets;
    Clear(&sets.ss);
    root->TurnBegins();
    CheckBody(item, &sets, root);
    if (root->pGate->Collect()) sets.ss.WakeAt(Micros() + kCollectMicros);

    SI4 cnt = 0;
    const SI4 code = SfWait(&sets.ss, kWaitSeconds, &cnt);
    LOG(4, ("After wait lError: %d cnt: %d", code, cnt));
    if (!root->IsOwnProcess()) return ERR_FORK;
    if (code) return code;
    if (cnt > 0) ExecSub(item, &sets);
    if (sets.endWorkThread) return 0;
  }
}

}  // namespace

UI4 WorkThread(PVOID arg) {
  AssumeWorkThread();
  PHIERAKI const item = static_cast<PHIERAKI>(arg);
  ROOT* const root = static_cast<ROOT*>(item->Obj());

  const SI4 code = Turns(item, root);

  FDSETS sets;
  Clear(&sets.ss);
  sets.closeAllSockets = true;
  ExecSub(item, &sets);
  LOG(1, ("Worker thread have ended! ErrorCode =%d ", code));
  root->WorkEnded();
  return static_cast<UI4>(code ? code : ERR_WORKSYNC_RECV);
}
