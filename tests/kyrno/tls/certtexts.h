// certtexts.h - a certificate for unit tests, in base64: it is the same each time. Its key is made
// for this file alone.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "kyrno/base/kyrnossl.h"
#include "kyrno/tls/sslcontrol.h"

// "localhost", 127.0.0.1, from 2020 to 2100, and its key.
inline constexpr char kLeaf[] =
    "MIIBUjCB+qADAgECAgECMAoGCCqGSM49BAMCMBIxEDAOBgNVBAMMB1Rlc3QgQ0EwIBcNMjAwMTAxMDAwMDAwWhgPMj"
    "EwMDAxMDEwMDAwMDBaMBQxEjAQBgNVBAMMCWxvY2FsaG9zdDBZMBMGByqGSM49AgEGCCqGSM49AwEHA0IABBLvY3gX"
    "ht3gXSSa6TpAp1r112gRkVtORxkFihkz4mATgdwKQeJsX11R+qmKIMB1hCFu8wYe0Dhxz7xyTRn8b5+jPTA7MB0GA1"
    "UdDgQWBBRSCDvvykh4WYja+Nfik13ALcE4SDAaBgNVHREEEzARgglsb2NhbGhvc3SHBH8AAAEwCgYIKoZIzj0EAwID"
    "RwAwRAIgXzokbjwuA5kKk+N6lfiM54Y4WUFCOSSDB6liBxFywQsCIGoQrbKDdF1Lr2BSZDbq5h9suzKKTtw599gvJ5"
    "fFWKz9";
inline constexpr char kLeafKey[] =
    "MHcCAQEEICd8o3Z6CZqeMC3hh34Qsque+BnTqUJQv4y6Peo059XwoAoGCCqGSM49AwEHoUQDQgAEEu9jeBeG3eBdJJ"
    "rpOkCnWvXXaBGRW05HGQWKGTPiYBOB3ApB4mxfXVH6qYogwHWEIW7zBh7QOHHPvHJNGfxvnw==";

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
