// pki.h - certificates for a test, made by the openssl program.
#pragma once

#include <string>
#include <vector>

#include "tests/support/session.h"

namespace support {

/// A folder of certificates and keys in PEM, which goes with the object. NAME.pem and NAME.key
/// stand beside NAME.cnf, the configuration for further commands of openssl on that certificate.
///
/// Errors: std::runtime_error when openssl fails.
class Pki {
 public:
  /// What a certificate is to be. The defaults are a good one for this machine.
  struct Wanted {
    std::string issuer = "ca";  ///< a name that was made before; its own for self-signed
    std::string subject = "/CN=localhost";
    std::string key = "P-256";                         ///< P-256, rsa:BITS or ed25519
    std::string digest = "default";                    ///< of the signature
    std::string names = "DNS:localhost,IP:127.0.0.1";  ///< subjectAltName; empty for none
    bool isCa = false;
    bool extensions = true;  ///< false: none at all
    int fromDays = -1;       ///< validity, counted from now
    int toDays = 30;
    std::string serial{};  ///< hexadecimal digits, an even number; empty for a random one
    /// Further lines of the extension section of an openssl configuration, which win over those
    /// that are there: key identifiers, and what isCa and names ask for.
    std::string more{};
  };

  /// With a certificate authority "ca".
  Pki();
  ~Pki();
  Pki(const Pki&) = delete;
  Pki& operator=(const Pki&) = delete;

  void Make(const std::string& name, const Wanted& wanted) const;
  void Make(const std::string& name) const { Make(name, Wanted()); }
  std::string Cert(const std::string& name) const { return Path(name, ".pem"); }
  std::string Key(const std::string& name) const { return Path(name, ".key"); }
  /// The bytes of a certificate.
  std::string Der(const std::string& name) const;
  /// A file of these certificates one behind the other.
  std::string Chain(const std::string& file, const std::vector<std::string>& names) const;
  /// NAME.p12 of key and these certificates, the first of which belongs to the key.
  std::string Pkcs12(const std::vector<std::string>& names, const std::string& password) const;
  /// A folder with these certificates alone, for "RootCertDir".
  std::string Trust(const std::vector<std::string>& names) const;
  /// Runs openssl in the folder, without its first word.
  void OpenSsl(const std::vector<std::string>& words) const;

  /// Options of a server, or a client, with this certificate; `more` wins.
  Options As(const std::string& name, const Options& more = {}) const;
  /// Options of a client without one.
  static Options Anonymous(const Options& more = {});

  const std::string folder;

 private:
  std::string Path(const std::string& name, const char* ending) const {
    return folder + "/" + name + ending;
  }
};

}  // namespace support
