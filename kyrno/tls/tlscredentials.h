// tlscredentials.h - what all sockets of one listener, or one client, shake hands with.
#pragma once

#include <gnutls/gnutls.h>

#include "Apl/vapl.h"
#include "kyrno/tls/certdata.h"
#include "kyrno/tls/sessioncache.h"
#include "util/ref.h"

/// Used when no "Priority" is given.
inline constexpr CH1 kDefaultPriority[] = "NORMAL:!CTYPE-OPENPGP";

/// Owner:   the listener and the sockets that it has accepted; a client its own.
/// Threads: constant after Make, so any number of sessions may use it at a time.
class TLSCREDENTIALS : public COUNTED {
 public:
  /// Takes certificates and key over from `cert` where they fit together. A server whose
  /// certificates can't be set: ERR_COULD_NOT_LOAD_CERTIFICATE_FILES; a client goes without them.
  /// ERR_INITIALISING_TLS for a priority that GnuTLS doesn't read, and when it lacks an entry.
  [[nodiscard]] static SI4 Make(CERTDATA* cert, bool server, REF<TLSCREDENTIALS>* out);
  ~TLSCREDENTIALS() override;

  /// Gives a new session all of this. ERR_INITIALISING_TLS.
  [[nodiscard]] SI4 SetUp(gnutls_session_t session);
  /// The own chain as an array, of which the caller gets a count: a vector of byte vectors; without
  /// certificates an empty vector of bytes.
  PAA OwnCerts() const;
  gnutls_certificate_credentials_t Get() const { return xcred; }
  SessionCache2* Sessions() const { return sessions.Get(); }

 private:
  TLSCREDENTIALS() = default;
  [[nodiscard]] SI4 Fill(CERTDATA* cert, bool server);
  [[nodiscard]] SI4 DescribeOwn(const CERTDATA& cert);
  [[nodiscard]] int SetKey(CERTDATA* cert);

  gnutls_certificate_credentials_t xcred = nullptr;  // owned
  gnutls_priority_t priority = nullptr;              // owned
  gnutls_datum_t ticketKey = {nullptr, 0};           // owned, a server's; wiped
  REF<SessionCache2> sessions;                       // a server's own, or the root's clients'
  VAHOLD paaOwn;
};
