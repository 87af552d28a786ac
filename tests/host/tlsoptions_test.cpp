// tlsoptions_test.cpp - the flags of the command line as options, and a refusal in words.
#include "host/tlsoptions.h"

#include <gnutls/x509.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using host::CheckTls;
using host::Tls;

/// Each option as NAME=VALUE or NAME=KIND:FILE.
std::string Written(const Tls& tls, bool server) {
  std::string text;
  for (const auto& [name, value] : host::TlsOptions(tls, server)) {
    text += (text.empty() ? "" : " ") + name + "=";
    if (value.IsNested())
      text += value.At(0).Text() + ":" + value.At(1).Text();
    else
      text += value.Rank() == 0 ? std::to_string(value.Integer()) : value.Text();
  }
  return text;
}

TEST(TlsOptions, SayWhatTheFlagsSay) {
  constexpr char kAnonymous[] = "PublicCertFile=DER:";
  const struct {
    Tls tls;
    bool server;
    const char* options;
  } kCases[] = {
      {{}, false, ""},
      {{.asked = true}, false, kAnonymous},
      {{.caDir = "trust"}, false, kAnonymous},
      {{.priority = "NORMAL"}, false, "PublicCertFile=DER: Priority=NORMAL"},
      {{.verify = 0}, false, kAnonymous},
      {{.cert = "c", .key = "k", .password = "p", .verify = 9},
       false,
       "PublicCertFile=DER:c PrivateKeyFile=DER:k PrivateKeyPass=p SSLValidation=9"},
      {{.p12 = "f", .password = "p"}, false, "PrivateKeyFile=PK#12:f PrivateKeyPass=p"},
      {{.cert = "c", .clientCert = "require"},
       true,
       "PublicCertFile=DER:c PrivateKeyFile=DER:c SSLValidation=128"},
      {{.p12 = "f", .verify = 1, .clientCert = "request"},
       true,
       "PrivateKeyFile=PK#12:f SSLValidation=65"},
      // Who minds nobody asks nobody, also from the third connection on.
      {{.p12 = "f"}, true, "PrivateKeyFile=PK#12:f SSLValidation=256"},
  };
  for (const auto& c : kCases) EXPECT_EQ(Written(c.tls, c.server), c.options);
}

TEST(TlsOptions, AreRefusedWhereTheyContradict) {
  EXPECT_THROW(CheckTls({.asked = true}, true), std::invalid_argument);
  EXPECT_THROW(CheckTls({.key = "k"}, false), std::invalid_argument);
  EXPECT_THROW(CheckTls({.cert = "c", .p12 = "f"}, false), std::invalid_argument);
  EXPECT_NO_THROW(CheckTls({}, true));
  EXPECT_NO_THROW(CheckTls({.cert = "c"}, true));
}

TEST(TlsOptions, TakeFlagsAsANumberOrAsWords) {
  EXPECT_EQ(host::ParseVerify("0"), 0);
  EXPECT_EQ(host::ParseVerify("511"), 511);
  EXPECT_EQ(host::ParseVerify("expired"), 8);
  EXPECT_EQ(host::ParseVerify("unknown-issuer+wrong-name"), 17);
  for (const char* text : {"", "512", "-1", "8x", "expired+", "+expired", "Expired", "1+8"})
    EXPECT_THROW(host::ParseVerify(text), std::invalid_argument) << text;
}

TEST(WhyRefused, NamesOnlyWhatTheFlagsDontLetPass) {
  constexpr unsigned kBad = GNUTLS_CERT_INVALID;
  const struct {
    unsigned status;
    int verify;
    const char* reason;
  } kCases[] = {
      {kBad | GNUTLS_CERT_SIGNER_NOT_FOUND, 0, "its issuer is not trusted"},
      {kBad | GNUTLS_CERT_SIGNER_NOT_FOUND | GNUTLS_CERT_EXPIRED, 1, "it has expired"},
      {kBad | GNUTLS_CERT_REVOKED | GNUTLS_CERT_EXPIRED, 0, "it has expired, it has been revoked"},
      {kBad | GNUTLS_CERT_SIGNER_NOT_FOUND, 1,
       "it is for another name or address, or another time"},
      {kBad, 1, "its signature cannot be checked"},
      {0, 0, "it is for another name or address"},
      {kBad | 1u << 30, 31, "its status is 1073741826"},
  };
  for (const auto& c : kCases) EXPECT_EQ(host::WhyRefused(c.status, c.verify), c.reason);
}

}  // namespace
