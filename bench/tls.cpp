// tls.cpp - makes the certificates of the TLS works, by the openssl program.
#include "bench/tls.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace bench {

namespace {

constexpr char kConfiguration[] = R"([req]
distinguished_name = name
[name]
[authority]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign
subjectKeyIdentifier = hash
[server]
basicConstraints = critical, CA:FALSE
subjectAltName = IP:127.0.0.1
)";

void Run(const std::string& command) {
  if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

/// An authority in the folder trust, and a server's certificate from it.
void MakeChain(const std::string& folder, const std::string& key, const std::string& algorithm) {
  const std::string make = "cd '" + folder +
                           "' && openssl req -x509 -config req.cnf -nodes -days 2 -newkey " +
                           algorithm;
  const std::string authority = " trust/" + key;
  Run(make + " -extensions authority -subj '/CN=Authority " + key + "' -keyout" + authority +
      ".key -out" + authority + ".pem 2>/dev/null");
  Run(make + " -extensions server -subj /CN=127.0.0.1 -CA" + authority + ".pem -CAkey" + authority +
      ".key -keyout " + key + ".key -out " + key + ".pem 2>/dev/null");
}

}  // namespace

TlsFolder::TlsFolder() : path(std::filesystem::temp_directory_path() / "kyrno-bench-XXXXXX") {
  if (!mkdtemp(path.data()))
    throw std::runtime_error("no folder " + path + ": " + std::strerror(errno));
  std::filesystem::create_directory(path + "/trust");
  std::ofstream(path + "/req.cnf") << kConfiguration;
  MakeChain(path, "rsa", "rsa:2048");
  MakeChain(path, "p256", "ec -pkeyopt ec_paramgen_curve:P-256");
  setenv(kTlsFolder, path.c_str(), 1);
}

TlsFolder::~TlsFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

}  // namespace bench
