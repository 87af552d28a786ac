// socket.cpp - one socket, and the wait for all of them.
#include "kyrno/net/socket.h"

#include <fcntl.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/net/address.h"
#include "sys/linux/forkmark.h"

static constexpr UI4 MODULE = 0x00000200;

namespace {

constexpr F8 kMicrosPerSecond = 1e6;
constexpr F8 kMicrosPerMilli = 1e3;

// A signal is no reason to give a connection up: the next turn tries again.
bool WouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

// Without these the kernel cannot make the new descriptor, however often it is asked.
bool OutOfResources(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// How long a turn may sleep. Rounded up: a wait that ends before the deadline would be followed by
// many more until it comes.
int WaitMillis(const SOCKETSETS& sets, UI4 seconds) {
  if (sets.cntBuffered > 0) return 0;

  F8 micros = seconds * kMicrosPerSecond;
  if (sets.deadline > 0) micros = std::clamp(sets.deadline - Micros(), 0.0, micros);
  const F8 millis = std::ceil(micros / kMicrosPerMilli);
  return static_cast<int>(std::min<F8>(millis, std::numeric_limits<int>::max()));
}

// The code of a receive that gave `count`.
SOCKERR Received(ssize_t count, int error, PCH10 function) {
  if (count > 0) return 0;
  if (count == 0) return ERR_CLOSED;
  if (WouldBlock(error)) return 0;
  SockErrLog(error, function);
  return ERR_RECV;
}

SOCKERR Received(ssize_t count, int error, PBUFFER b, PCH10 function) {
  if (count > 0) b->NextProcessed(static_cast<UI4>(count));
  return Received(count, error, function);
}

// The code of a send that gave `count`.
SOCKERR Sent(ssize_t count, int error, PCH10 function) {
  if (count >= 0 || WouldBlock(error)) return 0;
  SockErrLog(error, function);
  return ERR_SEND;
}

SOCKERR Sent(ssize_t count, int error, PBUFFER b, PCH10 function) {
  if (count >= 0) b->NextProcessed(static_cast<UI4>(count));
  return count >= 0 ? b->lError : Sent(count, error, function);
}

// The kernel only reads the pieces, though its interface does not say so.
msghdr Message(const iovec* pieces, int count) {
  msghdr message = {};
  message.msg_iov = const_cast<iovec*>(pieces);
  message.msg_iovlen = static_cast<size_t>(count);
  return message;
}

bool AnyBytes(const iovec* pieces, int count) {
  for (int i = 0; i < count; ++i)
    if (pieces[i].iov_len > 0) return true;
  return false;
}

}  // namespace

SOCKETSETS::~SOCKETSETS() {
  if (epoll >= 0) close(epoll);
}

SOCKERR SOCKETSETS::Open() {
  mark = FORKMARK::Current();
  epoll = epoll_create1(EPOLL_CLOEXEC);
  if (epoll >= 0) return 0;
  const int error = errno;
  SockErrLog(error, "epoll_create1");
  return error;
}

void SOCKETSETS::CloseAfterFork() {
  if (epoll >= 0) close(epoll);
  epoll = -1;
}

bool SOCKETSETS::IsOwnProcess() const { return mark == FORKMARK::Current(); }

PVOID SOCKETSETS::Brought(SI4 i) {
  if (i >= brought) return nullptr;
  const PRPCSOCK socket = static_cast<PRPCSOCK>(events[i].data.ptr);
  if (socket->watched == 0) return nullptr;
  const UI4 happened = events[i].events;
  // Both come whatever the kernel watches for: they go to whoever can find out the reason.
  const bool ended = (happened & (EPOLLERR | EPOLLHUP)) != 0;
  socket->ready = ended ? EPOLLIN | EPOLLOUT : happened;
  return socket->pOwner;
}

void Clear(PSOCKETSETS sets) {
  sets->cntBuffered = 0;
  sets->deadline = 0;
}

SOCKERR SfWait(PSOCKETSETS sets, UI4 seconds, PSI4 count) {
  const int millis = WaitMillis(*sets, seconds);
  LOG(4, ("Select suspend"));
  *count = epoll_wait(sets->epoll, sets->events, SOCKETSETS::kEvents, millis);
  const int error = errno;
  LOG(4, ("Select %d ready", *count));
  sets->brought = std::max(*count, 0);
  if (*count >= 0) {
    *count += sets->cntBuffered;
    return 0;
  }

  // Deliberate: the name that readers of logs know the wait by.
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

RPCSOCK::RPCSOCK(PCH10 name, PCH10 service, bool server, PROTOCOL prot, int type, int giveUp) {
  SOCKET made = INVALID_SOCKET;
  lError = CreateSocketNew(&made, name, service, type, prot, server, giveUp);
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
  // A descriptor that a forked child has too is still open when this one is closed, and its events
  // would come for ever.
  if (watched && pWatching->IsOwnProcess()) (void)Change(0);
  wanted = watched = ready = 0;

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
  const iovec piece = {at, room};
  size_t got = 0;
  const SOCKERR code = ReadV(&piece, 1, &got);
  if (got > 0) b->NextProcessed(static_cast<UI4>(got));
  return code;
}

SOCKERR RPCSOCK::ReadV(const iovec* pieces, int count, size_t* got) {
  *got = 0;
  // To ask for no bytes and get none is no close.
  if (!AnyBytes(pieces, count)) return 0;

  const SOCKET s = sock.load(std::memory_order_relaxed);
  msghdr message = Message(pieces, count);
  const ssize_t bytes = recvmsg(s, &message, 0);
  const int error = errno;
  LOG(4,
      ("RecvPartial %4d %5d %8p %25.0f", s, static_cast<int>(bytes), pieces->iov_base, Micros()));
  if (bytes > 0) *got = static_cast<size_t>(bytes);
  return Received(bytes, error, "recv");
}

SOCKERR RPCSOCK::WriteV(const iovec* pieces, int count, size_t* sent) {
  *sent = 0;
  const SOCKET s = sock.load(std::memory_order_relaxed);
  const msghdr message = Message(pieces, count);
  const ssize_t bytes = sendmsg(s, &message, MSG_NOSIGNAL);
  const int error = errno;
  LOG(4,
      ("SendPartial %4d %5d %8p %25.0f", s, static_cast<int>(bytes), pieces->iov_base, Micros()));
  if (bytes > 0) *sent = static_cast<size_t>(bytes);
  return Sent(bytes, error, "send");
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
  return Received(count, error, b, "recvfrom");
}

SOCKERR RPCSOCK::Write(PBUFFER b) {
  if (b->lError) return b->lError;
  const iovec piece = {b->Next(), b->NextSize()};
  size_t sent = 0;
  if (const SOCKERR code = WriteV(&piece, 1, &sent)) return code;
  b->NextProcessed(static_cast<UI4>(sent));
  return b->lError;
}

SI4 RPCSOCK::SendTo(PBUFFER b, const QLNSOCKADDR* addr, bool* sent) {
  *sent = false;
  if (b->lError) return b->lError;
  if (b->NextSize() < b->Remaining()) return ERR_LENGTH;
  const SOCKET s = sock.load(std::memory_order_relaxed);
  const PCH1 at = b->Next();
  const ssize_t count = sendto(s, at, b->NextSize(), MSG_NOSIGNAL,
                               reinterpret_cast<const sockaddr*>(addr), QLNSOCKADDRSIZEOF);
  const int error = errno;
  LOG(4,
      ("SendTo %4d %5d %8p %25.0f", s, static_cast<int>(count), static_cast<void*>(at), Micros()));
  *sent = count >= 0;
  const SI4 code = Sent(count, error, b, "sendto");
  return !*sent && error == EMSGSIZE ? ERR_LENGTH : code;
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

SOCKERR RPCSOCK::Wait4R(PSOCKETSETS) {
  const SOCKET s = sock.load(std::memory_order_relaxed);
  LOG(4, ("Check read  %d ", s));
  if (s == INVALID_SOCKET) return ERR_NEW_DATA_SOCKET;
  wanted |= EPOLLIN;
  return 0;
}

SOCKERR RPCSOCK::Wait4W(PSOCKETSETS) {
  const SOCKET s = sock.load(std::memory_order_relaxed);
  LOG(4, ("Check write %d ", s));
  if (s == INVALID_SOCKET) return ERR_NEW_DATA_SOCKET;
  wanted |= EPOLLOUT;
  return 0;
}

SOCKERR RPCSOCK::Settle(PSOCKETSETS sets) {
  ready = 0;
  if (isValid()) wanted |= OwnWants();
  if (wanted == watched || !sets->IsOwnProcess()) return 0;
  assert(!pWatching || pWatching == sets);
  pWatching = sets;
  return Change(wanted);
}

SI4 RPCSOCK::Ready4R(PSOCKETSETS) {
  const bool is = (watched & EPOLLIN) != 0 && ((ready & EPOLLIN) != 0 || PendingRead() != 0);
  LOG(4, ("%d Ready %d for read", sock.load(std::memory_order_relaxed), is));
  return is;
}

SI4 RPCSOCK::Ready4W(PSOCKETSETS) {
  const bool is = (watched & ready & EPOLLOUT) != 0;
  LOG(4, ("%d Ready %d for write", sock.load(std::memory_order_relaxed), is));
  return is;
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

void RPCSOCK::Adopt(SOCKET s) {
  if (s < 0) {
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

// Tells the kernel what to watch for from now on. Either that or what it watches for is not 0.
SOCKERR RPCSOCK::Change(UI4 events) {
  const int how = watched == 0 ? EPOLL_CTL_ADD : events == 0 ? EPOLL_CTL_DEL : EPOLL_CTL_MOD;
  epoll_event event = {};
  event.events = events;
  event.data.ptr = this;
  if (epoll_ctl(pWatching->epoll, how, sock.load(std::memory_order_relaxed), &event) != 0) {
    SockErrLog(errno, "epoll_ctl");
    return ERR_NEW_DATA_SOCKET;
  }
  watched = events;
  return 0;
}
