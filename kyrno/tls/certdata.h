// certdata.h - what the options of a server or client say of certificates and keys.
//
// Without a CERTDATA a socket is plain. It is filled by the call that creates the object
// (boundary/certoptions.h), on that call's thread, and given to NewSock, which makes credentials of
// it: certificates and key pass to GnuTLS then.
#pragma once

#include <gnutls/abstract.h>

#include <atomic>

#include "Apl/vapl.h"
#include "kyrno/tls/rootcerts.h"
#include "kyrno/tls/sessioncache.h"
#include "util/freed.h"
#include "util/ref.h"

inline constexpr UI4 kMaxChain = 100;

/// How a certificate or a key is given.
enum CERTDATATYPE : UI4 {
  CDTNoCert,
  CDTRawCert,   ///< bytes in an array
  CDTDERFile,   ///< a file, PEM or DER
  CDTPk12File,  ///< a PKCS #12 file, of key and chain
  CDTMSStore,   ///< a name in a system's store; kept, not opened
  CDTUrl,       ///< a key URL
  CDTMAX
};
/// The words of CERTDATATYPE.
extern const PCH10 certname[CDTMAX];

/// The bits of "SSLValidation".
enum CERTFLAGS : UI4 {
  CertAcceptIfIssuerUnknown = 1,
  CertAcceptIfSignerNotCA = 2,
  CertAcceptIfNotActivated = 4,
  CertAcceptIfExpired = 8,
  CertAcceptIfIncorrectHostName = 16,
  CertAcceptWithoutValidating = 32,
  ReqestClientCertificate = 64,  // Deliberate: the name that is known
  RequireClientCertificate = 128,
  NoClientCertificate = 256  ///< a server asks nobody; 0 does that for two peers only
};

class TLSCREDENTIALS;

/// A text that is wiped before it is freed.
struct WIPETEXT {
  void operator()(PCH1 text) const;
};
using SECRET = std::unique_ptr<CH1, WIPETEXT>;

/// The whole of a file, or bytes of an array, for QLN_gnutls_free; wiped before.
///
/// Errors:  empty when the file can't be read or there is no memory.
class CERTBYTES {
 public:
  CERTBYTES() = default;
  static CERTBYTES OfFile(PCH10 name);
  /// A vector of characters or one-byte integers, or the low bytes of one of two-byte
  /// integers, in which form an interpreter hands out bytes above 127. Anything else is empty.
  static CERTBYTES OfArray(PAA item);
  CERTBYTES(CERTBYTES&& other) noexcept;
  CERTBYTES& operator=(CERTBYTES&& other) noexcept;
  ~CERTBYTES();

  const gnutls_datum_t& Get() const { return datum; }
  bool IsEmpty() const { return datum.size == 0; }

 private:
  gnutls_datum_t datum = {nullptr, 0};  // owned
};

/// Owner:   shared by the call that makes it, a server, and the sockets.
/// Threads: the creating call's until NewSock; then the fields of the second group only.
/// Errors:  ERR_INVALID_CERTIFICATE for what cannot be read or imported, ERR_MEMORY_ALLOC. After a
///          failure what was there before is there still.
class CERTDATA : public COUNTED {
 public:
  CERTDATA();
  ~CERTDATA() override;

  // Each says in pubCert and privCert what it has brought.
  /// One more certificate, in DER, behind those that are there; of more than kMaxChain nothing is
  /// read.
  [[nodiscard]] SI4 AddRawCert(const gnutls_datum_t& der);
  /// All certificates of a file, PEM or DER, or the first kMaxChain of them.
  [[nodiscard]] SI4 LoadCertFile(PCH10 name);
  /// A key in DER.
  [[nodiscard]] SI4 LoadRawKey(const gnutls_datum_t& der);
  /// A key in a file, PEM or DER; with pprivPass where it is encrypted.
  [[nodiscard]] SI4 LoadKeyFile(PCH10 name);
  /// Key and chain of a PKCS #12 file, PEM or DER, with pprivPass. The chain replaces certificates
  /// that are there.
  [[nodiscard]] SI4 LoadPkcs12(PCH10 name);
  /// The name of a key that GnuTLS finds elsewhere.
  [[nodiscard]] SI4 LoadKeyUrl(PCH10 url);

  // --- of the options; constant once NewSock has it
  CERTDATATYPE pubCert = CDTNoCert;  // CDTNoCert: TLS isn't asked for
  CERTDATATYPE privCert = CDTNoCert;
  gnutls_pcert_st* certs = nullptr;  // owned, from QLN_gnutls_malloc; null when GnuTLS has them
  UI4 certsCount = 0;
  gnutls_privkey_t key = nullptr;  // owned; null when GnuTLS has it
  UI4 lpubIndex = 0;               // kept, not used
  UI4 lprivIndex = 0;
  SECRET ppubPass;
  SECRET pprivPass;
  TEXT pprivCertData;                  // the name, of CDTMSStore
  TEXT ppriority;                      // null for the default
  REF<RootCerts> pRootCerts;           // the root's
  REF<SessionCache2> pClientSessions;  // the root's

  // --- while sockets use it
  std::atomic<UI4> flagOption{0};  // tally; CERTFLAGS. A server's accepts add to it
  /// The first status of a peer that wasn't 0, for the program to read; 0 for none. A client's.
  UI4 firstStatus = 0;
  /// What every socket from now on shakes hands with: made ahead, or left here by a server that
  /// pauses for the next listener.
  REF<TLSCREDENTIALS> saved;

 private:
  bool HasPassword() const { return pprivPass && *pprivPass; }
  /// Exchanges them with those that are there.
  void ReplaceCerts(gnutls_pcert_st** fresh, UI4* count);
  /// Takes it over.
  void ReplaceKey(gnutls_privkey_t fresh);
};
