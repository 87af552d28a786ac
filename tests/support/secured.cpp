// secured.cpp - the same test over plain connections and over TLS.
#include "tests/support/secured.h"

#include <cstdlib>
#include <stdexcept>

namespace support {

namespace {

void Append(Words* words, const Words& more) {
  words->insert(words->end(), more.begin(), more.end());
}

}  // namespace

Tls::Tls(bool secure, bool isMutual) : mutual(isMutual) {
  if (!secure) return;
  pki.emplace();
  pki->Make("peer");
}

std::string Tls::Url(const std::string& scheme, int port, const std::string& target) const {
  return scheme + (IsOn() ? "s" : "") + "://127.0.0.1:" + std::to_string(port) + target;
}

Options Tls::OfServer(const TestRoot& root) const {
  Options options = OfClient(root);
  if (IsOn() && mutual) options.emplace_back("SSLValidation", kRequireClientCert);
  return options;
}

Options Tls::OfClient(const TestRoot& root) const {
  if (!IsOn()) return {};
  root.SetProp(".", "RootCertDir", pki->Trust({"ca"}));
  return pki->As("peer");
}

Words Tls::Host(Words arguments) const {
  if (IsOn()) {
    const bool serves = arguments.at(0) == "serve";
    Append(&arguments, {"--cert", pki->Cert("peer"), "--key", pki->Key("peer"), "--ca-dir",
                        pki->Trust({"ca"})});
    if (serves && mutual) Append(&arguments, {"--client-cert", "require"});
  }
  return support::Host(std::move(arguments));
}

Words Tls::Curl(const Words& arguments, const std::string& identity) const {
  // Quiet, with no settings from elsewhere.
  Words words{"curl", "-q", "-sS", "--noproxy", "*", "--max-time", "50"};
  if (IsOn()) Append(&words, {"--cacert", pki->Cert("ca")});
  if (IsOn() && !identity.empty())
    Append(&words, {"--cert", pki->Cert(identity), "--key", pki->Key(identity)});
  Append(&words, arguments);
  return words;
}

Words Tls::Node(const std::string& script, const Words& arguments) const {
  // The packages that `./run` has put into the build folder, and what tls.js reads.
  setenv("NODE_PATH", KYRNO_SOURCES "/build/node/node_modules", 1);
  setenv("CERTIFICATES", IsOn() ? pki->folder.c_str() : "", 1);
  Words words{"node", KYRNO_SOURCES "/tests/interop/node/" + script};
  Append(&words, arguments);
  return words;
}

std::string Gather(const TestRoot& root, const std::string& name, std::size_t n) {
  std::string got;
  while (got.size() < n) {
    const Event event = root.Next(name);
    if (event.event != "Block") throw std::runtime_error(Tell(event));
    got += event.value.Bytes();
  }
  return got;
}

}  // namespace support
