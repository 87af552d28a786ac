// zephenable.cpp - turning the link on and off.
//
// Each call of Zeph2Enable begins a new Epoch. What an earlier one has still under way, a connect
// or a listen, finds that when it is through, and drops what it has made.
#include "kyrno/link/zephenable.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/boundary/objects.h"
#include "kyrno/boundary/roots.h"
#include "kyrno/link/zephconfig.h"
#include "kyrno/link/zephsession.h"
#include "kyrno/modes/websocket.h"
#include "kyrno/tls/sslcontrol.h"
#include "sys/linux/fdhold.h"
#include "util/ref.h"

static constexpr UI4 MODULE = 0x00001000;

namespace {

constexpr UI4 kBeatMillis = 5000;   // between tries of a link that polls
constexpr F8 kFreeMicros = 5e6;     // how long turning on waits for a name that is still in use
constexpr F8 kGoingMicros = 100e3;  // how long turning off waits for what goes
constexpr CH1 kLinkVersion[] = "3.2.1503.0";
constexpr CH1 DefaultAddr[] = "::1";
constexpr CH1 kDefaultAddr4[] = "127.0.0.1";
constexpr CH1 kClient[] = "ZephClient";

/// The servers of a direction.
struct SERVERNAMES {
  PCH10 one;
  PCH10 loopback4;  // the second one, of the loopback rule
};
constexpr SERVERNAMES kListen = {"ZephServer", "ZephServer4"};
constexpr SERVERNAMES kHttp = {"HttpServer", "HttpServer4"};

constinit UI4 Epoch GUARDED_BY(ZephLock) = 0;

constinit UI4 Callers GUARDED_BY(ZephLock) = 0;  // threads in Zeph2Enable

/// One of them, on its stack.
struct CALLER {
  CALLER() {
    MUTEXHOLD hold(ZephLock);
    ++Callers;
  }
  ~CALLER() {
    MUTEXHOLD hold(ZephLock);
    --Callers;
  }
};

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

bool IsCurrent(UI4 epoch) {
  MUTEXHOLD hold(ZephLock);
  return Epoch == epoch;
}

/// Waits for a name that an earlier object of the link still has. False when it stays in use, the
/// link was turned off meanwhile, or the root goes.
bool WaitFree(ROOTSHARE& share, PCH10 name, UI4 epoch) {
  const F8 until = Micros() + kFreeMicros;
  do {
    if (WaitGone(share, name, Micros() + kGoingMicros)) return share.Root() != nullptr;
  } while (Micros() < until && IsCurrent(epoch) && !share.IsClosing());
  return false;
}

/// Closes an object; false when there is none of this name.
bool CloseNamed(ROOTSHARE& share, PCH10 name) {
  PHIERAKI const node = share.Root() ? share.Root()->FindLeaf(name) : nullptr;
  if (!node || !node->Obj()) return false;
  (void)node->Obj()->Close(node);
  return true;
}

/// Waits for an object that was closed; a connection that lingers then, because its peer does, goes
/// at once.
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

/// Waits until what was sent on a connection has left.
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

// ---- on

bool IsLoopback() {
  PCH10 const address = Config()->pAddress;
  return !address || !*address || strcmp(address, DefaultAddr) == 0;
}

/// Reads the configuration if none was read well before.
SI4 Configure() {
  tZeph2Config* const fresh = static_cast<tZeph2Config*>(calloc(1, sizeof *fresh));
  if (!fresh) return ERR_MEMORY_ALLOC;
  REF<RootCerts> roots;
  REF<SessionCache2> sessions;
  {
    ROOTSHARE share;
    if (share.Open(kZephRoot)) {
      roots = share.Object()->TrustedCerts();
      sessions = share.Object()->ClientSessions();
    }
  }
  {
    MUTEXHOLD hold(ZephLock);
    fresh->CommConfig = Config()->CommConfig;
  }
  const SI4 code = roots ? Zeph2ReadConfigfile(fresh, roots, sessions) : ERR_ROOT_NOT_FOUND;
  {
    MUTEXHOLD hold(ZephLock);
    if (Config()->Direction == DIRUndefined) MoveConfig(Config(), fresh);
  }
  ClearConfig(fresh);
  free(fresh);
  return code;
}

void BeginLog() {
  CH1 file[sizeof tZeph2Config::ConfigFile] = {0};
  TEXT log;
  UI4 trace;
  {
    // After a failure another thread may be about to put other texts in their place.
    MUTEXHOLD hold(ZephLock);
    snprintf(file, sizeof file, "%s", Config()->ConfigFile);
    if (Config()->pLogfilename) log.reset(strdup(Config()->pLogfilename));
    trace = Config()->Trace;
  }
  if (log) (void)InitLog(log.get());
  if (trace) LOGSet(trace);
  LOG(2, ("Version: %s", kLinkVersion));
  LOG(2, ("ConfigFile: %s", file));
  LOG(2, ("LogFile: %s, %d ", log ? log.get() : "", trace));
  LOG(2, ("Version: %s", kLinkVersion));
}

/// What every object of the link has in common. ERR_MEMORY_ALLOC.
SI4 Plan(PCH10 name, PCH10 address, PROTOCOL prot, OBJECTPLAN* plan) {
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

/// One server: it listens and takes its place, unless the link was turned off meanwhile.
SI4 Serve(UI4 epoch, TDirection direction, PCH10 name, PCH10 address, PROTOCOL prot) {
  const bool web = direction == DIRHttp;
  OBJECTPLAN plan;
  SI4 code = Plan(name, address, prot, &plan);
  if (code) return code;
  if (web) plan.mode = MHttp;
  if (web) plan.features = WSAutoUpgrade | WSStrict | WSWhole;
  plan.allow = REF<RANGES>::Share(Config()->pAllow);
  plan.deny = REF<RANGES>::Share(Config()->pDeny);

  ROOTSHARE share;
  if (!share.Open(kZephRoot)) return ERR_ROOT_NOT_FOUND;
  if (!WaitFree(share, name, epoch) && !share.Root()) return ERR_ROOT_NOT_FOUND;
  std::unique_ptr<SERVER> server;
  code = MakeServer(share, &plan, &server);
  if (code) return code;
  MUTEXHOLD hold(ZephLock);
  if (Epoch != epoch) return ERR_INVALID_OBJECT;
  // Before the first peer comes. The other server may have a session already.
  const TZeph2State before = Published(Zeph2Functions.Zeph2State);
  if (before == Zeph2Idle) Publish(Zeph2Functions.Zeph2State, web ? Zeph2HttpSrv : Zeph2Listening);
  code = LinkObject(share, name, std::move(server));
  if (code) Publish(Zeph2Functions.Zeph2State, before);
  return code;
}

SI4 NoteFailure(SI4 reason, SI4 code) {
  MUTEXHOLD hold(ZephLock);
  Config()->lError = reason;
  return code;
}

/// The servers of directions listen and http.
SI4 ServeAll(UI4 epoch, TDirection direction) {
  const SERVERNAMES& names = direction == DIRHttp ? kHttp : kListen;
  if (!IsLoopback()) {
    PCH10 const address = strcmp(Config()->pAddress, "*") == 0 ? nullptr : Config()->pAddress;
    const SI4 code = Serve(epoch, direction, names.one, address, Config()->Protocol);
    return code ? NoteFailure(code, ERR_ZEPH_LISTEN) : 0;
  }
  const SI4 first = Serve(epoch, direction, names.loopback4, kDefaultAddr4, PIPv4);
  const SI4 second = Serve(epoch, direction, names.one, DefaultAddr, PIPv6);
  return first && second ? NoteFailure(second, ERR_ZEPH_LISTEN) : 0;
}

/// What ends a connect of this epoch; none when the epoch is over, or without memory.
REF<GIVEUP> JoinGiveUp(UI4 epoch) {
  MUTEXHOLD hold(ZephLock);
  if (Epoch != epoch) return {};
  if (!GiveUp) GiveUp = new (std::nothrow) GIVEUP;
  return REF<GIVEUP>::Share(GiveUp);
}

/// Begins one; what the connects of the one before are to be ended with.
REF<GIVEUP> BeginEpoch() TSA(requires_capability(ZephLock)) {
  ++Epoch;
  return REF<GIVEUP>(std::exchange(GiveUp, nullptr));
}

/// A client that is connected.
SI4 Dial(ROOTSHARE& share, UI4 epoch, PROTOCOL prot, std::unique_ptr<CONNECTION>* client) {
  const REF<GIVEUP> giveUp = JoinGiveUp(epoch);
  if (!giveUp) return ERR_INVALID_OBJECT;
  OBJECTPLAN plan;
  if (const SI4 code = Plan(kClient, Config()->pAddress, prot, &plan)) return code;
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
  if (Epoch != epoch || Config()->pCurrentConnection) return ERR_INVALID_OBJECT;
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
      epoch = Epoch;
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

/// Starts the thread, or wakes it. ERR_NEW_THREAD.
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
  if (Epoch != epoch || !open) return code;
  EndSession(Zeph2Idle);
  (void)CloseNamed(share, kClient);
  return code;
}

TDirection Direction() {
  MUTEXHOLD hold(ZephLock);
  return Config()->Direction;
}

SI4 Enable(UI4 epoch) {
  const SSLUSE use;
  SI4 code = 0;
  if (Direction() == DIRUndefined) code = Configure();
  BeginLog();
  if (code) {
    MUTEXHOLD hold(ZephLock);
    if (Epoch == epoch) Publish(Zeph2Functions.Zeph2Enabled, 0);
    return code;
  }
  const TDirection direction = Direction();
  switch (direction) {
    case DIRConnect:
      return ConnectOnce(epoch);
    case DIRPoll:
      return Poll();
    case DIRListen:
    case DIRHttp:
      return ServeAll(epoch, direction);
    case DIRUndefined:
    case DIRConfig:
      break;
  }
  return 0;
}

// ---- off

const SERVERNAMES& Names(TDirection direction) { return direction == DIRHttp ? kHttp : kListen; }

/// Closes what stands. ERR_INVALID_OBJECT when the chief object is missing.
SI4 Close(ROOTSHARE& share, TDirection direction, PCH10 session) {
  bool there = false;
  switch (direction) {
    case DIRConnect:
    case DIRPoll:
      there = CloseNamed(share, kClient);
      break;
    case DIRListen:
    case DIRHttp:
      if (direction == DIRListen && *session) CloseNamed(share, session);
      CloseNamed(share, Names(direction).loopback4);
      there = CloseNamed(share, Names(direction).one);
      break;
    case DIRUndefined:
    case DIRConfig:
      break;
  }
  return there ? 0 : ERR_INVALID_OBJECT;
}

/// Begins an epoch, and gives up what an earlier one has under way. False when nothing changes.
bool Begin(SI4 enable) TSA(requires_capability(ZephLock)) {
  if (!Config() || Published(Zeph2Functions.Zeph2Enabled) == enable) return false;
  Publish(Zeph2Functions.Zeph2Enabled, enable);
  if (const REF<GIVEUP> former = BeginEpoch()) former->Raise();
  return true;
}

SI4 Disable() {
  const F8 until = Micros() + kGoingMicros;
  CH1 session[kFullNameSize + 1] = {0};
  TDirection direction;
  SI4 code;
  UI4 epoch;
  ROOTSHARE share;
  const bool open = share.Open(kZephRoot);
  {
    MUTEXHOLD hold(ZephLock);
    (void)SessionName(session);
  }
  if (open && *session) WaitSent(share, session, until);
  {
    // In one step: who turns it on again finds nothing that is still to be closed.
    MUTEXHOLD hold(ZephLock);
    if (!Begin(0)) return Config() ? 0 : ERR_INVALID_OBJECT;
    epoch = Epoch;
    direction = Config()->Direction;
    *session = 0;
    (void)SessionName(session);
    // Nothing of what goes is an event any more.
    EndSession(Zeph2Idle);
    code = Close(share, direction, session);
  }
  if (direction == DIRConnect || direction == DIRPoll) {
    SeeOff(share, kClient, until);
  } else {
    SeeOff(share, Names(direction).loopback4, until);
    SeeOff(share, Names(direction).one, until);
  }
  MUTEXHOLD hold(ZephLock);
  if (Epoch == epoch) ZephBlocks.DropUnseen();
  return code;
}

}  // namespace

SI4 Zeph2Enable(SI4 enable) {
  const CALLER caller;
  if (enable == 0) return Disable();
  UI4 epoch = 0;
  {
    MUTEXHOLD hold(ZephLock);
    if (!Begin(enable)) return Config() ? 0 : ERR_INVALID_OBJECT;
    epoch = Epoch;
  }
  return Enable(epoch);
}

bool IsTurning() { return Callers > 0; }

void ForgetAttempts() { GiveUp = nullptr; }

void EndZephPolling() {
  POLLING* polling = nullptr;
  REF<GIVEUP> former;
  {
    MUTEXHOLD hold(ZephLock);
    polling = std::exchange(Polling, nullptr);
    former = BeginEpoch();
    if (polling) polling->ends = true;
    if (Config()) Config()->pConnectThread = nullptr;
  }
  if (former) former->Raise();
  if (!polling) return;
  polling->beat.release(1);
  polling->thread.reset();
  delete polling;
}
