// tlsoptions.cpp - what the command line says of TLS, as options of ASrv and AClt.
#include "host/tlsoptions.h"

#include <gnutls/x509.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>

namespace host {

namespace {

constexpr int kMaxVerify = 511;

constexpr struct {
  int bit;
  const char* word;
} kVerifyWords[] = {
    {kPassUnknownIssuer, "unknown-issuer"}, {kPassSignerNoCa, "signer-no-ca"},
    {kPassNotYetValid, "not-yet-valid"},    {kPassExpired, "expired"},
    {kPassWrongName, "wrong-name"},         {kPassAnything, "anything"},
};

constexpr struct {
  unsigned bit;
  int passes;  ///< the bit of "SSLValidation" that lets it pass, or 0
  const char* reason;
} kReasons[] = {
    {GNUTLS_CERT_SIGNER_NOT_FOUND, kPassUnknownIssuer, "its issuer is not trusted"},
    {GNUTLS_CERT_SIGNER_NOT_CA, kPassSignerNoCa, "its issuer is no certificate authority"},
    {GNUTLS_CERT_NOT_ACTIVATED, kPassNotYetValid, "it is not valid yet"},
    {GNUTLS_CERT_EXPIRED, kPassExpired, "it has expired"},
    {GNUTLS_CERT_REVOKED, 0, "it has been revoked"},
    {GNUTLS_CERT_SIGNATURE_FAILURE, 0, "its signature is wrong"},
    {GNUTLS_CERT_INSECURE_ALGORITHM, 0, "its signature or key is too weak"},
    {GNUTLS_CERT_PURPOSE_MISMATCH, 0, "it is for another purpose"},
    {GNUTLS_CERT_SIGNER_CONSTRAINTS_FAILURE, 0, "its issuer may not sign it"},
    {GNUTLS_CERT_UNKNOWN_CRIT_EXTENSIONS, 0, "it has a critical extension that is not known"},
    {GNUTLS_CERT_UNEXPECTED_OWNER, 0, "it belongs to somebody else"},
    {GNUTLS_CERT_MISMATCH, 0, "it is not the one that was expected"},
    {GNUTLS_CERT_REVOCATION_DATA_SUPERSEDED, 0, "the news of its revocation is old"},
    {GNUTLS_CERT_REVOCATION_DATA_ISSUED_IN_FUTURE, 0, "the news of its revocation is too new"},
    {GNUTLS_CERT_MISSING_OCSP_STATUS, 0, "it has to come with its OCSP answer"},
    {GNUTLS_CERT_INVALID_OCSP_STATUS, 0, "its OCSP answer is wrong"},
};

int VerifyBit(const std::string& word) {
  std::string words;
  for (const auto& known : kVerifyWords) {
    if (word == known.word) return known.bit;
    words += std::string(words.empty() ? "" : ", ") + known.word;
  }
  throw std::invalid_argument("\"" + word + "\": --verify takes a number up to " +
                              std::to_string(kMaxVerify) + " or, joined by '+', " + words);
}

ZValue File(const char* kind, const std::string& name) { return ZValue::List({kind, name, 0}); }

/// A server without a wish of its own asks nobody. Without any of these bits the library would ask
/// from the third connection on, and then refuse whom it doesn't trust.
int Flags(const Tls& tls, bool server) {
  int flags = tls.verify.value_or(0);
  if (tls.clientCert == "require") flags |= kRequireClientCert;
  if (tls.clientCert == "request") flags |= kRequestClientCert;
  if (server && (flags & (kRequestClientCert | kRequireClientCert)) == 0) flags |= kAskNobody;
  return flags;
}

}  // namespace

bool Tls::IsWanted() const {
  for (const std::string* word : {&cert, &key, &p12, &password, &caDir, &clientCert, &priority})
    if (!word->empty()) return true;
  return asked || verify.has_value();
}

bool Tls::KnowsClients() const {
  return !clientCert.empty() ||
         (verify.value_or(0) & (kRequestClientCert | kRequireClientCert)) != 0;
}

int ParseVerify(const std::string& text) {
  int flags = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, failed] = std::from_chars(text.data(), end, flags);
  if (failed == std::errc() && rest == end && flags >= 0 && flags <= kMaxVerify) return flags;

  flags = 0;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t plus = std::min(text.find('+', begin), text.size());
    flags |= VerifyBit(text.substr(begin, plus - begin));
    begin = plus + 1;
  }
  return flags;
}

void CheckTls(const Tls& tls, bool server) {
  if (!tls.IsWanted()) return;
  if (!tls.p12.empty() && !(tls.cert.empty() && tls.key.empty()))
    throw std::invalid_argument("--p12 brings key and certificate: leave --cert and --key out");
  if (tls.cert.empty() && !tls.key.empty())
    throw std::invalid_argument("--key needs the certificate that it belongs to: --cert FILE");
  if (server && tls.cert.empty() && tls.p12.empty())
    throw std::invalid_argument("a TLS server needs a certificate: --cert FILE or --p12 FILE");
}

Options TlsOptions(const Tls& tls, bool server) {
  if (!tls.IsWanted()) return {};
  Options options;
  if (!tls.p12.empty()) {
    options.emplace_back("PrivateKeyFile", File("PK#12", tls.p12));
  } else {
    // An empty name asks for TLS without a certificate of one's own.
    options.emplace_back("PublicCertFile", File("DER", tls.cert));
    if (!tls.cert.empty())
      options.emplace_back("PrivateKeyFile", File("DER", tls.key.empty() ? tls.cert : tls.key));
  }
  if (!tls.password.empty()) options.emplace_back("PrivateKeyPass", tls.password);
  if (const int flags = Flags(tls, server); flags != 0)
    options.emplace_back("SSLValidation", flags);
  if (!tls.priority.empty()) options.emplace_back("Priority", tls.priority);
  return options;
}

std::string WhyRefused(unsigned status, int verify) {
  std::string reasons;
  const auto add = [&](const std::string& reason) {
    reasons += (reasons.empty() ? "" : ", ") + reason;
  };
  unsigned unknown = status & ~unsigned{GNUTLS_CERT_INVALID};
  for (const auto& known : kReasons) {
    unknown &= ~known.bit;
    if ((status & known.bit) != 0 && (verify & known.passes) == 0) add(known.reason);
  }
  if (unknown != 0) add("its status is " + std::to_string(status));
  if (status == GNUTLS_CERT_INVALID) add("its signature cannot be checked");
  if (!reasons.empty()) return reasons;
  // The library looks at dates again where it lets something pass.
  return status == 0 ? "it is for another name or address"
                     : "it is for another name or address, or another time";
}

std::string PeerSubject(const Session& session, const std::string& connection) {
  constexpr int kForPeople = 1;
  constexpr int kSubject = 5;
  const ZValue chain = session.GetProp(connection, "PeerCert");
  if (!chain.IsNested() || chain.Count() == 0) return "";
  return session.GetProp(".", "DecodeCert", {chain.At(0), kForPeople}).At(1).At(kSubject).Text();
}

}  // namespace host
