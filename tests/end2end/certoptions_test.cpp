// certoptions_test.cpp - what the certificate options of ASrv and AClt make: a secure object, a
// plain one, or a code.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "tests/support/pki.h"
#include "tests/support/program.h"

namespace support {
namespace {

constexpr int kOnTrust = 32;  // accepts without validating

/// "leaf", issued by "lower", that by "upper" and that by "ca"; and "other".
struct Certificates : Pki {
  std::string locked, lockedOld, p12, openP12;  // of "leaf", and of "other" without a password

  Certificates() {
    Make("upper", {.subject = "/CN=Upper CA", .isCa = true});
    Make("lower", {.issuer = "upper", .subject = "/CN=Lower CA", .isCa = true});
    Make("leaf", {.issuer = "lower"});
    Make("other");
    locked = File("locked.key");
    OpenSsl({"pkey", "-in", Key("leaf"), "-aes256", "-passout", "pass:secret", "-out", locked});
    lockedOld = File("old.key");
    OpenSsl({"ec", "-in", Key("leaf"), "-aes128", "-passout", "pass:secret", "-out", lockedOld});
    p12 = Pkcs12({"leaf", "upper", "lower"}, "secret");
    openP12 = Pkcs12({"other"}, "");
  }

  std::string File(const std::string& name) const { return folder + "/" + name; }
  std::string DerFile(const std::string& name) const {
    const std::string path = File(name + ".der");
    std::ofstream(path, std::ios::binary) << Der(name);
    return path;
  }
  std::string KeyDerFile(const std::string& name) const {
    OpenSsl({"pkey", "-in", Key(name), "-outform", "DER", "-out", File("key.der")});
    return File("key.der");
  }
};

template <class T>
ZValue Numbers(ZType type, const std::string& bytes, int added) {
  std::vector<T> elements;
  for (const char c : bytes)
    elements.push_back(static_cast<T>(static_cast<signed char>(c) + added));
  return ZValue::Vector(type, elements);
}

ZValue File(const char* word, const std::string& name) { return Args({word, name, 0}); }

Options Files(const ZValue& cert, const ZValue& key, const char* password = nullptr) {
  Options options{{"PublicCertFile", cert}, {"PrivateKeyFile", key}};
  if (password) options.emplace_back("PrivateKeyPass", password);
  return options;
}

Options Data(const ZValue& cert, const ZValue& key) {
  return {{"PublicCertData", cert}, {"PrivateKeyData", key}};
}

/// The code, "plain", or the number of certificates that a secure object has.
std::string Made(const TestRoot& root, const char* command, int port, Options options) {
  options.emplace_back("SSLValidation", kOnTrust);
  const ZValue result = root.Run(command, host::OptionList(AtPort(port, "text", "", options)));
  if (result.Integer() != 0) return std::to_string(result.Integer());
  const std::string name = result.At(1).Text();
  const auto count = [&](const char* property) {
    const ZValue certs = root.GetProp(name, property);
    return certs.IsNested() ? certs.Count() : 0;
  };
  const std::uint64_t own = count("OwnCert");
  const bool hasPeer = std::string(command) == "AClt" && count("PeerCert") > 0;
  root.Close(name);
  return own > 0 || hasPeer ? std::to_string(own) : "plain";
}

TEST(CertificateOptions, MakeASecureObjectOrSayWhyNot) {
  const Certificates pki;
  const std::string der = pki.Der("leaf"), keyDer = Content(pki.KeyDerFile("leaf"));
  const ZValue none = File("DER", ""), nowhere = File("DER", pki.File("nowhere"));
  const ZValue cert = File("DER", pki.Cert("leaf")), key = File("DER", pki.Key("leaf"));
  const ZValue chain = File("DER", pki.Chain("chain", {"leaf", "lower", "upper"}));
  const ZValue many = File("DER", pki.Chain("many", std::vector<std::string>(101, "leaf")));
  const ZValue p12 = File("PK#12", pki.p12), openP12 = File("PK#12", pki.openP12);
  const ZValue locked = File("DER", pki.locked), lockedOld = File("DER", pki.lockedOld);

  // No pipe holds the caller up, and no file of 16 MiB is a certificate.
  const std::string large = pki.Chain("large", {"leaf"}), pipe = pki.File("pipe");
  std::filesystem::resize_file(large, (16 << 20) + 1);
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const std::string empty = pki.Chain("empty", {});

  const struct {
    const char* what;
    Options options;
    std::string server;
    std::string client{};  // the same when it is empty
  } cases[] = {
      // Nothing is asked for.
      {"nothing", {}, "plain"},
      {"no certificate, however wrong the rest is",
       {{"SSLValidation", "x"}, {"Priority", 7}, {"PrivateKeyPass", Args({1, 2})}},
       "plain"},
      {"No", Files(File("No", "x"), File("NO", "x")), "plain"},
      {"No alone", {{"PublicCertData", "no"}, {"PublicCertFile", "No"}}, "plain"},

      // The forms of a certificate and its key.
      {"PEM", Files(cert, key), "1"},
      {"no index", Files(Args({"der", pki.Cert("leaf")}), Args({"der", pki.Key("leaf")})), "1"},
      {"DER", Files(File("DER", pki.DerFile("leaf")), File("DER", pki.KeyDerFile("leaf"))), "1"},
      {"a file by another word", Files(File("RAW", pki.Cert("leaf")), key), "1"},
      {"a chain", Files(chain, key), "3"},
      {"a chain of too many", Files(many, key), "100"},
      {"characters", Data(der, keyDer), "1"},
      {"bytes",
       Data(Numbers<std::int8_t>(ZType::I1, der, 0), Numbers<std::int8_t>(ZType::I1, keyDer, 0)),
       "1"},
      {"low bytes",
       Data(Numbers<std::int16_t>(ZType::I2, der, 256),
            Numbers<std::int16_t>(ZType::I2, keyDer, 0)),
       "1"},
      {"a chain as data before any file",
       {{"PublicCertData", Args({der, pki.Der("lower")})},
        {"PublicCertFile", nowhere},
        {"PrivateKeyFile", key}},
       "2"},
      {"a locked key", Files(cert, locked, "secret"), "1"},
      {"a locked key of the older form", Files(cert, lockedOld, "secret"), "1"},
      {"PKCS #12", {{"PrivateKeyFile", p12}, {"PrivateKeyPass", "secret"}}, "3"},
      {"PKCS #12 without a password", {{"PrivateKeyFile", openP12}}, "1"},
      {"PKCS #12 in place of a certificate", Files(cert, openP12), "1"},
      {"PKCS #12 beside an empty name", Files(none, p12, "secret"), "3"},
      {"a priority of its own", pki.As("leaf", {{"Priority", "SECURE128"}}), "1"},
      {"a client without a certificate", Pki::Anonymous(), "1207", "0"},
      {"a client that says it has neither", Files(none, none), "1207", "0"},

      // Certificate and key that don't go together.
      {"no key", {{"PublicCertFile", cert}}, "1203", "1"},
      {"a key that lies in a store", Files(cert, File("MSStore", "mine")), "1203", "1"},
      {"another's key", Files(cert, File("DER", pki.Key("other"))), "1203", "1"},
      {"a key alone", {{"PrivateKeyFile", key}}, "1207"},
      {"a key as data alone", {{"PrivateKeyData", keyDer}}, "1207"},
      {"a key beside an empty name", Files(none, key), "1207"},
      {"an empty name of a key alone", {{"PrivateKeyFile", none}}, "1207"},

      // What can't be used.
      {"no such file", Files(nowhere, key), "1207"},
      {"an empty file", Files(File("DER", empty), key), "1207"},
      {"a large file", Files(File("DER", large), key), "1207"},
      {"a pipe", Files(File("DER", pipe), key), "1207"},
      {"a folder", Files(File("DER", pki.folder), key), "1207"},
      {"a device", Files(cert, File("DER", "/dev/zero")), "1207"},
      {"a name with a NUL", Files(File("DER", pki.Cert("leaf") + '\0'), key), "1207"},
      {"a key as certificate", Files(key, key), "1207"},
      {"a certificate as key", Files(cert, cert), "1207"},
      {"no such key", Files(cert, nowhere), "1207"},
      {"a URL of nothing", Files(cert, File("URL", "no:such")), "1207"},
      {"a locked key without its password", Files(cert, locked), "1207"},
      {"PKCS #12 with another password", Files(none, p12, "Secret"), "1207"},
      {"PKCS #12 as certificate", Files(p12, key), "1207"},
      {"PEM as PKCS #12", Files(cert, File("PK#12", pki.Key("leaf"))), "1207"},
      {"cut data", Data(der.substr(0, 100), keyDer), "1207"},
      {"cut data behind good", Data(Args({der, "x"}), keyDer), "1207"},
      {"a cut key", Data(der, keyDer.substr(1)), "1207"},
      {"no data", Data("", keyDer), "1207"},
      {"no list of data", Data(Args({}), keyDer), "1207"},
      {"numbers as data", Data(7, keyDer), "1207"},
      {"an unknown word", Files(File("PEM", pki.Cert("leaf")), key), "1207"},
      {"a word that is none for keys", Files(cert, File("RAW", pki.Key("leaf"))), "1207"},

      // Values of the wrong shape, and what GnuTLS doesn't read.
      {"a word alone", {{"PublicCertFile", "DER"}}, "1084"},
      {"a word in a list", {{"PublicCertFile", Args({"DER"})}}, "1081"},
      {"an index in words", Files(Args({"DER", pki.Cert("leaf"), "one"}), key), "1086"},
      {"flags in words", pki.As("leaf", {{"SSLValidation", "none"}}), "1045"},
      {"a priority that says nothing", pki.As("leaf", {{"Priority", "NOSUCH"}}), "1204"},
      {"datagrams", pki.As("leaf", {{"Mode", "udp"}}), "1205"},
  };
  const TestRoot root;
  const int port = root.Serve("text", pki.As("leaf", {{"SSLValidation", kOnTrust}}));
  for (const auto& c : cases) {
    EXPECT_EQ(Made(root, "ASrv", 0, c.options), c.server) << c.what;
    const std::string& client = c.client.empty() ? c.server : c.client;
    EXPECT_EQ(Made(root, "AClt", port, c.options), client) << c.what;
  }
}

TEST(CertificateOptions, PutTheChainOfAPkcs12FileInOrder) {
  const Certificates pki;
  const TestRoot root;
  root.Serve("text", {{"PrivateKeyFile", File("PK#12", pki.p12)}, {"PrivateKeyPass", "secret"}});
  const ZValue own = root.GetProp("S", "OwnCert");
  ASSERT_EQ(own.Count(), 3u);
  std::uint64_t at = 0;
  for (const char* name : {"leaf", "lower", "upper"})
    EXPECT_EQ(own.At(at++).Bytes(), pki.Der(name)) << name;
}

TEST(CertificateOptions, AClientThatRefusesItsPeerTellsGnuTlsStatus) {
  constexpr int kInvalidWithoutSigner = 2 + 64;
  const Certificates pki;
  const TestRoot root;
  const int port = root.Serve("text", pki.As("leaf"));
  const ZValue result =
      root.Run("AClt", host::OptionList(AtPort(port, "text", "C", Pki::Anonymous())));
  ASSERT_EQ(result.Count(), 2u);
  EXPECT_EQ(result.Integer(0), 1202);
  EXPECT_EQ(result.Integer(1), kInvalidWithoutSigner);
}

TEST(CertificateOptions, AskInVainWithoutTheSupportLibrary) {
  RunApart([] {
    setenv("KYRNOSSL_LIBRARY", "/nonexistent/library.so", 1);
    const TestRoot root;
    const int port = root.Serve("text", {{"PublicCertFile", File("No", "")}});
    const ZValue nowhere = File("DER", "nowhere");
    for (const Options& asks :
         {Options{{"PublicCertData", "x"}}, Options{{"PublicCertFile", File("DER", "")}},
          Options{{"PrivateKeyFile", nowhere}}, Options{{"PrivateKeyData", "x"}}}) {
      EXPECT_EQ(Made(root, "ASrv", 0, asks), "1205");
      EXPECT_EQ(Made(root, "AClt", port, asks), "1205");
    }
  });
}

}  // namespace
}  // namespace support
