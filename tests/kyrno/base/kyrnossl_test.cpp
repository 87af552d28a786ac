// kyrnossl_test.cpp - the binding to the support library, which lies beside this program or where
// KYRNOSSL_LIBRARY says.

#include "kyrno/base/kyrnossl.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "kyrno/tls/sslcontrol.h"

namespace {

/// Unloads on every way out, and gives the environment its variable back.
class Kyrnossl : public ::testing::Test {
 protected:
  Kyrnossl() {
    if (const PCH10 value = getenv("KYRNOSSL_LIBRARY")) before = value;
    SslUnload();
    UnloadKyrnossl();
  }
  ~Kyrnossl() override {
    SslUnload();
    UnloadKyrnossl();
    before ? setenv("KYRNOSSL_LIBRARY", before->c_str(), 1) : unsetenv("KYRNOSSL_LIBRARY");
  }

  std::optional<std::string> before;
};

TEST_F(Kyrnossl, ResolvesEveryNameOfTheList) {
  ASSERT_EQ(LoadKyrnossl(), 0);
#define RESOLVED(result, name, parameters, arguments) \
  EXPECT_TRUE(SslHas(kyrnossl.i##name)) << #name;
  DYNAMIC_FUNCTION(RESOLVED)
  DYNAMIC_VARIABLE(RESOLVED)
#undef RESOLVED
}

TEST_F(Kyrnossl, FailsWithoutTheEntriesAndNeverCrashes) {
  // A file that doesn't exist, one that isn't a library, one that lacks the version.
  for (const PCH10 name : {"/nowhere/lib.so", "/dev/null", "libz.so.1"}) {
    setenv("KYRNOSSL_LIBRARY", name, 1);
    EXPECT_EQ(LoadKyrnossl(), 1) << name;
  }

  gnutls_session_t session = nullptr;
  EXPECT_LT(gnutls_init(&session, GNUTLS_CLIENT), 0);
  EXPECT_NE(deflate(nullptr, Z_FINISH), Z_OK);
  EXPECT_EQ(gnutls_x509_crt_check_hostname(nullptr, ""), 0u);
  EXPECT_EQ(QLN_gnutls_malloc(8), nullptr);
  QLN_gnutls_free(nullptr);
  gnutls_deinit(session);
}

}  // namespace
