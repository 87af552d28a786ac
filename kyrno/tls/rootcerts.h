// rootcerts.h - lists of certificates, and what a root's secure sockets trust.
#pragma once

#include <gnutls/x509.h>

#include "kyrno/annotate.h"
#include "kyrno/base/mutex.h"
#include "sys/linux/qlntypes.h"
#include "util/ref.h"

inline constexpr UI4 kMaxCerts = 1000;       // of one collection; further ones are ignored
inline constexpr UI4 kMaxCertsOfFile = 100;  // of one file

/// A list of X.509 certificates.
///
/// Threads: one at a time; several once it changes no more.
class CertCollection {
 public:
  CertCollection() = default;
  ~CertCollection() { Empty(); }
  CertCollection(const CertCollection&) = delete;
  CertCollection& operator=(const CertCollection&) = delete;

  /// PEM with up to kMaxCertsOfFile certificates, or one in DER. How many were added; else what the
  /// import gave, 0 or below: 0 for a file that can't be read or is empty.
  SI4 LoadCertsFromFile(PCH10 file);
  /// All files of the folder that end in .cer, .pem or .der, in upper or lower case; files that
  /// can't be read are passed over. The new count; 0 for no folder: null, or beginning with a line
  /// feed.
  SI4 LoadCertsFromDir(PCH10 dir);
  void Empty();
  SI4 CertCount() const { return Count; }
  /// Lent.
  gnutls_x509_crt_t* CertList() { return certs; }
  const gnutls_x509_crt_t* CertList() const { return certs; }
  /// Is it in the list, byte for byte?
  bool isPresent(gnutls_x509_crt_t crt) const;

 private:
  void LoadCertsFromDir(PCH10 dir, PCH10 extension);
  SI4 Append(gnutls_x509_crt_t* list, SI4 n);

  gnutls_x509_crt_t certs[kMaxCerts] = {};  // owned
  SI4 Count = 0;
};
using PCertCollection = CertCollection*;

/// The trust of one moment: a folder's certificates, or with none the system's. Never changes, so
/// any number of threads may judge by it.
class TRUST : public COUNTED {
 public:
  /// Null without memory or without a usable GnuTLS. Reading the system's trust takes milliseconds.
  static TRUST* Make(PCH10 dir);
  ~TRUST() override;

  SI4 Count() const { return folder.CertCount(); }
  const CertCollection& Folder() const { return folder; }
  /// Credentials that know nothing but whom to trust.
  gnutls_certificate_credentials_t Judge() const { return judge; }

 private:
  TRUST() = default;
  CertCollection folder;
  gnutls_certificate_credentials_t judge = nullptr;  // owned
};

/// What the secure sockets of one root verify their peers against. Read once and shared by all of
/// them; a new folder reaches every handshake that ends later.
///
/// Owner:   the root, and everything that may outlive it: certificate data and sockets.
/// Threads: any.
class RootCerts : public COUNTED {
 public:
  RootCerts();
  ~RootCerts() override;

  /// Replaces what is trusted by a folder's certificates. How many there are; with 0 the system's
  /// trust holds from now on.
  SI4 LoadRootsFrom(PCH10 dir);
  /// Back to the system's trust.
  void ClearRoots();
  /// What is trusted now; the first call without a folder reads the system's trust. Null without
  /// memory.
  REF<TRUST> Current();

  /// Makes a server name the folder's certificates to its peers as those whose holders it takes.
  /// How many there are; nothing is named of the system's trust.
  SI4 CopyRootsTo(gnutls_certificate_credentials_t credentials);
  /// Verifies the chain that the peer of a session has presented. `own` are the session's
  /// credentials, which it has again afterwards. 0, or GnuTLS's error; *status is GnuTLS's
  /// gnutls_certificate_status_t, 0 for trusted. A peer without a certificate: INVALID and
  /// SIGNER_NOT_FOUND. A stapled answer that tells of a revocation counts.
  [[nodiscard]] SI4 Validate(gnutls_session_t session, gnutls_certificate_credentials_t own,
                             PUI4 status);
  /// After a fork, in the child: the thread that held the lock may be gone.
  void ForkedChild();

 private:
  MUTEX Lock;
  REF<TRUST> pCurrent GUARDED_BY(Lock);  // null until it is needed
};

/// ClearRoots, then LoadRootsFrom. ERR_ZERO_CERTS_FOUND when the folder has none.
[[nodiscard]] SI4 CacheNewRootDir(RootCerts* roots, PCH10 dir);
