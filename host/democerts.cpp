// democerts.cpp - the certificates of the demo, made when it begins.
#include "host/democerts.h"

#include <gnutls/crypto.h>
#include <gnutls/x509.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>

namespace host {

namespace {

constexpr time_t kClockSkew = 3600;
constexpr time_t kLifetime = 24 * 3600;
constexpr unsigned char kLoopbackAddress[] = {127, 0, 0, 1};

void Must(int result) {
  if (result < 0)
    throw std::runtime_error(std::string("no certificate: ") + gnutls_strerror(result));
}

struct Deinit {
  void operator()(gnutls_x509_privkey_t key) const { gnutls_x509_privkey_deinit(key); }
  void operator()(gnutls_x509_crt_t crt) const { gnutls_x509_crt_deinit(crt); }
};
using Key = std::unique_ptr<std::remove_pointer_t<gnutls_x509_privkey_t>, Deinit>;
using Crt = std::unique_ptr<std::remove_pointer_t<gnutls_x509_crt_t>, Deinit>;

struct Pair {
  Key key;
  Crt crt;
};

Key NewKey() {
  gnutls_x509_privkey_t raw = nullptr;
  Must(gnutls_x509_privkey_init(&raw));
  Key key(raw);
  Must(gnutls_x509_privkey_generate(raw, GNUTLS_PK_ECDSA,
                                    GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1), 0));
  return key;
}

/// A certificate with all that every kind of them has, not signed yet.
Pair Begin(const std::string& name) {
  Pair made{NewKey(), nullptr};
  gnutls_x509_crt_t crt = nullptr;
  Must(gnutls_x509_crt_init(&crt));
  made.crt.reset(crt);
  unsigned char serial[16];
  Must(gnutls_rnd(GNUTLS_RND_NONCE, serial, sizeof serial));
  serial[0] &= 0x7F;  // a serial number is above 0
  const time_t now = time(nullptr);
  Must(gnutls_x509_crt_set_version(crt, 3));
  Must(gnutls_x509_crt_set_serial(crt, serial, sizeof serial));
  Must(gnutls_x509_crt_set_activation_time(crt, now - kClockSkew));
  Must(gnutls_x509_crt_set_expiration_time(crt, now + kLifetime));
  Must(gnutls_x509_crt_set_dn(crt, ("CN=" + name).c_str(), nullptr));
  Must(gnutls_x509_crt_set_key(crt, made.key.get()));
  return made;
}

void Sign(const Pair& made, const Pair& issuer) {
  Must(gnutls_x509_crt_sign2(made.crt.get(), issuer.crt.get(), issuer.key.get(), GNUTLS_DIG_SHA256,
                             0));
}

Pair MakeCa() {
  Pair ca = Begin("authority of the demo");
  Must(gnutls_x509_crt_set_basic_constraints(ca.crt.get(), 1, 0));
  Must(gnutls_x509_crt_set_key_usage(ca.crt.get(), GNUTLS_KEY_KEY_CERT_SIGN));
  Sign(ca, ca);
  return ca;
}

Pair MakeEnd(const std::string& name, const char* purpose, const Pair& ca) {
  Pair made = Begin(name);
  gnutls_x509_crt_t crt = made.crt.get();
  Must(gnutls_x509_crt_set_key_usage(crt, GNUTLS_KEY_DIGITAL_SIGNATURE));
  Must(gnutls_x509_crt_set_key_purpose_oid(crt, purpose, 0));
  Must(gnutls_x509_crt_set_subject_alt_name(crt, GNUTLS_SAN_DNSNAME, "localhost",
                                            std::strlen("localhost"), GNUTLS_FSAN_SET));
  Must(gnutls_x509_crt_set_subject_alt_name(crt, GNUTLS_SAN_IPADDRESS, kLoopbackAddress,
                                            sizeof kLoopbackAddress, GNUTLS_FSAN_APPEND));
  Sign(made, ca);
  return made;
}

/// Takes over what GnuTLS has made, and writes it.
void Write(const std::string& path, gnutls_datum_t pem) {
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(pem.data), pem.size);
  file.close();
  gnutls_free(pem.data);
  if (!file) throw std::runtime_error(path + ": " + std::strerror(errno));
}

void WriteCert(const std::string& path, const Pair& made) {
  gnutls_datum_t pem{};
  Must(gnutls_x509_crt_export2(made.crt.get(), GNUTLS_X509_FMT_PEM, &pem));
  Write(path, pem);
}

void WritePair(const std::string& folder, const std::string& name, const Pair& made) {
  WriteCert(folder + "/" + name + ".pem", made);
  gnutls_datum_t pem{};
  Must(gnutls_x509_privkey_export2(made.key.get(), GNUTLS_X509_FMT_PEM, &pem));
  Write(folder + "/" + name + ".key", pem);
}

std::string TrustFolder(const std::string& folder) { return folder + "/trust"; }

/// Only its owner may look into it.
std::string MakeFolder() {
  std::string path = std::filesystem::temp_directory_path() / "kyrno-demo-XXXXXX";
  if (!mkdtemp(path.data())) throw std::runtime_error(path + ": " + std::strerror(errno));
  return path;
}

void Fill(const std::string& folder) {
  std::filesystem::create_directory(TrustFolder(folder));
  const Pair ca = MakeCa();
  WriteCert(TrustFolder(folder) + "/ca.pem", ca);
  WritePair(folder, kDemoServer, MakeEnd(kDemoServer, GNUTLS_KP_TLS_WWW_SERVER, ca));
  WritePair(folder, kDemoClient, MakeEnd(kDemoClient, GNUTLS_KP_TLS_WWW_CLIENT, ca));
}

}  // namespace

// Behind the other constructor the object stands, so that its folder goes whatever fails.
DemoCerts::DemoCerts() : DemoCerts(MakeFolder()) { Fill(folder); }

DemoCerts::DemoCerts(std::string path) : folder(std::move(path)) {}

DemoCerts::~DemoCerts() {
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
}

Tls DemoTls(const std::string& folder, const std::string& name) {
  Tls tls;
  tls.cert = folder + "/" + name + ".pem";
  tls.key = folder + "/" + name + ".key";
  tls.caDir = TrustFolder(folder);
  tls.priority = "NORMAL:-VERS-ALL:+VERS-TLS1.3";
  if (name == kDemoServer) tls.clientCert = "require";
  return tls;
}

}  // namespace host
