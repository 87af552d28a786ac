// securehandshake.cpp - how a secure socket is set up, shakes hands, and judges its peer.
#include <arpa/inet.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>

#include "Apl/vaset.h"
#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/base/log.h"
#include "kyrno/tls/certdecode.h"
#include "kyrno/tls/certder.h"
#include "kyrno/tls/peercheck.h"
#include "kyrno/tls/securesocket.h"

static constexpr UI4 MODULE = 0x00000400;

namespace {

constexpr F8 kClientMicros = 600e6;  // how long a client's handshake may take
constexpr UI4 kMostMessages = 1024;  // of a peer in one step of a handshake

// Of a peer's key. With both of its numbers as long as a message allows, one signature takes hours
// to check; a larger exponent than this is no help to anybody.
constexpr UI4 kMaxKeyBytes = 16384 / 8 + 32;
constexpr UI4 kMaxExponentBytes = 8 + 1;

bool MustWait(int result) {
  return result == GNUTLS_E_AGAIN || result == GNUTLS_E_INTERRUPTED ||
         result == GNUTLS_E_WARNING_ALERT_RECEIVED;
}

bool IsAddress(PCH10 name) {
  UI1 bytes[sizeof(in6_addr)];
  return inet_pton(AF_INET, name, bytes) == 1 || inet_pton(AF_INET6, name, bytes) == 1;
}

/// The key of a client's sessions: only one with the same address, service, validation, priority
/// and certificate of its own goes on with them. Empty when that can't be had.
gnutls_datum_t HashAddress(PCH10 address, PCH10 service, const CERTDATA& cert, UI4 flags) {
  gnutls_datum_t hash = {nullptr, 0};
  const UI4 size = gnutls_hash_get_len(GNUTLS_DIG_SHA256);
  gnutls_hash_hd_t handle = nullptr;
  if (size == 0 || gnutls_hash_init(&handle, GNUTLS_DIG_SHA256) < 0 || !handle) return hash;
  bool good = true;
  const auto add = [&](const void* data, size_t n) {
    good = good && (n == 0 || gnutls_hash(handle, data, n) >= 0);
  };
  // Each with its NUL, so that no two divisions of the same letters are alike.
  for (PCH10 text : {address, service, PCH10{cert.ppriority.get()}})
    add(text ? text : "", text ? strlen(text) + 1 : 1);
  add(&flags, sizeof flags);
  if (cert.certs && cert.certsCount > 0) add(cert.certs[0].cert.data, cert.certs[0].cert.size);

  hash.data = static_cast<unsigned char*>(QLN_gnutls_malloc(size));
  if (!hash.data) {
    gnutls_hash_deinit(handle, nullptr);
    return hash;
  }
  gnutls_hash_deinit(handle, hash.data);
  hash.size = size;
  if (good) return hash;
  QLN_gnutls_free(hash.data);
  return {nullptr, 0};
}

/// Those that were kept for all sockets of this certificate data, or new ones.
SI4 FindCredentials(CERTDATA* cert, bool server, REF<TLSCREDENTIALS>* out) {
  if (!cert->saved) return TLSCREDENTIALS::Make(cert, server, out);
  *out = cert->saved;
  return 0;
}

/// Called by GnuTLS for each message, before it does what that asks for: with the first that comes
/// behind the peer's certificates nothing was done with their key yet.
int RefuseHugeKey(gnutls_session_t session, unsigned int, unsigned int, unsigned int isReceived,
                  const gnutls_datum_t*) {
  if (!isReceived) return 0;
  unsigned int count = 0;
  const gnutls_datum_t* const list = gnutls_certificate_get_peers(session, &count);
  if (!list) count = 0;
  // The key of any of them may come to be asked about an answer that is stapled.
  for (UI4 i = 0; i < count; ++i) {
    CERTPARTS parts;
    if (!ReadCertParts(list[i].data, list[i].size, &parts) || parts.key.size > kMaxKeyBytes ||
        RsaExponentBytes(parts.key) > kMaxExponentBytes)
      return GNUTLS_E_CERTIFICATE_ERROR;
  }
  return 0;
}

}  // namespace

RPCSECURE::RPCSECURE(PCH10 name, PCH10 service, bool server, PROTOCOL prot,
                     const REF<CERTDATA>& cert, int giveUp)
    : RPCSOCK(name, service, server, prot, SOCK_STREAM, giveUp), IsClient(!server), pCert(cert) {
  if (name) Address.reset(strdup(name));
  if (name && !Address) {
    lError = ERR_MEMORY_ALLOC;
    return;
  }
  if (server) {
    if (!lError) lError = InitSrv();
    return;
  }
  // Deliberate: a client that could not connect is told that its handshake failed; why is in the
  // log.
  lError = lError ? ERR_TLSHANDSHAKE : InitClt(service, giveUp);
  if (lError && lError != ERR_HANDSHAKE_NOT_COMPLETED && isValid()) (void)Shutdown();
}

RPCSECURE::RPCSECURE(SOCKET adopted, const RPCSECURE& listener)
    : RPCSOCK(adopted),
      IsClient(false),
      pCert(listener.pCert),
      pCredentials(listener.pCredentials) {
  if (!lError) lError = InitCon();
}

SI4 RPCSECURE::InitSrv() {
  LOG(1, ("RPCSECURE::InitSrv thread "));
  const SI4 code = FindCredentials(pCert.Get(), true, &pCredentials);
  LOG(2, ("RPCSECURE::InitSrv checkpoint %d %d", 1, code));
  return code;
}

SI4 RPCSECURE::InitClt(PCH10 service, int giveUp) {
  LOG(1, ("RPCSECURE::InitClt thread "));
  hash = HashAddress(Address.get(), service, *pCert, pCert->flagOption);
  SI4 code = FindCredentials(pCert.Get(), false, &pCredentials);
  LOG(2, ("RPCSECURE::InitClt checkpoint %d %d", 1, code));
  if (code) return code;
  int result = gnutls_init(&session, GNUTLS_CLIENT | GNUTLS_NO_SIGNAL);
  LOG(2, ("RPCSECURE::InitClt checkpoint %d %d", 2, result));
  if (result < 0 || !session) return ERR_INITIALISING_TLS;
  gnutls_handshake_set_hook_function(session, GNUTLS_HANDSHAKE_ANY, GNUTLS_HOOK_POST,
                                     RefuseHugeKey);
  code = pCredentials->SetUp(session);
  if (code) return code;
  ResumeFromCache();
  // A name, not an address (RFC 6066, section 3).
  if (Address && *Address && !IsAddress(Address.get()))
    result = gnutls_server_name_set(session, GNUTLS_NAME_DNS, Address.get(), strlen(Address.get()));
  LOG(2, ("RPCSECURE::InitClt checkpoint %d %d", 3, result));
  pipe.Attach(session, RawSocket());
  return WaitForHandshake(giveUp);
}

SI4 RPCSECURE::InitCon() {
  LOG(1, ("RPCSECURE::InitCon thread "));
  const int result = gnutls_init(&session, GNUTLS_SERVER | GNUTLS_NO_SIGNAL);
  LOG(2, ("RPCSECURE::InitCon checkpoint %d %d", 1, result));
  if (result < 0 || !session) return ERR_INITIALISING_TLS;
  gnutls_certificate_send_x509_rdn_sequence(session, 0);
  gnutls_handshake_set_hook_function(session, GNUTLS_HANDSHAKE_ANY, GNUTLS_HOOK_POST,
                                     RefuseHugeKey);
  WantClientCert();
  const SI4 code = pCredentials->SetUp(session);
  LOG(2, ("RPCSECURE::InitCon checkpoint %d %d", 2, code));
  if (code) return code;
  pipe.Attach(session, RawSocket());
  return ERR_HANDSHAKE_NOT_COMPLETED;
}

void RPCSECURE::WantClientCert() {
  const UI4 flags = pCert->flagOption.load(std::memory_order_relaxed);
  if (flags & RequireClientCertificate)
    gnutls_certificate_server_set_request(session, GNUTLS_CERT_REQUIRE);
  else if (flags & ReqestClientCertificate)
    gnutls_certificate_server_set_request(session, GNUTLS_CERT_REQUEST);
  else if (!(flags & NoClientCertificate))
    // Deliberate: added and not combined, once for each peer. From 0 this gives 32, which is meant,
    // then 64: from the third peer on certificates are asked for, and judged where one is sent.
    pCert->flagOption.fetch_add(CertAcceptWithoutValidating, std::memory_order_relaxed);
}

void RPCSECURE::ResumeFromCache() {
  SessionCache2* const cache = pCredentials->Sessions();
  if (!cache || hash.size == 0) return;
  gnutls_datum_t data = DBRetrieveFunc(cache, hash);
  if (!data.data) return;
  if (gnutls_session_set_data(session, data.data, data.size) < 0) cache->Remove(hash);
  explicit_bzero(data.data, data.size);
  QLN_gnutls_free(data.data);
}

/// A client's, which waits for its peer and for nothing else.
SI4 RPCSECURE::WaitForHandshake(int giveUp) {
  const F8 until = Micros() + kClientMicros;
  for (;;) {
    const SI4 code = Handshake(true);
    const F8 left = until - Micros();
    if (code != ERR_HANDSHAKE_NOT_COMPLETED || left <= 0) return code;
    LOG(5, ("RPCSECURE::Handshake sleeping : thread "));
    const short events = static_cast<short>(POLLIN | (pipe.HasUnsent() ? POLLOUT : 0));
    pollfd wait[] = {{RawSocket(), events, 0}, {giveUp, POLLIN, 0}};
    (void)poll(wait, 2, static_cast<int>(std::ceil(left / 1e3)));
    if (wait[1].revents) return ERR_TLSHANDSHAKE;  // given up
  }
}

SOCKERR RPCSECURE::Handshake(bool verify) {
  if (!session) return ERR_TLSHANDSHAKE;
  pipe.Begin();
  int result = 0;
  UI4 messages = 0;
  do {
    result = gnutls_handshake(session);
    LOG(5, ("RPCSECURE::gnutils_handshake returned:%i ", result));
  } while (MustWait(result) && pipe.HasUnread() && ++messages < kMostMessages);
  if (MustWait(result))
    return pipe.Flush() || pipe.HasUnread() ? ERR_TLSHANDSHAKE : ERR_HANDSHAKE_NOT_COMPLETED;
  if (result < 0) {
    LOG(1, ("RPCSECURE::Handshake failed: %d %s", result, gnutls_strerror(result)));
    (void)gnutls_alert_send_appropriate(session, result);
    (void)pipe.Flush();
    return ERR_TLSHANDSHAKE;
  }
  if (verify && !VerifyCertificate()) {
    (void)gnutls_alert_send(session, GNUTLS_AL_FATAL, GNUTLS_A_BAD_CERTIFICATE);
    (void)pipe.Flush();
    return ERR_INVALID_PEER_CERTIFICATE;
  }
  established = true;
  starved = IsStarved();
  if (gnutls_session_is_resumed(session)) LOG(5, ("RPCSECURE::Handshake session resumed: thread "));
  KeepSession();
  return pipe.Flush() ? ERR_TLSHANDSHAKE : 0;
}

/// Keeps a client's session for the next one. With TLS 1.3 what that needs comes in a ticket, some
/// time behind the handshake: to ask for it earlier would wait for it.
void RPCSECURE::KeepSession() {
  if (!IsClient || keptSession || hash.size == 0 || !pCredentials->Sessions()) return;
  const bool later = gnutls_protocol_get_version(session) >= GNUTLS_TLS1_3;
  if (later && !(gnutls_session_get_flags(session) & GNUTLS_SFLAGS_SESSION_TICKET)) return;
  keptSession = true;
  gnutls_datum_t data = {nullptr, 0};
  if (gnutls_session_get_data2(session, &data) < 0 || !data.data) return;
  DBStoreFunc(pCredentials->Sessions(), hash, data);
  explicit_bzero(data.data, data.size);
  QLN_gnutls_free(data.data);
}

bool RPCSECURE::VerifyCertificate() {
  unsigned int count = 0;
  const gnutls_datum_t* const list = gnutls_certificate_get_peers(session, &count);
  if (!list) count = 0;
  if (count > 0 && !peerCertificate && gnutls_x509_crt_init(&peerCertificate) >= 0 &&
      gnutls_x509_crt_import(peerCertificate, &list[0], GNUTLS_X509_FMT_DER) < 0) {
    gnutls_x509_crt_deinit(peerCertificate);
    peerCertificate = nullptr;
  }
  if (ListPeerCerts(list, count)) return false;

  PEERCLAIM claim;
  claim.flags = pCert->flagOption.load(std::memory_order_relaxed);
  claim.isClient = IsClient;
  claim.certificate = peerCertificate;
  claim.host = Address.get();
  if (IsExempt(claim)) return true;
  if (!pCert->pRootCerts) return false;
  claim.verified = pCert->pRootCerts->Validate(session, pCredentials->Get(), &claim.status);
  // What a certificate is for GnuTLS says only of one that it is asked about.
  const PCH10 purpose = IsClient ? GNUTLS_KP_TLS_WWW_SERVER : GNUTLS_KP_TLS_WWW_CLIENT;
  if (peerCertificate && !gnutls_x509_crt_check_key_purpose(peerCertificate, purpose, 0))
    claim.status |= GNUTLS_CERT_INVALID | GNUTLS_CERT_PURPOSE_MISMATCH;
  claim.now = static_cast<UI4>(time(nullptr));
  if (IsClient && pCert->firstStatus == 0) pCert->firstStatus = claim.status;
  LOG(2, ("RPCSECURE::VerifyCertificate %d status %u", claim.verified, claim.status));
  return IsAccepted(claim);
}

/// Makes the array that tells of the peer's chain.
SI4 RPCSECURE::ListPeerCerts(const gnutls_datum_t* list, unsigned int count) {
  VAHOLD all(VANew(count ? VAPntr : VAI1, 1, &count));
  if (!all) return ERR_MEMORY_ALLOC;
  for (UI4 i = 0; i < count; ++i) {
    VAHOLD one;
    SI4 code = ReturnCert(list[i].data, list[i].size, one.Out());
    if (!code) code = VASetpAA(all.Get(), i, one.Get());
    if (code) return code;
    (void)one.Release();  // the vector's now
  }
  MUTEXHOLD hold(Lock);
  paaPeer = std::move(all);
  return 0;
}
