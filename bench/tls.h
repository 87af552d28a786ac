// tls.h - what all that take part in the TLS works agree on: TLS 1.3, the certificates, the cipher.
//
// The certificates are made anew for each run of the benchmark, in a folder that the processes find
// by an environment variable:
//
//   KEY.pem, KEY.key   of the server, for 127.0.0.1; KEY is "rsa", of 2048 bits, or "p256"
//   trust/KEY.pem      its authority, with a key of the same kind
#pragma once

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "bench/peer.h"

namespace bench {

inline constexpr const char* kTlsFolder = "KYRNO_BENCH_TLS";

/// What the clients offer, as GnuTLS reads it: one cipher and one group, so that each server makes
/// the same keys. AES-256-GCM is what GnuTLS and OpenSSL prefer by themselves.
inline constexpr const char* kTlsPriority =
    "NORMAL:-VERS-ALL:+VERS-TLS1.3:-CIPHER-ALL:+AES-256-GCM:-GROUP-ALL:+GROUP-SECP256R1";

/// The path of a file in the folder.
inline std::string TlsFile(const std::string& name) {
  const char* folder = getenv(kTlsFolder);
  if (!folder) throw std::runtime_error(std::string(kTlsFolder) + " names no folder");
  return std::string(folder) + "/" + name;
}
inline std::string TlsCertificate(const Work& work) {
  return TlsFile(std::string(work.TlsKey()) + ".pem");
}
inline std::string TlsPrivateKey(const Work& work) {
  return TlsFile(std::string(work.TlsKey()) + ".key");
}
inline std::string TlsTrust() { return TlsFile("trust"); }

/// Makes the folder and sets the variable; the destructor removes the folder.
///
/// Errors: std::runtime_error.
class TlsFolder {
 public:
  TlsFolder();
  ~TlsFolder();
  TlsFolder(const TlsFolder&) = delete;
  TlsFolder& operator=(const TlsFolder&) = delete;

 private:
  std::string path;
};

}  // namespace bench
