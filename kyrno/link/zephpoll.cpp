// zephpoll.cpp - the link that connects.
#include "kyrno/link/zephpoll.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>
#include <utility>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/link/zephobjects.h"
#include "kyrno/tls/sslcontrol.h"
#include "sys/linux/fdhold.h"
#include "util/ref.h"

static constexpr UI4 MODULE = 0x00001000;

namespace {

constexpr UI4 kBeatMillis = 5000;  // between tries

PZeph2Config Config() { return Zeph2Functions.pZeph2Config; }

/// Ends the connects of one epoch: raised once, it stays so, and the next epoch has another.
class GIVEUP : public COUNTED {
 public:
  int Get() const { return event.Get(); }
  void Raise() {
    const UI8 one = 1;
    if (write(Get(), &one, sizeof one) < 0) LOG(1, ("Giving up failed %d", errno));
  }

 private:
  const FDHOLD event{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
};
/// One count; null while nothing of this epoch has connected.
constinit GIVEUP* GiveUp GUARDED_BY(ZephLock) = nullptr;

/// The thread that polls: made when it is first wanted, it stays until the library goes.
struct POLLING {
  QLNSEMATO beat{0, 1000};
  bool ends = false;  // guarded by ZephLock
  std::unique_ptr<QLNTHREAD> thread;
};
constinit POLLING* Polling GUARDED_BY(ZephLock) = nullptr;

/// What ends a connect of this epoch; none when the epoch is over, or without memory.
REF<GIVEUP> JoinGiveUp(UI4 epoch) {
  MUTEXHOLD hold(ZephLock);
  if (ZephEpoch != epoch) return {};
  if (!GiveUp) GiveUp = new (std::nothrow) GIVEUP;
  return REF<GIVEUP>::Share(GiveUp);
}

/// A client that is connected.
SI4 Dial(ROOTSHARE& share, UI4 epoch, PROTOCOL prot, std::unique_ptr<CONNECTION>* client) {
  const REF<GIVEUP> giveUp = JoinGiveUp(epoch);
  if (!giveUp) return ERR_INVALID_OBJECT;
  OBJECTPLAN plan;
  if (const SI4 code = PlanObject(kClient, Config()->pAddress, prot, &plan)) return code;
  plan.giveUp = giveUp->Get();
  return MakeClient(share, &plan, client);
}

/// One attempt to connect outward, which begins a session.
SI4 TryConnect(UI4 epoch) {
  const SSLUSE use;
  ROOTSHARE share;
  if (!share.Open(kZephRoot)) return ERR_ROOT_NOT_FOUND;
  // The last one may not be out of the tree yet.
  if (!WaitFree(share, kClient, epoch)) SeeOff(share, kClient, Micros());
  if (!share.Root()) return ERR_ROOT_NOT_FOUND;
  const PROTOCOL prot = Config()->Protocol;
  std::unique_ptr<CONNECTION> client;
  SI4 code = ERR_NEW;
  if (prot != PIPv4) code = Dial(share, epoch, PIPv6, &client);
  if (code && prot != PIPv6 && share.Root()) code = Dial(share, epoch, PIPv4, &client);
  if (code) return code;

  MUTEXHOLD hold(ZephLock);
  if (ZephEpoch != epoch || Config()->pCurrentConnection) return ERR_INVALID_OBJECT;
  // With the lock: what its peer sends is not looked at before the session has begun.
  PHIERAKI node = nullptr;
  code = LinkObject(share, kClient, std::move(client), &node);
  if (!code) code = BeginSession(node);
  if (code && node) (void)node->Obj()->Close(node);
  return code;
}

UI4 Zeph2ConnectThread(PVOID polling) {
  POLLING* const own = static_cast<POLLING*>(polling);
  SI4 code = 0;
  for (;;) {
    bool on = false;
    bool tries = false;
    UI4 epoch = 0;
    {
      MUTEXHOLD hold(ZephLock);
      if (own->ends) return static_cast<UI4>(code);
      on = Config()->Direction == DIRPoll && Published(Zeph2Functions.Zeph2Enabled) > 0;
      tries =
          on && !Config()->pCurrentConnection && Published(Zeph2Functions.Zeph2State) == Zeph2Idle;
      epoch = ZephEpoch;
    }
    if (tries) code = TryConnect(epoch);
    if (on)
      own->beat.wait(kBeatMillis);
    else
      own->beat.wait();
    // However often it was turned off and on, one try is due.
    while (own->beat.wait(UI4{0}) == SemReleased) {
    }
  }
}

}  // namespace

SI4 Poll() {
  POLLING* fresh = new (std::nothrow) POLLING;
  if (!fresh) return ERR_MEMORY_ALLOC;
  MUTEXHOLD hold(ZephLock);
  if (Polling) {
    delete fresh;
    Polling->beat.release(1);
    return 0;
  }
  fresh->thread.reset(new (std::nothrow) QLNTHREAD(Zeph2ConnectThread, fresh));
  if (!fresh->thread || fresh->thread->lError == ERR_NEW_THREAD) {
    delete fresh;
    return ERR_NEW_THREAD;
  }
  Polling = fresh;
  Config()->pConnectThread = fresh->thread.get();
  return 0;
}

SI4 ConnectOnce(UI4 epoch) {
  if (const SI4 reason = TryConnect(epoch)) return NoteFailure(reason, ERR_ZEPH_CONNECT);
  {
    // From now on it reconnects by itself.
    MUTEXHOLD hold(ZephLock);
    Config()->Direction = DIRPoll;
  }
  const SI4 code = Poll();
  if (!code) return 0;
  // What is told to have failed must not stand.
  ROOTSHARE share;
  const bool open = share.Open(kZephRoot);
  MUTEXHOLD hold(ZephLock);
  if (ZephEpoch != epoch || !open) return code;
  EndSession(Zeph2Idle);
  (void)CloseNamed(share, kClient);
  return code;
}

void GiveUpConnects() {
  if (const REF<GIVEUP> former{std::exchange(GiveUp, nullptr)}) former->Raise();
}

void ForgetAttempts() { GiveUp = nullptr; }

void EndZephPolling() {
  POLLING* polling = nullptr;
  {
    MUTEXHOLD hold(ZephLock);
    polling = std::exchange(Polling, nullptr);
    ++ZephEpoch;
    GiveUpConnects();
    if (polling) polling->ends = true;
    if (Config()) Config()->pConnectThread = nullptr;
  }
  if (!polling) return;
  polling->beat.release(1);
  polling->thread.reset();
  delete polling;
}
