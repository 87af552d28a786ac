// tlspipe.cpp - the bytes between GnuTLS and a descriptor.
#include "kyrno/tls/tlspipe.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/base/log.h"
#include "sys/linux/qlnplat.h"

static constexpr UI4 MODULE = 0x00000400;

namespace {

constexpr size_t kSmallestOut = 4096;

}  // namespace

void TLSPIPE::Attach(gnutls_session_t session, SOCKET descriptor) {
  sock = descriptor;
  // The functions would be given another pointer then; without them the handshake fails.
  if (!SslHas(kyrnossl.ignutls_transport_set_ptr)) return;
  gnutls_transport_set_ptr(session, this);
  gnutls_transport_set_pull_function(session, Pull);
  gnutls_transport_set_push_function(session, Push);
  gnutls_transport_set_pull_timeout_function(session, HasBytes);
}

SOCKERR TLSPIPE::Flush() {
  if (failed) return ERR_SEND;
  while (HasUnsent()) {
    const ssize_t count = send(sock, out.get() + outAt, outEnd - outAt, MSG_NOSIGNAL);
    const int error = errno;
    LOG(4, ("SendPartial %4d %5d %8p %25.0f", sock, static_cast<int>(count),
            static_cast<void*>(out.get() + outAt), Micros()));
    if (count < 0 && error == EINTR) continue;
    if (count < 0 && (error == EAGAIN || error == EWOULDBLOCK)) return 0;
    if (count < 0) {
      SockErrLog(error, "send");
      // Kept, it would be tried again and again: such a socket is always ready.
      failed = true;
      out.reset();
      outAt = outEnd = outRoom = 0;
      return ERR_SEND;
    }
    outAt += static_cast<size_t>(count);
  }
  out.reset();
  outAt = outEnd = outRoom = 0;
  if (!HasUnread()) in.reset();
  return 0;
}

void TLSPIPE::Close() {
  sock = INVALID_SOCKET;
  in.reset();
  out.reset();
  inAt = inEnd = outAt = outEnd = outRoom = 0;
}

ssize_t TLSPIPE::Pull(gnutls_transport_ptr_t pipe, void* to, size_t n) {
  return static_cast<TLSPIPE*>(pipe)->Read(to, n);
}

ssize_t TLSPIPE::Push(gnutls_transport_ptr_t pipe, const void* from, size_t n) {
  return static_cast<TLSPIPE*>(pipe)->Write(from, n);
}

/// GnuTLS asks before it would wait for bytes itself: nothing here ever waits.
int TLSPIPE::HasBytes(gnutls_transport_ptr_t pipe, unsigned int) {
  TLSPIPE* const own = static_cast<TLSPIPE*>(pipe);
  return own->HasUnread() || own->Receive() ? 1 : 0;
}

ssize_t TLSPIPE::Read(void* to, size_t n) {
  if (!HasUnread() && !Receive()) return errno ? -1 : 0;
  const size_t take = std::min(n, inEnd - inAt);
  memcpy(to, in.get() + inAt, take);
  inAt += take;
  return static_cast<ssize_t>(take);
}

/// False when nothing came: errno says why, 0 is the peer's end.
bool TLSPIPE::Receive() {
  if (drained) {
    errno = EAGAIN;
    return false;
  }
  if (!in) in.reset(static_cast<PCH1>(malloc(kInBytes)));
  if (!in) {
    errno = ENOMEM;
    return false;
  }
  inAt = inEnd = 0;
  const ssize_t count = recv(sock, in.get(), kInBytes, 0);
  const int error = count < 0 ? errno : 0;
  LOG(4, ("RecvPartial %4d %5d %8p %25.0f", sock, static_cast<int>(count),
          static_cast<void*>(in.get()), Micros()));
  if (count > 0) {
    inEnd = static_cast<size_t>(count);
    drained = inEnd < kInBytes;
    return true;
  }
  errno = error;
  return false;
}

ssize_t TLSPIPE::Write(const void* from, size_t n) {
  // What the peer has sent can still be read.
  if (failed) return static_cast<ssize_t>(n);
  if (outEnd - outAt + n > kMostUnsent) {
    errno = ENOBUFS;
    return -1;
  }
  if (!MakeRoom(n)) {
    errno = ENOMEM;
    return -1;
  }
  memcpy(out.get() + outEnd, from, n);
  outEnd += n;
  return static_cast<ssize_t>(n);
}

bool TLSPIPE::MakeRoom(size_t n) {
  if (n <= outRoom - outEnd) return true;
  if (outAt > 0) {
    memmove(out.get(), out.get() + outAt, outEnd - outAt);
    outEnd -= outAt;
    outAt = 0;
    if (n <= outRoom - outEnd) return true;
  }
  const size_t room = std::max({2 * outRoom, outEnd + n, kSmallestOut});
  PCH1 const grown = static_cast<PCH1>(realloc(out.get(), room));
  if (!grown) return false;
  (void)out.release();
  out.reset(grown);
  outRoom = room;
  return true;
}
