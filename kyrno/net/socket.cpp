// socket.cpp - one socket, and the wait for all of them.
#include "kyrno/net/socket.h"

#include <fcntl.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/net/address.h"

static constexpr UI4 MODULE = 0x00000200;

namespace {

// Descriptors from 0 up that select is told to look at.
constexpr int kWatched = FD_SETSIZE - 1;

constexpr F8 kMicrosPerSecond = 1e6;

// A signal is no reason to give a connection up: the next turn tries again.
bool WouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

// Without these the kernel cannot make the new descriptor, however often it is asked.
bool OutOfResources(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// The same, with a line in the log for a descriptor that is open and out of reach.
bool MayWatch(SOCKET sock) {
  if (CanWatch(sock)) return true;
  if (sock != INVALID_SOCKET) LOGStrL("Descriptor is beyond those that can be waited for", sock);
  return false;
}

// How long a turn may sleep.
timeval WaitTime(const SOCKETSETS& sets, UI4 seconds) {
  if (sets.cntBuffered > 0) return {0, 1};

  F8 micros = seconds * kMicrosPerSecond;
  if (sets.deadline > 0) micros = std::clamp(sets.deadline - Micros(), 0.0, micros);
  const time_t whole = static_cast<time_t>(micros / kMicrosPerSecond);
  return {whole, static_cast<suseconds_t>(micros - static_cast<F8>(whole) * kMicrosPerSecond)};
}

SOCKERR Received(ssize_t count, PBUFFER b, PCH10 function) {
  const int error = errno;
  if (count > 0) {
    b->NextProcessed(static_cast<UI4>(count));
    return 0;
  }
  if (count == 0) return ERR_CLOSED;
  if (WouldBlock(error)) return 0;
  SockErrLog(error, function);
  return ERR_RECV;
}

SOCKERR Sent(ssize_t count, PBUFFER b, PCH10 function) {
  const int error = errno;
  if (count >= 0) {
    b->NextProcessed(static_cast<UI4>(count));
    return b->lError;
  }
  if (WouldBlock(error)) return 0;
  SockErrLog(error, function);
  return ERR_SEND;
}

}  // namespace

bool CanWatch(SOCKET sock) { return sock >= 0 && sock < kWatched; }

void Clear(PSOCKETSETS sets) {
  sets->cntBuffered = 0;
  sets->deadline = 0;
  FD_ZERO(&sets->sRead);
  FD_ZERO(&sets->sWrite);
}

SOCKERR SfWait(PSOCKETSETS sets, UI4 seconds, PSI4 count) {
  timeval wait = WaitTime(*sets, seconds);
  LOG(4, ("Select suspend"));
  *count = select(kWatched, &sets->sRead, &sets->sWrite, nullptr, &wait);
  const int error = errno;
  LOG(4, ("Select %d ready", *count));
  if (*count >= 0) {
    *count += sets->cntBuffered;
    return 0;
  }

  // The kernel leaves the sets as they were wanted, which would read as all of them being ready.
  FD_ZERO(&sets->sRead);
  FD_ZERO(&sets->sWrite);
  const SOCKERR result = error == EINTR ? 0 : error;
  SockErrLog(error, "select");
  SockErrLog(result, "select interupt cleared");
  return result;
}

SOCKERR SfAccept(SOCKET listener, SOCKET* out, bool* mustRest) {
  *mustRest = false;
  *out = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (*out == INVALID_SOCKET) {
    const int error = errno;
    // A peer that gave up while it was queued is gone: there may be nothing to take after all.
    if (WouldBlock(error) || error == ECONNABORTED) return 0;
    SockErrLog(error, "accept");
    *mustRest = OutOfResources(error);
    return ERR_ACCEPT;
  }
  const int on = 1;
  setsockopt(*out, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return 0;
}

void SockErrLog(int error, PCH10 function) {
  CH1 line[128];
  snprintf(line, sizeof line, "ERROR %ld returned from function <%s>", static_cast<long>(error),
           function);
  LOGStr(line);
}

RPCSOCK::RPCSOCK(SOCKET adopted) { Adopt(adopted); }

RPCSOCK::RPCSOCK(PCH10 name, PCH10 service, bool server, PROTOCOL prot, int type) {
  SOCKET made = INVALID_SOCKET;
  lError = CreateSocketNew(&made, name, service, type, prot, server);
  if (lError) return;
  Adopt(made);
  if (lError || !server || type != SOCK_STREAM) return;

  // Peers that come in a burst wait here; a short queue would drop some of them for seconds.
  if (listen(made, SOMAXCONN) == 0) return;
  SockErrLog(errno, "listen");
  lError = ERR_LISTEN;
}

RPCSOCK::~RPCSOCK() {
  RPCSOCK::CloseSocket();
  LOG(1, ("Socket closed %d ", RPCSOCK::RawSocket()));
  for (PAA& info : paaInfo) info = VAFree(info);
}

void RPCSOCK::CloseSocket() {
  MUTEXHOLD hold(Lock);
  const SOCKET s = sock.exchange(INVALID_SOCKET, std::memory_order_relaxed);
  if (s != INVALID_SOCKET) closesocket(s);
}

SOCKERR RPCSOCK::SetNonBlock() {
  MUTEXHOLD hold(Lock);
  const SOCKET s = sock.load(std::memory_order_relaxed);
  const int flags = fcntl(s, F_GETFL);
  if (flags == -1) return errno;
  if (flags & O_NONBLOCK) return 0;  // as accepted ones are already
  return fcntl(s, F_SETFL, flags | O_NONBLOCK) == -1 ? errno : 0;
}

SOCKERR RPCSOCK::SetKeepalive(UI4 time, UI4 interval) {
  // Milliseconds to the seconds that the system takes. Deliberate: 501 and signed.
  const auto seconds = [](UI4 millis) { return static_cast<SI4>(millis + 501) / 1000; };

  if (const SOCKERR error = SetOption(SOL_SOCKET, SO_KEEPALIVE, time != 0)) return error;
  if (time == 0) return 0;
  if (const SOCKERR error = SetOption(IPPROTO_TCP, TCP_KEEPINTVL, seconds(interval))) return error;
  return SetOption(IPPROTO_TCP, TCP_KEEPIDLE, seconds(time));
}

SOCKIPADDR RPCSOCK::IpAddr() {
  QLNSOCKADDR addr;
  if (Addr(true, &addr) != 0) {
    SockErrLog(errno, "getsockname");
    return 0;
  }
  sockaddr_in in;
  memcpy(&in, &addr, sizeof in);
  return ntohl(in.sin_addr.s_addr);
}

SOCKPORT RPCSOCK::Port() {
  QLNSOCKADDR addr;
  if (Addr(true, &addr) != 0) {
    SockErrLog(errno, "getsockname");
    return 0;
  }
  sockaddr_in in;  // the port stands at the same place in both families
  memcpy(&in, &addr, sizeof in);
  return ntohs(in.sin_port);
}

SI4 RPCSOCK::Info(bool local, PPAA out) {
  *out = nullptr;
  MUTEXHOLD hold(Lock);
  PAA& cached = paaInfo[local ? 0 : 1];
  if (!cached) {
    const SI4 error = SockInfoName(sock.load(std::memory_order_relaxed), local, &cached);
    if (error) return error;
  }
  VAIncRef(cached);
  *out = cached;
  return 0;
}

SI4 RPCSOCK::Addr(bool local, PQLNSOCKADDR addr) {
  *addr = {};
  socklen_t size = QLNSOCKADDRSIZEOF;
  MUTEXHOLD hold(Lock);
  const SOCKET s = sock.load(std::memory_order_relaxed);
  sockaddr* to = reinterpret_cast<sockaddr*>(addr);
  return local ? getsockname(s, to, &size) : getpeername(s, to, &size);
}

SOCKERR RPCSOCK::SetNoDelay() { return SetOption(IPPROTO_TCP, TCP_NODELAY, 1) ? -1 : 0; }

bool RPCSOCK::isConnected() {
  int pending = 0;
  socklen_t size = sizeof pending;
  MUTEXHOLD hold(Lock);
  const SOCKET s = sock.load(std::memory_order_relaxed);
  if (getsockopt(s, SOL_SOCKET, SO_ERROR, &pending, &size) == 0) return pending == 0;
  SockErrLog(errno, "IsConnected");
  return false;
}

SOCKERR RPCSOCK::Read(PBUFFER b) {
  PCH1 at;
  UI4 room;
  if (const SI4 error = b->Room(&at, &room)) return error;
  // To ask for no bytes and get none is no close.
  if (room == 0) return 0;

  const SOCKET s = sock.load(std::memory_order_relaxed);
  const ssize_t count = recv(s, at, room, 0);
  const int error = errno;
  LOG(4, ("RecvPartial %4d %5d %8p %25.0f", s, static_cast<int>(count), static_cast<void*>(at),
          Micros()));
  errno = error;
  return Received(count, b, "recv");
}

SI4 RPCSOCK::RecvFrom(PBUFFER b, PQLNSOCKADDR addr) {
  PCH1 at;
  UI4 room;
  if (const SI4 error = b->Room(&at, &room)) return error;

  *addr = {};
  socklen_t size = QLNSOCKADDRSIZEOF;
  const SOCKET s = sock.load(std::memory_order_relaxed);
  const ssize_t count = recvfrom(s, at, room, 0, reinterpret_cast<sockaddr*>(addr), &size);
  const int error = errno;
  LOG(4, ("RecvPartial %4d %5d %8p %25.0f", s, static_cast<int>(count), static_cast<void*>(at),
          Micros()));
  errno = error;
  return Received(count, b, "recvfrom");
}

SOCKERR RPCSOCK::Write(PBUFFER b) {
  if (b->lError) return b->lError;
  const SOCKET s = sock.load(std::memory_order_relaxed);
  const PCH1 at = b->Next();
  const ssize_t count = send(s, at, b->NextSize(), MSG_NOSIGNAL);
  const int error = errno;
  LOG(4, ("SendPartial %4d %5d %8p %25.0f", s, static_cast<int>(count), static_cast<void*>(at),
          Micros()));
  errno = error;
  return Sent(count, b, "send");
}

SI4 RPCSOCK::SendTo(PBUFFER b, const QLNSOCKADDR* addr) {
  if (b->lError) return b->lError;
  const SOCKET s = sock.load(std::memory_order_relaxed);
  const PCH1 at = b->Next();
  const ssize_t count = sendto(s, at, b->NextSize(), MSG_NOSIGNAL,
                               reinterpret_cast<const sockaddr*>(addr), QLNSOCKADDRSIZEOF);
  const int error = errno;
  LOG(4,
      ("SendTo %4d %5d %8p %25.0f", s, static_cast<int>(count), static_cast<void*>(at), Micros()));
  errno = error;
  return Sent(count, b, "sendto");
}

SOCKERR RPCSOCK::Accept(PRPCSOCK* out, bool* mustRest) {
  *out = nullptr;
  SOCKET taken;
  const SOCKERR error = SfAccept(sock.load(std::memory_order_relaxed), &taken, mustRest);
  if (error || taken == INVALID_SOCKET) return error;

  std::unique_ptr<RPCSOCK> made(new (std::nothrow) RPCSOCK(taken));
  if (!made) {
    closesocket(taken);
    return ERR_MEMORY_ALLOC;
  }
  if (made->lError) return made->lError;
  *out = made.release();
  return 0;
}

SOCKERR RPCSOCK::Shutdown() {
  MUTEXHOLD hold(Lock);
  if (shutdown(sock.load(std::memory_order_relaxed), SD_SEND) == 0) return 0;
  const int error = errno;
  SockErrLog(error, "shutdown");
  return error;
}

SOCKERR RPCSOCK::Handshake(bool) { return 0; }

SOCKERR RPCSOCK::Wait4R(PSOCKETSETS sets) {
  const SOCKET s = sock.load(std::memory_order_relaxed);
  LOG(4, ("Check read  %d ", s));
  if (!MayWatch(s)) return ERR_NEW_DATA_SOCKET;
  FD_SET(s, &sets->sRead);
  return 0;
}

SOCKERR RPCSOCK::Wait4W(PSOCKETSETS sets) {
  const SOCKET s = sock.load(std::memory_order_relaxed);
  LOG(4, ("Check write %d ", s));
  if (!MayWatch(s)) return ERR_NEW_DATA_SOCKET;
  FD_SET(s, &sets->sWrite);
  return 0;
}

SI4 RPCSOCK::Ready4R(PSOCKETSETS sets) {
  const SOCKET s = sock.load(std::memory_order_relaxed);
  const SI4 ready = isValid() && CanWatch(s) && FD_ISSET(s, &sets->sRead) ? 1 : 0;
  LOG(4, ("%d Ready %d for read", s, ready));
  return ready;
}

SI4 RPCSOCK::Ready4W(PSOCKETSETS sets) {
  const SOCKET s = sock.load(std::memory_order_relaxed);
  const SI4 ready = isValid() && CanWatch(s) && FD_ISSET(s, &sets->sWrite) ? 1 : 0;
  LOG(4, ("%d Ready %d for write", s, ready));
  return ready;
}

PAA RPCSOCK::paaCert(bool) {
  const UI4 none = 0;
  return VANew(VAC1, 1, &none);
}

SI4 RPCSOCK::Subject(PCH1 buf, UI4 size) {
  if (!buf || size == 0) return ERR_LENGTH;
  *buf = '\0';
  return 0;
}

// Takes an open descriptor over, or closes one that the work thread could never watch: an object
// with such a socket would hang unseen.
void RPCSOCK::Adopt(SOCKET s) {
  if (!MayWatch(s)) {
    if (s >= 0) closesocket(s);
    lError = ERR_NEW_DATA_SOCKET;
    return;
  }
  sock.store(s, std::memory_order_relaxed);
  lError = RPCSOCK::SetNonBlock();
}

SOCKERR RPCSOCK::SetOption(int level, int option, int value) {
  MUTEXHOLD hold(Lock);
  const SOCKET s = sock.load(std::memory_order_relaxed);
  return setsockopt(s, level, option, &value, sizeof value) == 0 ? 0 : errno;
}
