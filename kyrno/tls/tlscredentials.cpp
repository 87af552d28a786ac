// tlscredentials.cpp - what all sockets of one listener, or one client, shake hands with.
#include "kyrno/tls/tlscredentials.h"

#include <cstring>
#include <new>

#include "Apl/vaset.h"
#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/base/log.h"
#include "kyrno/tls/certdecode.h"

static constexpr UI4 MODULE = 0x00000400;

namespace {

void LogFailure(PCH10 what, int result) {
  LOG(1, ("%s failed: %d %s", what, result, gnutls_strerror(result)));
}

}  // namespace

SI4 TLSCREDENTIALS::Make(CERTDATA* cert, bool server, REF<TLSCREDENTIALS>* out) {
  REF<TLSCREDENTIALS> made(new (std::nothrow) TLSCREDENTIALS);
  if (!made) return ERR_MEMORY_ALLOC;
  const SI4 code = made->Fill(cert, server);
  if (!code) *out = std::move(made);
  return code;
}

TLSCREDENTIALS::~TLSCREDENTIALS() {
  if (xcred) gnutls_certificate_free_credentials(xcred);
  if (priority) gnutls_priority_deinit(priority);
  if (!ticketKey.data) return;
  explicit_bzero(ticketKey.data, ticketKey.size);
  QLN_gnutls_free(ticketKey.data);
}

SI4 TLSCREDENTIALS::Fill(CERTDATA* cert, bool server) {
  if (gnutls_certificate_allocate_credentials(&xcred) < 0 || !xcred) return ERR_INITIALISING_TLS;
  const PCH10 wanted = cert->ppriority ? cert->ppriority.get() : kDefaultPriority;
  if (const int result = gnutls_priority_init(&priority, wanted, nullptr)) {
    LogFailure("gnutls_priority_init", result);
    return ERR_INITIALISING_TLS;
  }
  if (const SI4 code = DescribeOwn(*cert)) return code;

  const int result = SetKey(cert);
  if (!server) {
    sessions = cert->pClientSessions;
    return 0;
  }
  if (result < 0) return ERR_COULD_NOT_LOAD_CERTIFICATE_FILES;
  if (cert->pRootCerts) cert->pRootCerts->CopyRootsTo(xcred);
  sessions = REF<SessionCache2>(new (std::nothrow) SessionCache2(kServerSessions));
  if (!sessions) return ERR_MEMORY_ALLOC;
  return gnutls_session_ticket_key_generate(&ticketKey) < 0 ? ERR_INITIALISING_TLS : 0;
}

/// The own chain as an array, before GnuTLS gets it.
SI4 TLSCREDENTIALS::DescribeOwn(const CERTDATA& cert) {
  const UI4 count = cert.certs ? cert.certsCount : 0;
  paaOwn.Reset(VANew(count ? VAPntr : VAI1, 1, &count));
  if (!paaOwn) return ERR_MEMORY_ALLOC;
  for (UI4 i = 0; i < count; ++i) {
    const gnutls_datum_t& der = cert.certs[i].cert;
    VAHOLD one;
    SI4 code = ReturnCert(der.data, der.size, one.Out());
    if (!code) code = VASetpAA(paaOwn.Get(), i, one.Get());
    if (code) return code;
    (void)one.Release();  // the vector's now
  }
  return 0;
}

/// Below 0 when certificates and key aren't there or don't fit together; they stay where they are
/// then.
int TLSCREDENTIALS::SetKey(CERTDATA* cert) {
  if (!cert->certs || cert->certsCount == 0 || !cert->key) return GNUTLS_E_INSUFFICIENT_CREDENTIALS;
  // The public half of a key that lies elsewhere can't be asked for everywhere.
  if (cert->privCert == CDTUrl)
    gnutls_certificate_set_flags(xcred, GNUTLS_CERTIFICATE_SKIP_KEY_CERT_MATCH);
  const int result = gnutls_certificate_set_key(xcred, nullptr, 0, cert->certs,
                                                static_cast<int>(cert->certsCount), cert->key);
  if (result < 0) {
    LogFailure("gnutls_certificate_set_key", result);
    return result;
  }
  // The key and what the list refers to are the credentials' now, the list itself is not.
  QLN_gnutls_free(cert->certs);
  cert->certs = nullptr;
  cert->certsCount = 0;
  cert->key = nullptr;
  return 0;
}

SI4 TLSCREDENTIALS::SetUp(gnutls_session_t session) {
  if (gnutls_credentials_set(session, GNUTLS_CRD_CERTIFICATE, xcred) != 0 ||
      gnutls_priority_set(session, priority) != 0)
    return ERR_INITIALISING_TLS;
  if (!ticketKey.data) return 0;
  gnutls_db_set_retrieve_function(session, DBRetrieveFunc);
  gnutls_db_set_remove_function(session, DBRemoveFunc);
  gnutls_db_set_store_function(session, DBStoreFunc);
  gnutls_db_set_ptr(session, sessions.Get());
  return gnutls_session_ticket_enable_server(session, &ticketKey) != 0 ? ERR_INITIALISING_TLS : 0;
}

PAA TLSCREDENTIALS::OwnCerts() const { return VAHOLD::Share(paaOwn.Get()).Release(); }
