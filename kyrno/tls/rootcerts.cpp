// rootcerts.cpp - lists of certificates, and what a root's secure sockets trust.
#include "kyrno/tls/rootcerts.h"

#include <dirent.h>
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/base/log.h"
#include "kyrno/tls/certdata.h"

static constexpr UI4 MODULE = 0x00000400;

namespace {

constexpr size_t kKeyIdBytes = 256;
// Of the certificates that a peer may send, for GnuTLS. Its own limit of 16 is less than some send;
// what a handshake has room for is less than this.
constexpr UI4 kMaxPeerCerts = 1000;
constexpr UI4 kMaxBits = 16384;  // as GnuTLS has it

/// The least strength of keys where the profile of the session's priority can't be asked for: that
/// of "NORMAL".
constexpr UI4 kLeastStrength = GNUTLS_PROFILE_TO_VFLAGS(GNUTLS_PROFILE_LOW);

/// Marks a certificate that asks for a stapled answer (RFC 7633).
constexpr CH1 kTlsFeature[] = "1.3.6.1.5.5.7.1.24";

/// What only the session can tell: from a stapled answer, and by the profile of its priority.
constexpr UI4 kOfSession = GNUTLS_CERT_REVOKED | GNUTLS_CERT_REVOCATION_DATA_SUPERSEDED |
                           GNUTLS_CERT_REVOCATION_DATA_ISSUED_IN_FUTURE |
                           GNUTLS_CERT_MISSING_OCSP_STATUS | GNUTLS_CERT_INVALID_OCSP_STATUS |
                           GNUTLS_CERT_INSECURE_ALGORITHM;

bool IsNoFolder(PCH10 dir) { return !dir || *dir == 0 || *dir == '\n'; }

bool HasExtension(PCH10 name, PCH10 extension) {
  const size_t n = strlen(name);
  const size_t tail = strlen(extension);
  return n > tail && name[n - tail - 1] == '.' && strcasecmp(name + n - tail, extension) == 0;
}

void Release(gnutls_x509_crt_t* list, UI4 n) {
  for (UI4 i = 0; i < n; ++i) gnutls_x509_crt_deinit(list[i]);
}

/// The certificates of one file, which the caller owns. What the import gives.
SI4 LoadCertificatesFrom(PCH10 file, gnutls_x509_crt_t* list, UI4 max) {
  const CERTBYTES bytes = CERTBYTES::OfFile(file);
  if (bytes.IsEmpty()) return 0;
  UI4 n = max;
  const SI4 result = gnutls_x509_crt_list_import(list, &n, &bytes.Get(), GNUTLS_X509_FMT_PEM, 0);
  if (result != GNUTLS_E_NO_CERTIFICATE_FOUND) return result;
  n = max;
  return gnutls_x509_crt_list_import(list, &n, &bytes.Get(), GNUTLS_X509_FMT_DER, 0);
}

bool MustStaple(gnutls_x509_crt_t crt) {
  size_t size = 0;
  return gnutls_x509_crt_get_extension_by_oid(crt, kTlsFeature, 0, nullptr, &size, nullptr) !=
         GNUTLS_E_REQUESTED_DATA_NOT_AVAILABLE;
}

/// The chain that a peer has sent, in its order, without certificates that it sends twice, which
/// would count as a broken chain. Too large for the stack.
class CHAIN {
 public:
  CHAIN() = default;
  ~CHAIN() { Release(certs, count); }
  CHAIN(const CHAIN&) = delete;
  CHAIN& operator=(const CHAIN&) = delete;

  [[nodiscard]] SI4 Import(const gnutls_datum_t* ders, UI4 n) {
    for (UI4 i = 0; i < n && i < kMaxChain; ++i) {
      gnutls_x509_crt_t crt = nullptr;
      if (gnutls_x509_crt_init(&crt) < 0 || !crt) return GNUTLS_E_MEMORY_ERROR;
      certs[count++] = crt;
      if (const SI4 result = gnutls_x509_crt_import(crt, &ders[i], GNUTLS_X509_FMT_DER))
        return result;
      KEYID& id = ids[count - 1];
      id.size = sizeof id.bytes;
      id.isThere = gnutls_x509_crt_get_subject_key_id(crt, id.bytes, &id.size, nullptr) >= 0;
      if (IsRepeated(id)) Release(&certs[--count], 1);
    }
    return 0;
  }
  bool AsksForStaple() const {
    for (UI4 i = 0; i < count; ++i)
      if (MustStaple(certs[i])) return true;
    return false;
  }
  /// Each is followed by its issuer.
  bool IsInOrder() const {
    for (UI4 i = 0; i + 1 < count; ++i)
      if (!gnutls_x509_crt_check_issuer(certs[i], certs[i + 1])) return false;
    return true;
  }
  /// As it was presented, and nothing but it.
  [[nodiscard]] SI4 VerifyBy(const CertCollection& folder, PUI4 status) const {
    return gnutls_x509_crt_list_verify(certs, count, folder.CertList(),
                                       static_cast<UI4>(folder.CertCount()), nullptr, 0, 0, status);
  }

  gnutls_x509_crt_t certs[kMaxChain];  // owned
  UI4 count = 0;

 private:
  struct KEYID {
    size_t size;
    bool isThere;
    UI1 bytes[kKeyIdBytes];
  };

  /// Is it that of one before the last? Two empty ones are the same, two missing ones are not.
  bool IsRepeated(const KEYID& last) const {
    if (!last.isThere) return false;
    for (UI4 i = 0; i + 1 < count; ++i) {
      const KEYID& one = ids[i];
      if (one.isThere && one.size == last.size && memcmp(one.bytes, last.bytes, one.size) == 0)
        return true;
    }
    return false;
  }

  KEYID ids[kMaxChain];  // of certs
};

/// What GnuTLS says of the peer by another's trust.
SI4 VerifyBy(gnutls_certificate_credentials_t judge, gnutls_session_t session,
             gnutls_certificate_credentials_t own, PUI4 status) {
  SI4 result = gnutls_credentials_set(session, GNUTLS_CRD_CERTIFICATE, judge);
  if (result == 0) result = gnutls_certificate_verify_peers2(session, status);
  const SI4 back = gnutls_credentials_set(session, GNUTLS_CRD_CERTIFICATE, own);
  return result ? result : back;
}

/// GnuTLS stops at the first certificate with a fault, from the end of the chain on, and of a
/// signature that it can't even read it says no more than that it is invalid. What may be tolerated
/// must hide nothing else: so that is taken away, and nothing but that, until no more comes out.
void UncoverRest(const TRUST& trust, CHAIN* chain, PUI4 status) {
  gnutls_x509_trust_list_t list = nullptr;
  gnutls_certificate_get_trust_list(trust.Judge(), &list);
  // With an unknown signer there is nothing to be checked against.
  for (UI4 without = 0; !(*status & GNUTLS_CERT_SIGNER_NOT_FOUND);) {
    UI4 tolerable = 0;
    if (*status & (GNUTLS_CERT_NOT_ACTIVATED | GNUTLS_CERT_EXPIRED))
      tolerable |= GNUTLS_VERIFY_DISABLE_TIME_CHECKS;
    if (*status & GNUTLS_CERT_SIGNER_NOT_CA) tolerable |= GNUTLS_VERIFY_DISABLE_CA_SIGN;
    if (tolerable == without) return;
    without = tolerable;
    UI4 left = GNUTLS_CERT_INVALID;
    if (list)
      gnutls_x509_trust_list_verify_crt2(list, chain->certs, chain->count, nullptr, 0,
                                         kLeastStrength | without, &left, nullptr);
    *status |= left == GNUTLS_CERT_INVALID ? left | GNUTLS_CERT_SIGNATURE_FAILURE : left;
  }
}

}  // namespace

// ---- CertCollection

SI4 CertCollection::LoadCertsFromFile(PCH10 file) {
  gnutls_x509_crt_t list[kMaxCertsOfFile];
  const SI4 n = LoadCertificatesFrom(file, list, kMaxCertsOfFile);
  if (n < 1) return n;
  return Append(list, n);
}

SI4 CertCollection::LoadCertsFromDir(PCH10 dir) {
  if (IsNoFolder(dir)) return 0;
  static const PCH10 extensions[] = {"cer", "pem", "der"};
  for (PCH10 extension : extensions) LoadCertsFromDir(dir, extension);
  return Count;
}

void CertCollection::LoadCertsFromDir(PCH10 dir, PCH10 extension) {
  struct CLOSE {
    void operator()(DIR* d) const { closedir(d); }
  };
  const std::unique_ptr<DIR, CLOSE> folder(opendir(dir));
  if (!folder) return;
  const size_t at = strlen(dir);
  const size_t room = at + 1 + sizeof dirent::d_name;
  const TEXT path(static_cast<PCH1>(malloc(room)));
  if (!path) return;

  while (const dirent* const entry = readdir(folder.get())) {
    if (!HasExtension(entry->d_name, extension)) continue;
    snprintf(path.get(), room, "%s/%s", dir, entry->d_name);
    LoadCertsFromFile(path.get());
  }
}

SI4 CertCollection::Append(gnutls_x509_crt_t* list, SI4 n) {
  const SI4 room = static_cast<SI4>(kMaxCerts) - Count;
  const SI4 added = n < room ? n : room;
  for (SI4 i = 0; i < added; ++i) certs[Count++] = list[i];
  Release(list + added, static_cast<UI4>(n - added));
  return added;
}

void CertCollection::Empty() {
  Release(certs, static_cast<UI4>(Count));
  Count = 0;
}

bool CertCollection::isPresent(gnutls_x509_crt_t crt) const {
  if (!crt) return false;
  for (SI4 i = 0; i < Count; ++i)
    if (gnutls_x509_crt_equals(certs[i], crt)) return true;
  return false;
}

// ---- TRUST

TRUST* TRUST::Make(PCH10 dir) {
  std::unique_ptr<TRUST> made(new (std::nothrow) TRUST);
  if (!made) return nullptr;
  if (gnutls_certificate_allocate_credentials(&made->judge) < 0 || !made->judge) return nullptr;
  gnutls_certificate_set_verify_limits(made->judge, kMaxBits, kMaxPeerCerts);

  CertCollection& folder = made->folder;
  if (folder.LoadCertsFromDir(dir) < 1) {
    // Without a store there is nobody to trust, and every peer is told so.
    const int found = gnutls_certificate_set_x509_system_trust(made->judge);
    LOG(3, ("Certificates of the system: %d", found));
    return made.release();
  }
  const int taken =
      gnutls_certificate_set_x509_trust(made->judge, folder.CertList(), folder.CertCount());
  return taken < 0 ? nullptr : made.release();
}

TRUST::~TRUST() {
  if (judge) gnutls_certificate_free_credentials(judge);
}

// ---- RootCerts

RootCerts::RootCerts() { LOG(1, ("Create RootCerts ")); }
RootCerts::~RootCerts() { LOG(1, ("Destroy RootCerts ")); }

SI4 RootCerts::LoadRootsFrom(PCH10 dir) {
  LOG(3, ("Loading certificates from %s", dir ? dir : ""));
  REF<TRUST> fresh(TRUST::Make(dir));
  const SI4 count = fresh ? fresh->Count() : 0;
  MUTEXHOLD hold(Lock);
  std::swap(pCurrent, fresh);
  return count;
}

void RootCerts::ClearRoots() {
  REF<TRUST> former;
  MUTEXHOLD hold(Lock);
  std::swap(pCurrent, former);
}

REF<TRUST> RootCerts::Current() {
  MUTEXHOLD hold(Lock);
  // Deliberate: under the lock, so that the system's trust is read once whoever asks first.
  if (!pCurrent) pCurrent = REF<TRUST>(TRUST::Make(nullptr));
  return pCurrent;
}

SI4 RootCerts::CopyRootsTo(gnutls_certificate_credentials_t credentials) {
  const REF<TRUST> trust = Current();
  if (!trust || trust->Count() < 1) return 0;
  // GnuTLS copies what it gets; its interface doesn't say so.
  gnutls_x509_crt_t* const list = const_cast<gnutls_x509_crt_t*>(trust->Folder().CertList());
  const int taken = gnutls_certificate_set_x509_trust(credentials, list, trust->Count());
  return taken < 0 ? 0 : trust->Count();
}

SI4 RootCerts::Validate(gnutls_session_t session, gnutls_certificate_credentials_t own,
                        PUI4 status) {
  *status = GNUTLS_CERT_INVALID | GNUTLS_CERT_SIGNER_NOT_FOUND;
  UI4 n = 0;
  const gnutls_datum_t* const peers = gnutls_certificate_get_peers(session, &n);
  if (!peers || n == 0) return 0;
  const REF<TRUST> trust = Current();
  if (!trust) return GNUTLS_E_MEMORY_ERROR;
  UI4 found = 0;
  if (const SI4 result = VerifyBy(trust->Judge(), session, own, &found)) return result;
  const bool byFolder = trust->Count() > 0;
  if (found == 0 && (n == 1 || !byFolder)) {
    *status = 0;
    return 0;
  }

  const std::unique_ptr<CHAIN> chain(new (std::nothrow) CHAIN);
  if (!chain) return GNUTLS_E_MEMORY_ERROR;
  if (const SI4 result = chain->Import(peers, n)) return result;
  // An answer that can't be verified, because who signed it is unknown, is no worse than none.
  const bool isNoAnswer =
      (found & GNUTLS_CERT_INVALID_OCSP_STATUS) &&
      ((found & GNUTLS_CERT_SIGNER_NOT_FOUND) || (byFolder && !chain->AsksForStaple()));
  if (byFolder && (isNoAnswer || chain->count != n || !chain->IsInOrder())) {
    // For a session GnuTLS would put it in order.
    UI4 alone = 0;
    if (const SI4 result = chain->VerifyBy(trust->Folder(), &alone)) return result;
    found = alone | (found & kOfSession);
  }
  if (isNoAnswer) found &= ~UI4{GNUTLS_CERT_INVALID_OCSP_STATUS};
  if (found & kOfSession) found |= GNUTLS_CERT_INVALID;
  UncoverRest(*trust, chain.get(), &found);
  *status = found;
  return 0;
}

void RootCerts::ForkedChild() { new (&Lock) MUTEX; }

SI4 CacheNewRootDir(RootCerts* roots, PCH10 dir) {
  // A folder without certificates clears as well, and nobody is judged by less in between.
  return roots->LoadRootsFrom(dir) < 1 ? ERR_ZERO_CERTS_FOUND : 0;
}
