// secured.h - the same test over plain connections and over TLS.
#pragma once

#include <optional>

#include "tests/support/pki.h"
#include "tests/support/program.h"

namespace support {

/// SSLValidation: a server demands a certificate of its clients.
inline constexpr int kRequireClientCert = 128;

/// What the two sides of a test are told. Over TLS each has the certificate "peer", verifies the
/// other's, and a server demands one unless it is made without mutual.
class Tls {
 public:
  explicit Tls(bool secure, bool isMutual = true);

  bool IsOn() const { return pki.has_value(); }
  /// Only when it is on.
  const Pki& Certificates() const { return *pki; }
  /// Of "http" or "ws".
  std::string Url(const std::string& scheme, int port, const std::string& target) const;
  /// Options of a server or client of a root, which trusts the authority from now on.
  Options OfServer(const TestRoot& root) const;
  Options OfClient(const TestRoot& root) const;
  /// These programs with their arguments and what else they need. A curl may have another
  /// certificate, or none.
  Words Host(Words arguments) const;
  Words Curl(const Words& arguments, const std::string& identity = "peer") const;
  Words Node(const std::string& script, const Words& arguments) const;

 private:
  std::optional<Pki> pki;
  const bool mutual;
};

/// The next n bytes of a raw connection. std::runtime_error when something else comes.
std::string Gather(const TestRoot& root, const std::string& name, std::size_t n);

/// A test that runs twice, "plain" and "secure".
class PlainAndSecure : public testing::TestWithParam<bool> {
 public:
  static std::string Name(const testing::TestParamInfo<bool>& info) {
    return info.param ? "secure" : "plain";
  }

 protected:
  const Tls tls{GetParam()};
};

}  // namespace support
