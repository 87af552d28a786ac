// certificates_test.cpp - whom each of the flags of "SSLValidation" lets through: one table for the
// certificates of servers and one for those of clients.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "tests/support/pki.h"
#include "tests/support/program.h"

namespace support {
namespace {

constexpr char kTls12[] = "NORMAL:-VERS-ALL:+VERS-TLS1.2";
constexpr int kOnTrust = 32;  // accepts without validating

/// All that the tables name, and a folder that trusts "ca" and one certificate signed by itself.
struct Certificates : Pki {
  std::string trusted;

  Certificates() {
    const std::string noKeyIds = "subjectKeyIdentifier = none\nauthorityKeyIdentifier = none";
    std::string manyNames = "DNS:localhost";
    for (int i = 0; i < 300; ++i) manyNames += ",DNS:host" + std::to_string(i) + ".example.org";

    Make("stranger", {.issuer = "stranger", .subject = "/CN=Another CA", .isCa = true});
    Make("forger", {.issuer = "forger", .subject = "/CN=Test CA", .isCa = true});
    Make("plain", {.subject = "/CN=No CA"});
    Make("upper", {.subject = "/CN=Upper CA", .isCa = true});
    Make("lower", {.issuer = "upper", .subject = "/CN=Lower CA", .isCa = true});
    Make("lower-forger", {.issuer = "lower-forger", .subject = "/CN=Lower CA", .isCa = true});
    Make("past", {.subject = "/CN=Past CA", .isCa = true, .fromDays = -10, .toDays = -1});

    Make("good");
    Make("elsewhere", {.names = "DNS:elsewhere.example.org"});
    Make("expired", {.fromDays = -10, .toDays = -1});
    Make("future", {.fromDays = 2});
    Make("unknown", {.issuer = "stranger"});
    Make("unknown-elsewhere", {.issuer = "stranger", .names = "DNS:elsewhere.example.org"});
    Make("lower-expired", {.issuer = "lower", .fromDays = -10, .toDays = -1});
    Make("lower-future", {.issuer = "lower", .fromDays = 2});
    Make("self", {.issuer = "self"});
    Make("self-expired", {.issuer = "self-expired", .fromDays = -10, .toDays = -1});
    Make("self-trusted", {.issuer = "self-trusted", .subject = "/CN=localhost/O=trusted"});
    Make("by-plain", {.issuer = "plain"});
    Make("by-lower", {.issuer = "lower"});
    Make("by-past", {.issuer = "past"});
    Make("by-end", {.issuer = "by-past"});
    Make("for-clients", {.more = "extendedKeyUsage = clientAuth"});
    Make("for-servers", {.more = "extendedKeyUsage = serverAuth"});
    Make("staple", {.more = "tlsfeature = status_request"});
    Make("large", {.names = manyNames});
    Make("serial", {.serial = "80000000000000FF"});
    Make("bare", {.extensions = false});
    Make("forged", {.issuer = "forger", .more = noKeyIds});
    Make("forged-lower", {.issuer = "lower-forger", .more = noKeyIds});
    Make("sha1", {.digest = "sha1"});
    for (const char* name : {"unreadable", "unreadable-expired"}) {
      Make(name, {.fromDays = -10, .toDays = name == std::string("unreadable") ? 30 : -1});
      // A signature algorithm that nobody knows.
      const std::string known = "\x2a\x86\x48\xce\x3d\x04\x03\x02";
      std::string der = Der(name);
      for (std::size_t at = 0; (at = der.find(known, at)) != std::string::npos; ++at)
        der[at + known.size() - 1] = '\x7f';
      std::ofstream(Cert(name), std::ios::binary) << der;
    }
    Make("altered");
    std::string der = Der("altered");
    der.back() ^= 1;  // the signature's last bit
    std::ofstream(Cert("altered"), std::ios::binary) << der;
    trusted = Trust({"ca", "self-trusted"});
  }

  /// The end's options, with this chain and the key of its first certificate; anonymous without.
  Options With(const Lines& chain, const Options& more) const {
    if (chain.empty()) return Anonymous(more);
    Options options = more;
    options.emplace_back("PublicCertFile", Args({"DER", Chain("chain", chain), 0}));
    return As(chain[0], options);
  }
};

/// One certificate, and for each value of the flags whether it is taken: + or -.
struct Row {
  const char* what;
  Lines chain;  // as it is presented
  const char* taken;
  int status = 0;  // what is told beside 1202
};

/// The sums are those of two kinds of leniency, and of all but the last.
constexpr int kClientFlags[] = {0, 1, 2, 4, 8, 16, kOnTrust, 1 + 2, 1 + 8, 4 + 8, 1 + 16, 31};
constexpr int kInvalid = 2;

const Row kServers[] = {
    {"good", {"good"}, "++++++++++++"},
    {"wrong host name", {"elsewhere"}, "-----++---++"},
    {"expired", {"expired"}, "----+-+-++-+", kInvalid + 1024},
    {"not yet valid", {"future"}, "---+--+--+-+", kInvalid + 512},
    {"unknown issuer", {"unknown"}, "-+----+++-++", kInvalid + 64},
    {"unknown issuer, wrong host name", {"unknown-elsewhere"}, "------+---++", kInvalid + 64},
    {"self-signed", {"self"}, "-+----+++-++", kInvalid + 64},
    {"self-signed and expired", {"self-expired"}, "------+-+--+", kInvalid + 64 + 1024},
    {"self-signed and trusted", {"self-trusted"}, "++++++++++++"},
    {"issuer that is no CA", {"by-plain", "plain"}, "--+---++---+", kInvalid + 128},
    {"chain", {"by-lower", "lower", "upper"}, "++++++++++++"},
    {"chain with its root", {"by-lower", "lower", "upper", "ca"}, "++++++++++++"},
    {"chain in wrong order", {"by-lower", "upper", "lower"}, "-+----+++-++", kInvalid + 64},
    {"chain with its end twice", {"by-lower", "by-lower", "lower", "upper"}, "++++++++++++"},
    {"chain with a duplicate", {"by-lower", "lower", "upper", "lower"}, "++++++++++++"},
    {"intermediate missing", {"by-lower", "upper"}, "-+----+++-++", kInvalid + 64},
    // GnuTLS says no more than that nobody signed the intermediate.
    {"expired, and its chain broken", {"lower-expired", "lower"}, "------+-+--+", kInvalid + 64},
    {"not valid, and its chain broken", {"lower-future", "lower"}, "------+----+", kInvalid + 64},
    {"expired intermediate", {"by-past", "past"}, "----+-+-++-+", kInvalid + 1024},
    {"no CA below an expired one",
     {"by-end", "by-past", "past"},
     "------+----+",
     kInvalid + 128 + 1024},
    {"for clients alone", {"for-clients"}, "------+-----", kInvalid + 262144},
    {"more than 4,096 bytes", {"large"}, "++++++++++++"},
    {"serial with the top bit set", {"serial"}, "++++++++++++"},
    {"no extensions", {"bare"}, "++++++++++++"},
    {"forged under the trusted name", {"forged"}, "------+-----", kInvalid + 2048},
    {"forged in a chain", {"forged-lower", "lower", "upper"}, "------+-----", kInvalid + 2048},
    {"altered signature", {"altered"}, "------+-----", kInvalid + 2048},
    {"unknown algorithm", {"unreadable"}, "------+-----", kInvalid},
    // To tolerate the date must not mean to tolerate the signature.
    {"unknown algorithm and expired",
     {"unreadable-expired"},
     "------+-----",
     kInvalid + 1024 + 2048},
    {"without the stapled answer that it demands", {"staple"}, "------+-----", kInvalid + 524288},
    {"insecure algorithm", {"sha1"}, "------+-----", kInvalid + 256},
};

TEST(ServerCertificates, AreTakenAsTheFlagsOfTheClientSay) {
  const Certificates pki;
  for (const Row& row : kServers) {
    SCOPED_TRACE(row.what);
    const TestRoot server;
    const TestRoot client;
    const int port = server.Serve("blkraw", pki.With(row.chain, {}));
    client.SetProp(".", "RootCertDir", pki.trusted);
    std::string taken;
    const auto isPem = [](const std::string& name) {
      return name != "altered" && !name.starts_with("unreadable");
    };
    for (const int flags : kClientFlags) {
      const Options options =
          Pki::Anonymous({{"Address", "localhost"}, {"SSLValidation", flags}, {"Name", ""}});
      // A session of the first attempt is resumed by the second, and judged again.
      int codes[2] = {};
      for (int& code : codes) {
        const ZValue result = client.Run("AClt", OptionList(AtPort(port, "blkraw", "", options)));
        code = static_cast<int>(result.Integer(0));
        if (code == 1202) {
          EXPECT_EQ(result.Count() > 1 ? result.Integer(1) : 0, row.status) << flags;
        }
        if (code != 0 || flags != kOnTrust || &code == codes) continue;
        const ZValue peer = client.GetProp(result.At(1).Text(), "PeerCert");
        ASSERT_EQ(peer.Count(), row.chain.size());
        if (!isPem(row.chain[0])) continue;
        for (std::size_t i = 0; i < row.chain.size(); ++i)
          EXPECT_TRUE(peer.At(i).Bytes() == pki.Der(row.chain[i])) << i;
      }
      EXPECT_EQ(codes[0], codes[1]) << flags;
      taken += codes[0] == 0 ? '+' : codes[0] == 1202 ? '-' : '?';
    }
    EXPECT_EQ(taken, row.taken);
  }
}

/// To request one and to require one, each strictly and with a leniency.
constexpr int kServerFlags[] = {64,      128,     64 + 1,   128 + 1, 64 + 8,
                                128 + 8, 64 + 32, 128 + 32, 64 + 128};

// A client presents a certificate only if a part of its chain is of an issuer that the server
// names.
const Row kClients[] = {
    {"none", {}, "+-+-+-+--"},
    {"good", {"good"}, "+++++++++"},
    {"of another host", {"elsewhere"}, "+++++++++"},
    {"expired", {"expired"}, "----++++-"},
    {"from another CA, kept back", {"unknown"}, "+-+-+-+--"},
    {"from another CA, presented", {"unknown", "ca"}, "--++--++-"},
    {"forged under the trusted name", {"forged"}, "------++-"},
    {"for servers alone", {"for-servers"}, "------++-"},
};

TEST(ClientCertificates, AreTakenAsTheFlagsOfTheServerSay) {
  const Certificates pki;
  const TestRoot server;
  const TestRoot client;
  server.SetProp(".", "RootCertDir", pki.trusted);
  for (const Row& row : kClients)
    for (const Options& version : {Options{{"Priority", kTls12}}, Options{}}) {
      SCOPED_TRACE(row.what + std::string(version.empty() ? ", newest" : ", TLS 1.2"));
      Options options = version;
      options.emplace_back("SSLValidation", kOnTrust);
      options = pki.With(row.chain, options);
      std::string taken;
      for (const int flags : kServerFlags) {
        const int port = server.Serve("blkraw", pki.As("good", {{"SSLValidation", flags}}));
        const ZValue result = client.Run("AClt", OptionList(AtPort(port, "blkraw", "", options)));
        const bool isThere = result.Integer(0) == 0;
        if (*(row.taken + taken.size()) == '+') {
          taken += server.Next("S").event == "Connect" ? '+' : '?';
        } else {
          // With TLS 1.3 a client is through before the server has judged.
          const std::string name = isThere ? result.At(1).Text() : "";
          const bool refused =
              isThere ? client.Told(name) == "Error " + name + " 1119" : result.Integer(0) == 1201;
          taken += refused && server.Wait("S", 0).code == 100 ? '-' : '?';
        }
        server.Close("S");
        EXPECT_TRUE(Eventually([&] { return server.Code("ATree", "S") == 1010; }));
      }
      EXPECT_EQ(taken, row.taken);
    }
}

TEST(Trust, IsThatOfTheFolderAtEachHandshake) {
  Pki pki;
  pki.Make("good");
  pki.Make("stranger", {.issuer = "stranger", .subject = "/CN=Another CA", .isCa = true});
  const TestRoot root;
  const int port = root.Serve("blkraw", pki.As("good"));
  const auto code = [&] {
    return root.Code("AClt", OptionList(AtPort(port, "blkraw", "", Pki::Anonymous())));
  };
  const auto trust = [&](const std::string& folder) {
    return root.Code("ASetProp", Args({".", "RootCertDir", folder}));
  };
  EXPECT_EQ(code(), 1202) << "the system's trust";
  EXPECT_EQ(trust(pki.Trust({"ca"})), 0);
  EXPECT_EQ(code(), 0);
  EXPECT_EQ(trust(pki.Trust({"stranger"})), 0);
  EXPECT_EQ(code(), 1202) << "a session to resume is no reason to trust";
  EXPECT_EQ(trust(pki.Trust({"ca"})), 0);
  EXPECT_EQ(trust(pki.Trust({})), 1208);
  EXPECT_EQ(code(), 1202) << "an empty folder";
}

TEST(Trust, IsThatOfTheFilesThatAreCalledCertificates) {
  const struct {
    const char* name;
    bool counts;
  } rows[] = {{"upper.PEM", true}, {"mixed.Cer", true},        {"bytes.der", true},
              {".pem", true},      {"further.pem.bak", false}, {"pem", false},
              {"xpem", false},     {"text.txt", false},        {"near.pemx", false}};
  Pki pki;
  pki.Make("good");
  const TestRoot root;
  const int port = root.Serve("blkraw", pki.As("good"));
  const auto trust = [&](const std::string& folder) {
    return root.Code("ASetProp", Args({".", "RootCertDir", folder}));
  };
  const auto isTrusted = [&] {
    return root.Code("AClt", OptionList(AtPort(port, "blkraw", "", Pki::Anonymous()))) == 0;
  };
  const std::string both = Content(pki.Chain("both", {"good", "ca"}));
  for (const auto& row : rows)
    for (const char* slash : {"", "/"}) {
      const TempFolder folder;
      folder.File("empty.pem", "");
      folder.File("garbage.der", "\x30\x82\xff\xff garbage");
      std::filesystem::create_directory(folder.path + "/folder.pem");
      ASSERT_EQ(mkfifo((folder.path + "/pipe.pem").c_str(), 0600), 0);
      folder.File(row.name, row.name == std::string("bytes.der") ? pki.Der("ca") : both);
      EXPECT_EQ(trust(folder.path + slash), row.counts ? 0 : 1208) << row.name;
      EXPECT_EQ(isTrusted(), row.counts) << row.name;
    }
  for (const char* none : {"", "\nfolder", "/nowhere"}) EXPECT_EQ(trust(none), 1208) << none;

  // A hundred of a file are taken, and a thousand in all.
  const TempFolder many;
  for (int i = 0; i < 11; ++i)
    many.File(std::to_string(i) + ".pem",
              Content(pki.Chain("many", std::vector<std::string>(150, "ca"))));
  EXPECT_EQ(trust(many.path), 0);
  EXPECT_TRUE(isTrusted());
}

TEST(Trust, IsHeldToTheProfileOfThePriority) {
  const Certificates pki;
  const TestRoot root;
  root.SetProp(".", "RootCertDir", pki.trusted);
  for (const Lines& chain : {Lines{"good"}, Lines{"good", "good"}}) {
    const int port = root.Serve("blkraw", pki.With(chain, {}), "");
    for (const auto& [priority, code] : {std::pair{"NORMAL", 0}, {"NORMAL:%PROFILE_FUTURE", 1202}})
      EXPECT_EQ(root.Code("AClt", OptionList(AtPort(port, "blkraw", "",
                                                    Pki::Anonymous({{"Priority", priority}})))),
                code);
  }
}

}  // namespace
}  // namespace support
