// tlsoptions.h - what the command line says of TLS, as options of ASrv and AClt, and what a refused
// certificate's status says in words.
#pragma once

#include <optional>
#include <string>

#include "host/library.h"

namespace host {

/// Codes of AClt that say too little by themselves.
inline constexpr int kTlsHandshake = 1201;
inline constexpr int kInvalidPeerCertificate = 1202;

/// Bits of "SSLValidation" by what they let pass, and a server's two wishes.
inline constexpr int kPassUnknownIssuer = 1;
inline constexpr int kPassSignerNoCa = 2;
inline constexpr int kPassNotYetValid = 4;
inline constexpr int kPassExpired = 8;
inline constexpr int kPassWrongName = 16;
inline constexpr int kPassAnything = 32;
inline constexpr int kRequestClientCert = 64;
inline constexpr int kRequireClientCert = 128;
inline constexpr int kAskNobody = 256;

/// One end's certificate and what it asks of the other's. Files are PEM or DER. Every member has an
/// initializer, so that whoever names a few of them is not warned about the others.
struct Tls {
  bool asked = false;  ///< by --tls or the scheme of a URL
  std::string cert{};
  std::string key{};  ///< empty: in the file of the certificate
  std::string p12{};  ///< key and chain in place of both
  std::string password{};
  std::string caDir{};          ///< empty: the system's trust
  std::optional<int> verify{};  ///< bits of "SSLValidation"
  std::string clientCert{};     ///< of a server: "request" or "require"; empty: anybody may come
  std::string priority{};

  /// Every word about TLS asks for it: nobody who gives one gets a plain connection.
  bool IsWanted() const;
  /// Whether a server hears who its clients are.
  bool KnowsClients() const;
};

/// A number from 0 to 511, or words for its bits joined by '+'. Throws std::invalid_argument.
int ParseVerify(const std::string& text);

/// Throws std::invalid_argument with what is missing, or what contradicts.
void CheckTls(const Tls& tls, bool server);

/// Nothing where TLS isn't wanted. The trusted folder is a property of the root.
Options TlsOptions(const Tls& tls, bool server);

/// Why a certificate was refused: of the reasons in a gnutls_certificate_status_t those that
/// `verify` doesn't let pass, in words; the name or the time, where none is left.
std::string WhyRefused(unsigned status, int verify);

/// The subject of the certificate that a connection's peer has shown; empty without one.
std::string PeerSubject(const Session& session, const std::string& connection);

}  // namespace host
