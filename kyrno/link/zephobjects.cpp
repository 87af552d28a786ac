// zephobjects.cpp - the servers and the client of the link.
#include "kyrno/link/zephobjects.h"

#include <cstdio>
#include <cstring>

#include "kyrno/base/error.h"

constinit UI4 ZephEpoch = 0;

namespace {

constexpr F8 kFreeMicros = 5e6;  // how long a name that is still in use is waited for

PZeph2Config Config() { return Zeph2Functions.pZeph2Config; }

/// Waits until nothing has this name below the link's root any more. False when it still has then.
bool WaitGone(ROOTSHARE& share, PCH10 name, F8 until) {
  ROOT* const root = share.Object();
  WAITER waiter(root->Waiters);
  for (;;) {
    PHIERAKI const node = share.Root()->FindLeaf(name);
    if (!node) break;
    const F8 left = until - Micros();
    if (left <= 0 || waiter.AplWaitInit(node)) return false;
    // One that was unlinked before the registration wakes nobody.
    if (share.Root()->FindLeaf(name) != node) continue;
    if (share.IsClosing()) return false;
    share.Park();
    (void)waiter.AplWait(static_cast<UI4>(left / 1e3) + 1);
    const bool inside = share.Enter();
    if (!inside) waiter.AplWaitClear();
    share.Unpark();
    if (!inside) return true;
  }
  // It leaves the tree before its socket is closed, both in one possession of the role.
  if (root->IsOwnProcess()) {
    root->TakeRoleFromCall();
    root->GiveRoleFromCall();
  }
  return true;
}

}  // namespace

bool IsCurrent(UI4 epoch) {
  MUTEXHOLD hold(ZephLock);
  return ZephEpoch == epoch;
}

SI4 PlanObject(PCH10 name, PCH10 address, PROTOCOL prot, OBJECTPLAN* plan) {
  const tZeph2Config& config = *Config();
  CH1 port[11];
  snprintf(port, sizeof port, "%u", config.Port);
  snprintf(plan->name, sizeof plan->name, "%s", name);
  plan->port.reset(strdup(port));
  if (address) plan->address.reset(strdup(address));
  if (!plan->port || (address && !plan->address)) return ERR_MEMORY_ALLOC;
  plan->mode = MBlkRaw;
  plan->size = config.MaxBlockSize;
  plan->magic = config.Magic;
  plan->prot = prot;
  plan->cert = REF<CERTDATA>::Share(config.pCert);
  plan->callback = OOSfn2;
  return 0;
}

SI4 NoteFailure(SI4 reason, SI4 code) {
  MUTEXHOLD hold(ZephLock);
  Config()->lError = reason;
  return code;
}

bool WaitFree(ROOTSHARE& share, PCH10 name, UI4 epoch) {
  const F8 until = Micros() + kFreeMicros;
  do {
    if (WaitGone(share, name, Micros() + kGoingMicros)) return share.Root() != nullptr;
  } while (Micros() < until && IsCurrent(epoch) && !share.IsClosing());
  return false;
}

bool CloseNamed(ROOTSHARE& share, PCH10 name) {
  PHIERAKI const node = share.Root() ? share.Root()->FindLeaf(name) : nullptr;
  if (!node || !node->Obj()) return false;
  (void)node->Obj()->Close(node);
  return true;
}

void SeeOff(ROOTSHARE& share, PCH10 name, F8 until) {
  if (!share.Root() || WaitGone(share, name, until)) return;
  {
    // Not one that another thread has begun meanwhile.
    MUTEXHOLD hold(ZephLock);
    PHIERAKI const node = share.Root()->FindLeaf(name);
    PCH10 const current = Config() ? Config()->pCurrentConnection : nullptr;
    const bool isNew = current && strcmp(current, name) == 0;
    // A server waits for nothing but the work thread, which has it from Close.
    if (!node || node->Obj()->Type == TServer || isNew) return;
    node->Obj()->Finish();
    share.Object()->ChangedSoon(node);
  }
  (void)WaitGone(share, name, Micros() + kGoingMicros);
}

void WaitSent(ROOTSHARE& share, PCH10 name, F8 until) {
  PHIERAKI const node = share.Root() ? share.Root()->FindLeaf(name) : nullptr;
  if (!node) return;
  CH1 last[kFullNameSize + 1] = {0};
  node->LoopSub(
      [](PHIERAKI child, void* p) -> PHIERAKI {
        const OBJSTATE state = child->Obj()->GetState();
        if (state == SReadyToSend || state == SSending)
          child->FullName(static_cast<PCH1>(p), kFullNameSize);
        return nullptr;
      },
      last);
  if (*last) (void)WaitGone(share, last, until);
}
