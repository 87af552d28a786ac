// securesocket.cpp - the stream of a secure socket, and its end.
#include "kyrno/tls/securesocket.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/base/log.h"

static constexpr UI4 MODULE = 0x00000400;

namespace {

constexpr size_t kRecord = 16384;        // the most that one record holds (RFC 8446, section 5.1)
constexpr size_t kReadBytes = 1u << 20;  // then the others get their turn
constexpr UI4 kRecordsPerRead = 1024;    // also of those that bring no data

bool MustWait(ssize_t result) { return result == GNUTLS_E_AGAIN || result == GNUTLS_E_INTERRUPTED; }

}  // namespace

RPCSECURE::~RPCSECURE() {
  LOG(1, ("RPCSECURE::~RPCSECURE thread "));
  CloseSocket();
  if (session) gnutls_deinit(session);
  if (peerCertificate) gnutls_x509_crt_deinit(peerCertificate);
  if (hash.data) QLN_gnutls_free(hash.data);
}

void RPCSECURE::CloseSocket() {
  if (isValid() && established && !saidBye) {
    saidBye = true;
    (void)gnutls_bye(session, GNUTLS_SHUT_WR);
  }
  if (isValid()) (void)pipe.Flush();
  shutting = false;
  pipe.Close();
  RPCSOCK::CloseSocket();
}

SOCKERR RPCSECURE::Shutdown() {
  if (established && !saidBye) {
    saidBye = true;
    (void)gnutls_bye(session, GNUTLS_SHUT_WR);
  }
  shutting = true;
  return Flush();
}

SOCKERR RPCSECURE::Flush() {
  const SOCKERR code = pipe.Flush();
  if (!shutting || (code == 0 && pipe.HasUnsent())) return code;
  shutting = false;
  const SOCKERR closed = RPCSOCK::Shutdown();
  return code ? code : closed;
}

SOCKERR RPCSECURE::ReadV(const iovec* pieces, int count, size_t* got) {
  LOG(2, ("RPCSECURE::Read thread "));
  *got = 0;
  if (!established) return ERR_CLOSED;
  if (lRead) return lRead;
  pipe.Begin();
  starved = false;
  UI4 records = 0;
  SOCKERR code = 0;
  bool more = true;
  for (int i = 0; i < count && more; ++i) {
    PCH1 const to = static_cast<PCH1>(pieces[i].iov_base);
    for (size_t at = 0; at < pieces[i].iov_len && more;) {
      const ssize_t n = Receive(to + at, pieces[i].iov_len - at, &code);
      if (n > 0) {
        at += static_cast<size_t>(n);
        *got += static_cast<size_t>(n);
      }
      more = code == 0 && !starved && *got < kReadBytes && ++records < kRecordsPerRead;
    }
  }
  KeepSession();
  // Whatever the peer made GnuTLS answer. A failure is told by the next write, or when there is
  // nothing more to read.
  (void)Flush();
  if (pipe.HasFailed() && (code || starved)) code = ERR_SEND;
  // What came before the end is told first.
  lRead = code;
  return *got > 0 ? 0 : code;
}

/// GnuTLS also says that it must wait when it has dealt with a ticket or the like and there is
/// more.
bool RPCSECURE::IsStarved() const {
  return !pipe.HasUnread() && gnutls_record_check_pending(session) == 0;
}

/// One record, or a part of it. 0 or below: none, and either *code, starved, or try again.
ssize_t RPCSECURE::Receive(PCH1 to, size_t n, SOCKERR* code) {
  if (rehandshaking && !Rehandshake(code)) return 0;
  const ssize_t result = gnutls_record_recv(session, to, n);
  if (result > 0) return result;
  if (MustWait(result)) {
    starved = IsStarved();
  } else if (result == GNUTLS_E_REHANDSHAKE) {
    rehandshaking = true;
  } else if (result == -1) {
    SockErrLog(errno, "recv");
    *code = ERR_RECV;
  } else if (result != GNUTLS_E_WARNING_ALERT_RECEIVED) {
    if (result < 0)
      LOG(2, ("gnutls_record_recv: %d %s", static_cast<int>(result),
              gnutls_strerror(static_cast<int>(result))));
    *code = ERR_CLOSED;
  }
  return 0;
}

/// Goes on with another handshake that the peer wants. False when it waits for more bytes, or has
/// failed; true also when data lies in between.
bool RPCSECURE::Rehandshake(SOCKERR* code) {
  const int result = gnutls_handshake(session);
  LOG(5, ("RPCSECURE::gnutils_handshake returned:%i ", result));
  if (result == GNUTLS_E_GOT_APPLICATION_DATA) return true;
  if (MustWait(result)) {
    starved = IsStarved();
    return false;
  }
  if (result == GNUTLS_E_WARNING_ALERT_RECEIVED) return false;
  rehandshaking = false;
  if (result < 0) *code = ERR_TLSHANDSHAKE;
  return result >= 0;
}

SOCKERR RPCSECURE::WriteV(const iovec* pieces, int count, size_t* sent) {
  LOG(2, ("RPCSECURE::Write thread "));
  *sent = 0;
  if (!established) return ERR_SEND;
  if (const SOCKERR code = pipe.Flush()) return code;
  size_t skip = 0;  // of the first piece
  while (count > 0 && !pipe.IsFull()) {
    const ssize_t n = Seal(pieces, count, skip);
    if (n < 0) {
      SockErrLog(errno, "send");
      return ERR_SEND;
    }
    *sent += static_cast<size_t>(n);
    skip += static_cast<size_t>(n);
    while (count > 0 && skip >= pieces->iov_len) {
      skip -= pieces->iov_len;
      ++pieces;
      --count;
    }
    if (pipe.IsFull() || count == 0)
      if (const SOCKERR code = pipe.Flush()) return code;
  }
  return 0;
}

/// Makes one record of what comes next: of the first piece alone, or of several small ones. How
/// many bytes, or below 0.
ssize_t RPCSECURE::Seal(const iovec* pieces, int count, size_t skip) {
  const PCH1 first = static_cast<PCH1>(pieces->iov_base) + skip;
  const size_t left = pieces->iov_len - skip;
  if (count == 1 || left >= kRecord)
    return left ? gnutls_record_send(session, first, std::min(left, kRecord)) : 0;

  size_t size = left;
  for (int i = 1; i < count && size < kRecord; ++i) size += pieces[i].iov_len;
  size = std::min(size, kRecord);
  const TEXT record(static_cast<PCH1>(malloc(size + 1)));
  if (!record) return GNUTLS_E_MEMORY_ERROR;
  memcpy(record.get(), first, left);
  size_t n = left;
  for (int i = 1; n < size; ++i) {
    const size_t take = std::min(pieces[i].iov_len, size - n);
    memcpy(record.get() + n, pieces[i].iov_base, take);
    n += take;
  }
  return n ? gnutls_record_send(session, record.get(), n) : 0;
}

SOCKERR RPCSECURE::Accept(PRPCSOCK* out, bool* mustRest) {
  LOG(1, ("RPCSECURE::Accept thread "));
  *out = nullptr;
  SOCKET taken;
  const SOCKERR error = SfAccept(RawSocket(), &taken, mustRest);
  if (error || taken == INVALID_SOCKET) return error;
  *out = new (std::nothrow) RPCSECURE(taken, *this);
  if (*out) return 0;
  closesocket(taken);
  return ERR_MEMORY_ALLOC;
}

PAA RPCSECURE::paaCert(bool local) {
  PAA lent = nullptr;
  if (local) {
    lent = pCredentials ? pCredentials->OwnCerts() : nullptr;
    return lent ? lent : RPCSOCK::paaCert(local);
  }
  MUTEXHOLD hold(Lock);
  return paaPeer ? VAHOLD::Share(paaPeer.Get()).Release() : RPCSOCK::paaCert(local);
}

SI4 RPCSECURE::Subject(PCH1 buf, UI4 size) {
  if (!buf || size == 0) return ERR_LENGTH;
  *buf = '\0';
  if (!peerCertificate) return ERR_INVALID_CERTIFICATE;
  size_t room = size;
  return gnutls_x509_crt_get_dn(peerCertificate, buf, &room) != 0 ? ERR_INVALID_CERTIFICATE : 0;
}

SI4 RPCSECURE::SaveCred() {
  pCert->saved = pCredentials;
  return 0;
}

bool RPCSECURE::IsIn(PCertCollection certs) {
  return !certs || (peerCertificate && certs->isPresent(peerCertificate));
}
