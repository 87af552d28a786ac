// rootcerts_test.cpp - what is read from files and folders, and what a peer's chain is worth.
#include "kyrno/tls/rootcerts.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/kyrno/tls/certtexts.h"

namespace {

namespace fs = std::filesystem;

/// A folder that goes with the test.
class RootCertsTest : public ::testing::Test {
 protected:
  ~RootCertsTest() override { fs::remove_all(folder); }

  std::string File(const std::string& name, const std::string& content) const {
    const std::string path = folder + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  static std::string Repeated(const std::string& text, int times) {
    std::string all;
    for (int i = 0; i < times; ++i) all += text;
    return all;
  }

  const GNUTLSHOLD loaded;
  char pattern[32] = "/tmp/kyrno_roots_XXXXXX";
  const std::string folder = mkdtemp(pattern);
};

TEST_F(RootCertsTest, ReadsTheFilesOfAFolderByTheirExtension) {
  File("upper.PEM", Pem(kAuthority) + Pem(kLeaf));
  File("mixed.Cer", Pem(kLeaf));
  File("bytes.der", Der(kExpired));
  File(".pem", Pem(kLeaf));
  for (const char* const other : {"further.pem.bak", "pem", "xpem", "text.txt", "near.pemx"})
    File(other, Pem(kLeaf));
  File("empty.pem", "");
  File("garbage.der", "\x30\x82\xff\xff garbage");
  fs::create_directory(folder + "/folder.pem");
  ASSERT_EQ(mkfifo((folder + "/fifo.pem").c_str(), 0600), 0);

  CertCollection certs;
  EXPECT_EQ(certs.LoadCertsFromDir(folder.c_str()), 5);
  EXPECT_EQ(certs.LoadCertsFromDir((folder + "/").c_str()), 10);
  for (const PCH10 none : {PCH10{nullptr}, "\nfolder", ""})
    EXPECT_EQ(CertCollection().LoadCertsFromDir(none), 0);
  EXPECT_EQ(CertCollection().LoadCertsFromDir((folder + "/nowhere").c_str()), 0);

  for (const char* const there : {kAuthority, kLeaf, kExpired})
    EXPECT_TRUE(certs.isPresent(CERT(there).Get()));
  EXPECT_FALSE(certs.isPresent(CERT(kMustStaple).Get()));  // of the same name and key
  EXPECT_FALSE(certs.isPresent(nullptr));
  certs.Empty();
  EXPECT_EQ(certs.CertCount(), 0);
  EXPECT_FALSE(certs.isPresent(CERT(kLeaf).Get()));
}

TEST_F(RootCertsTest, TakesAHundredOfAFileAndAThousandInAll) {
  const std::string path = File("many.pem", Repeated(Pem(kLeaf), 150));
  CertCollection certs;
  for (SI4 count = 100; count <= 1000; count += 100) {
    EXPECT_EQ(certs.LoadCertsFromFile(path.c_str()), 100);
    EXPECT_EQ(certs.CertCount(), count);
  }
  EXPECT_EQ(certs.LoadCertsFromFile(path.c_str()), 0);
  EXPECT_EQ(certs.CertCount(), 1000);
  EXPECT_EQ(CertCollection().LoadCertsFromFile("/nowhere"), 0);
  EXPECT_LT(CertCollection().LoadCertsFromFile(File("garbage.pem", "garbage").c_str()), 1);
}

// ---- handshakes in memory

/// A server that presents these certificates in DER, and a client that looks at them.
class PAIR {
 public:
  explicit PAIR(const std::vector<std::string>& chain, const char* priority) {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
    gnutls_certificate_allocate_credentials(&serverCred);
    gnutls_certificate_allocate_credentials(&clientCred);
    std::vector<gnutls_pcert_st> certs(chain.size());
    for (size_t i = 0; i < chain.size(); ++i) {
      const gnutls_datum_t der = Datum(chain[i]);
      EXPECT_EQ(gnutls_pcert_import_x509_raw(&certs[i], &der, GNUTLS_X509_FMT_DER, 0), 0);
    }
    gnutls_privkey_t key = nullptr;
    gnutls_privkey_init(&key);
    const std::string pem = Pem(kLeafKey, "EC PRIVATE KEY");
    const gnutls_datum_t text = Datum(pem);
    EXPECT_EQ(gnutls_privkey_import_x509_raw(key, &text, GNUTLS_X509_FMT_PEM, nullptr, 0), 0);
    EXPECT_EQ(gnutls_certificate_set_key(serverCred, nullptr, 0, certs.data(),
                                         static_cast<int>(certs.size()), key),
              0);
    Open(&server, GNUTLS_SERVER, fds[0], serverCred, priority);
    Open(&client, GNUTLS_CLIENT, fds[1], clientCred, priority);
  }
  ~PAIR() {
    gnutls_deinit(server);
    gnutls_deinit(client);
    gnutls_certificate_free_credentials(serverCred);
    gnutls_certificate_free_credentials(clientCred);
    close(fds[0]);
    close(fds[1]);
  }
  PAIR(const PAIR&) = delete;
  PAIR& operator=(const PAIR&) = delete;

  void Shake() {
    int results[2] = {GNUTLS_E_AGAIN, GNUTLS_E_AGAIN};
    gnutls_session_t const both[2] = {server, client};
    for (int turn = 0; turn < 200 && (results[0] || results[1]); ++turn)
      if (results[turn % 2]) results[turn % 2] = gnutls_handshake(both[turn % 2]);
    EXPECT_EQ(results[0], 0);
    EXPECT_EQ(results[1], 0);
  }
  UI4 StatusBy(RootCerts* roots) {
    UI4 status = 0;
    EXPECT_EQ(roots->Validate(client, clientCred, &status), 0);
    return status;
  }

  gnutls_session_t server = nullptr;
  gnutls_session_t client = nullptr;
  gnutls_certificate_credentials_t serverCred = nullptr;
  gnutls_certificate_credentials_t clientCred = nullptr;

 private:
  static void Open(gnutls_session_t* session, UI4 end, int fd,
                   gnutls_certificate_credentials_t cred, const char* priority) {
    EXPECT_EQ(gnutls_init(session, end | GNUTLS_NO_SIGNAL), 0);
    EXPECT_EQ(gnutls_priority_set_direct(*session, priority, nullptr), 0);
    gnutls_credentials_set(*session, GNUTLS_CRD_CERTIFICATE, cred);
    gnutls_transport_set_ptr(*session, reinterpret_cast<gnutls_transport_ptr_t>(intptr_t{fd}));
  }
  int fds[2] = {-1, -1};
};

/// The same certificate under a signature algorithm that nobody knows.
std::string Unreadable(std::string der) {
  const std::string known = "\x2a\x86\x48\xce\x3d\x04\x03\x02";
  for (size_t at = der.find(known); at != std::string::npos; at = der.find(known, at + 1))
    der[at + known.size() - 1] = '\x7f';
  return der;
}

/// The same certificate with another signature.
std::string Forged(std::string der) {
  der.back() = static_cast<char>(der.back() ^ 1);
  return der;
}

TEST_F(RootCertsTest, JudgesTheChainThatAPeerPresents) {
  const std::string leaf = Der(kLeaf);
  const std::string expired = Der(kExpired);
  constexpr UI4 invalid = GNUTLS_CERT_INVALID;
  const struct {
    PCH10 what;
    std::vector<std::string> chain;
    UI4 status;
  } rows[] = {
      {"a leaf", {leaf}, 0},
      {"a leaf sent twice", {leaf, leaf, Der(kAuthority)}, 0},
      {"expired", {expired}, invalid | GNUTLS_CERT_EXPIRED},
      {"forged", {Forged(leaf)}, invalid | GNUTLS_CERT_SIGNATURE_FAILURE},
      {"unknown algorithm", {Unreadable(leaf)}, invalid},
      // To tolerate the date must not mean to tolerate the signature.
      {"expired, unknown algorithm",
       {Unreadable(expired)},
       invalid | GNUTLS_CERT_EXPIRED | GNUTLS_CERT_SIGNATURE_FAILURE},
      {"without the stapled answer that it demands",
       {Der(kMustStaple)},
       invalid | GNUTLS_CERT_MISSING_OCSP_STATUS},
  };
  File("ca.pem", Pem(kAuthority));
  RootCerts own;
  RootCerts system;
  ASSERT_EQ(own.LoadRootsFrom(folder.c_str()), 1);
  for (const auto& row : rows) {
    for (const char* const priority :
         {"NORMAL:-VERS-ALL:+VERS-TLS1.2", "NORMAL:-VERS-ALL:+VERS-TLS1.3"}) {
      SCOPED_TRACE(std::string(row.what) + ", " + priority);
      PAIR pair(row.chain, priority);
      pair.Shake();
      EXPECT_EQ(pair.StatusBy(&own), row.status);
      EXPECT_TRUE(pair.StatusBy(&system) & GNUTLS_CERT_SIGNER_NOT_FOUND);
      // The peer without a certificate is the other one.
      UI4 status = 0;
      EXPECT_EQ(own.Validate(pair.server, pair.serverCred, &status), 0);
      EXPECT_EQ(status, invalid | GNUTLS_CERT_SIGNER_NOT_FOUND);
    }
  }
}

TEST_F(RootCertsTest, HoldsThePeerToTheProfileOfThePriority) {
  File("ca.pem", Pem(kAuthority));
  RootCerts own;
  ASSERT_EQ(own.LoadRootsFrom(folder.c_str()), 1);
  for (const size_t times : {1u, 2u}) {
    PAIR pair(std::vector<std::string>(times, Der(kLeaf)), "NORMAL:%PROFILE_FUTURE");
    pair.Shake();
    EXPECT_EQ(pair.StatusBy(&own), GNUTLS_CERT_INVALID | GNUTLS_CERT_INSECURE_ALGORITHM);
  }
}

}  // namespace
