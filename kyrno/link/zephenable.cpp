// zephenable.cpp - turning the link on and off.
#include "kyrno/link/zephenable.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/link/zephconfig.h"
#include "kyrno/link/zephobjects.h"
#include "kyrno/link/zephpoll.h"
#include "kyrno/modes/websocket.h"
#include "kyrno/tls/sslcontrol.h"

static constexpr UI4 MODULE = 0x00001000;

namespace {

constexpr CH1 kLinkVersion[] = "3.2.1503.0";
constexpr CH1 DefaultAddr[] = "::1";
constexpr CH1 kDefaultAddr4[] = "127.0.0.1";

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

const SERVERNAMES& Names(TDirection direction) { return direction == DIRHttp ? kHttp : kListen; }

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

/// One server: it listens and takes its place, unless the link was turned off meanwhile.
SI4 Serve(UI4 epoch, TDirection direction, PCH10 name, PCH10 address, PROTOCOL prot) {
  const bool web = direction == DIRHttp;
  OBJECTPLAN plan;
  SI4 code = PlanObject(name, address, prot, &plan);
  if (code) return code;
  if (web) plan.mode = MHttp;
  if (web) plan.features = WSAutoUpgrade | WSStrict | WSWhole | HTTPOneByOne;
  plan.allow = REF<RANGES>::Share(Config()->pAllow);
  plan.deny = REF<RANGES>::Share(Config()->pDeny);

  ROOTSHARE share;
  if (!share.Open(kZephRoot)) return ERR_ROOT_NOT_FOUND;
  if (!WaitFree(share, name, epoch) && !share.Root()) return ERR_ROOT_NOT_FOUND;
  std::unique_ptr<SERVER> server;
  code = MakeServer(share, &plan, &server);
  if (code) return code;
  MUTEXHOLD hold(ZephLock);
  if (ZephEpoch != epoch) return ERR_INVALID_OBJECT;
  // Before the first peer comes. The other server may have a session already.
  const TZeph2State before = Published(Zeph2Functions.Zeph2State);
  if (before == Zeph2Idle) Publish(Zeph2Functions.Zeph2State, web ? Zeph2HttpSrv : Zeph2Listening);
  code = LinkObject(share, name, std::move(server));
  if (code) Publish(Zeph2Functions.Zeph2State, before);
  return code;
}

/// The servers of directions listen and http.
SI4 ServeAll(UI4 epoch, TDirection direction) {
  const SERVERNAMES& names = Names(direction);
  if (!IsLoopback()) {
    PCH10 const address = strcmp(Config()->pAddress, "*") == 0 ? nullptr : Config()->pAddress;
    const SI4 code = Serve(epoch, direction, names.one, address, Config()->Protocol);
    return code ? NoteFailure(code, ERR_ZEPH_LISTEN) : 0;
  }
  const SI4 first = Serve(epoch, direction, names.loopback4, kDefaultAddr4, PIPv4);
  const SI4 second = Serve(epoch, direction, names.one, DefaultAddr, PIPv6);
  return first && second ? NoteFailure(second, ERR_ZEPH_LISTEN) : 0;
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
    if (ZephEpoch == epoch) Publish(Zeph2Functions.Zeph2Enabled, 0);
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
  ++ZephEpoch;
  GiveUpConnects();
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
    epoch = ZephEpoch;
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
  if (ZephEpoch == epoch) ZephBlocks.DropUnseen();
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
    epoch = ZephEpoch;
  }
  return Enable(epoch);
}

bool IsTurning() { return Callers > 0; }
