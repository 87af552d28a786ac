// revoked_test.cpp - a server that brings the proof of its own revocation with it.
#include "tests/support/pki.h"
#include "tests/support/program.h"

namespace support {
namespace {

/// openssl as a server whose handshakes carry an OCSP answer.
struct Stapler {
  const int port = FreePort();
  const Program server;

  Stapler(const Pki& pki, const std::string& name, const char* version)
      : server({"openssl", "s_server", "-quiet", version, "-accept",
                "127.0.0.1:" + std::to_string(port), "-cert", pki.Cert(name), "-key", pki.Key(name),
                "-status_file", pki.folder + "/" + name + ".ocsp"}) {
    AwaitPort(port);
  }
};

TEST(Revocation, ThatIsStapledIsToleratedByNoFlagButTheOneThatValidatesNothing) {
  const Pki pki;
  for (const std::string name : {"good", "revoked"}) {
    pki.Make(name);
    if (name == "revoked")
      pki.OpenSsl({"ca", "-config", name + ".cnf", "-revoke", pki.Cert(name), "-cert", "ca.pem",
                   "-keyfile", "ca.key"});
    pki.OpenSsl({"ocsp", "-index", "index", "-CA", "ca.pem", "-rsigner", "ca.pem", "-rkey",
                 "ca.key", "-issuer", "ca.pem", "-cert", pki.Cert(name), "-respout", name + ".ocsp",
                 "-ndays", "1", "-noverify"});
  }
  const TestRoot root;
  root.SetProp(".", "RootCertDir", pki.Trust({"ca"}));
  const auto code = [&root](const Stapler& peer, int flags) {
    const Options options = Pki::Anonymous({{"SSLValidation", flags}});
    return root.Code("AClt", OptionList(AtPort(peer.port, "raw", "", options)));
  };
  for (const char* version : {"-tls1_2", "-tls1_3"}) {
    const Stapler good(pki, "good", version);
    EXPECT_EQ(code(good, 0), 0) << version;
    const Stapler revoked(pki, "revoked", version);
    EXPECT_EQ(code(revoked, 0), 1202) << version;
    EXPECT_EQ(code(revoked, 31), 1202) << version;
    EXPECT_EQ(code(revoked, 32), 0) << version;
  }
}

}  // namespace
}  // namespace support
