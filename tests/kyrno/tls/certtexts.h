// certtexts.h - certificates for unit tests, in base64: they are the same each time, and so are the
// days on which they hold. All keys are made for this file alone.
#pragma once

#include <gnutls/x509.h>
#include <gtest/gtest.h>

#include <string>

#include "kyrno/base/kyrnossl.h"
#include "kyrno/tls/sslcontrol.h"

// "Test CA", from 2020 to 2100; the others are issued by it to one key, as localhost, 127.0.0.1.
inline constexpr char kAuthority[] =
    "MIIBRTCB7aADAgECAgEBMAoGCCqGSM49BAMCMBIxEDAOBgNVBAMMB1Rlc3QgQ0EwIBcNMjAwMTAxMDAwMDAwWhgPMj"
    "EwMDAxMDEwMDAwMDBaMBIxEDAOBgNVBAMMB1Rlc3QgQ0EwWTATBgcqhkjOPQIBBggqhkjOPQMBBwNCAARCw5he0FzM"
    "RR30Y6Td08o3ZOHozE3vhP7cV2c6rzgAqmLtARxQULgNa1wEljjxV4q4Ei3qy6+wcb63LhtdG9ngozIwMDAdBgNVHQ"
    "4EFgQUv8Mb30IeSehSEA4Q/LWDOWFRLg4wDwYDVR0TAQH/BAUwAwEB/zAKBggqhkjOPQQDAgNHADBEAiAyQLqgQC+P"
    "orBgwwfhcfzO569fpZ3bEjWGT8/OmbbRiAIgcpad0X3yc7Rni6HRQTRMuirVJsBt550MHlTtHB07log=";
inline constexpr char kLeaf[] =
    "MIIBUjCB+qADAgECAgECMAoGCCqGSM49BAMCMBIxEDAOBgNVBAMMB1Rlc3QgQ0EwIBcNMjAwMTAxMDAwMDAwWhgPMj"
    "EwMDAxMDEwMDAwMDBaMBQxEjAQBgNVBAMMCWxvY2FsaG9zdDBZMBMGByqGSM49AgEGCCqGSM49AwEHA0IABBLvY3gX"
    "ht3gXSSa6TpAp1r112gRkVtORxkFihkz4mATgdwKQeJsX11R+qmKIMB1hCFu8wYe0Dhxz7xyTRn8b5+jPTA7MB0GA1"
    "UdDgQWBBRSCDvvykh4WYja+Nfik13ALcE4SDAaBgNVHREEEzARgglsb2NhbGhvc3SHBH8AAAEwCgYIKoZIzj0EAwID"
    "RwAwRAIgXzokbjwuA5kKk+N6lfiM54Y4WUFCOSSDB6liBxFywQsCIGoQrbKDdF1Lr2BSZDbq5h9suzKKTtw599gvJ5"
    "fFWKz9";
inline constexpr char kExpired[] =
    "MIIBUDCB+KADAgECAgEDMAoGCCqGSM49BAMCMBIxEDAOBgNVBAMMB1Rlc3QgQ0EwHhcNMjAwMTAxMDAwMDAwWhcNMj"
    "EwMTAxMDAwMDAwWjAUMRIwEAYDVQQDDAlsb2NhbGhvc3QwWTATBgcqhkjOPQIBBggqhkjOPQMBBwNCAAQS72N4F4bd"
    "4F0kmuk6QKda9ddoEZFbTkcZBYoZM+JgE4HcCkHibF9dUfqpiiDAdYQhbvMGHtA4cc+8ck0Z/G+foz0wOzAdBgNVHQ"
    "4EFgQUUgg778pIeFmI2vjX4pNdwC3BOEgwGgYDVR0RBBMwEYIJbG9jYWxob3N0hwR/AAABMAoGCCqGSM49BAMCA0cA"
    "MEQCIDBE+5H+obvU7lOPuJmC7/x/V5W348EMcC21kf4w8YZ8AiBfg5/sMScIVYEOT9UVflYjns473+tJYfh/jihEFk"
    "22LA==";
inline constexpr char kMustStaple[] =
    "MIIBZjCCAQ2gAwIBAgIBBDAKBggqhkjOPQQDAjASMRAwDgYDVQQDDAdUZXN0IENBMCAXDTIwMDEwMTAwMDAwMFoYDz"
    "IxMDAwMTAxMDAwMDAwWjAUMRIwEAYDVQQDDAlsb2NhbGhvc3QwWTATBgcqhkjOPQIBBggqhkjOPQMBBwNCAAQS72N4"
    "F4bd4F0kmuk6QKda9ddoEZFbTkcZBYoZM+JgE4HcCkHibF9dUfqpiiDAdYQhbvMGHtA4cc+8ck0Z/G+fo1AwTjAdBg"
    "NVHQ4EFgQUUgg778pIeFmI2vjX4pNdwC3BOEgwGgYDVR0RBBMwEYIJbG9jYWxob3N0hwR/AAABMBEGCCsGAQUFBwEY"
    "BAUwAwIBBTAKBggqhkjOPQQDAgNHADBEAiB+DOFdfffBZ2bzjgwD73ZRys9vqfatKF3kOjFY4kmZ8QIgE9bkkvb6uH"
    "rJ0miOM8eNnKt8pGGaqWPDFPsv7cL6mPM=";
inline constexpr char kLeafKey[] =
    "MHcCAQEEICd8o3Z6CZqeMC3hh34Qsque+BnTqUJQv4y6Peo059XwoAoGCCqGSM49AwEHoUQDQgAEEu9jeBeG3eBdJJ"
    "rpOkCnWvXXaBGRW05HGQWKGTPiYBOB3ApB4mxfXVH6qYogwHWEIW7zBh7QOHHPvHJNGfxvnw==";

inline constexpr UI4 kBegin2020 = 1577836800;
inline constexpr UI4 kBegin2100 = 4102444800;

/// The support library, for as long as it lives.
class GNUTLSHOLD {
 public:
  GNUTLSHOLD() { EXPECT_EQ(LoadKyrnossl(), 0); }
  ~GNUTLSHOLD() {
    SslUnload();
    UnloadKyrnossl();
  }
  GNUTLSHOLD(const GNUTLSHOLD&) = delete;
  GNUTLSHOLD& operator=(const GNUTLSHOLD&) = delete;
};

inline std::string Pem(const std::string& base64, const std::string& what = "CERTIFICATE") {
  return "-----BEGIN " + what + "-----\n" + base64 + "\n-----END " + what + "-----\n";
}

inline gnutls_datum_t Datum(const std::string& text) {
  return {reinterpret_cast<unsigned char*>(const_cast<PCH1>(text.data())),
          static_cast<unsigned int>(text.size())};
}

/// The bytes; GnuTLS must be loaded.
inline std::string Der(const std::string& base64) {
  std::string der(base64.size(), 0);
  size_t size = der.size();
  const std::string pem = Pem(base64);
  const gnutls_datum_t datum = Datum(pem);
  gnutls_pem_base64_decode("CERTIFICATE", &datum, reinterpret_cast<unsigned char*>(der.data()),
                           &size);
  der.resize(size);
  return der;
}

/// An X.509 certificate of its own.
class CERT {
 public:
  explicit CERT(const std::string& base64) {
    const std::string der = Der(base64);
    const gnutls_datum_t datum = Datum(der);
    gnutls_x509_crt_init(&crt);
    gnutls_x509_crt_import(crt, &datum, GNUTLS_X509_FMT_DER);
  }
  ~CERT() { gnutls_x509_crt_deinit(crt); }
  CERT(const CERT&) = delete;
  CERT& operator=(const CERT&) = delete;
  gnutls_x509_crt_t Get() const { return crt; }

 private:
  gnutls_x509_crt_t crt = nullptr;
};
