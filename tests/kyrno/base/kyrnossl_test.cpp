// kyrnossl_test.cpp - the binding to the support library, which lies beside this program or where
// KYRNOSSL_LIBRARY says.

#include "kyrno/base/kyrnossl.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

namespace {

/// Unloads on every way out, and gives the environment its variable back.
class Kyrnossl : public ::testing::Test {
 protected:
  Kyrnossl() {
    if (const PCH10 value = getenv("KYRNOSSL_LIBRARY")) before = value;
    UnloadKyrnossl();
  }
  ~Kyrnossl() override {
    UnloadKyrnossl();
    before ? setenv("KYRNOSSL_LIBRARY", before->c_str(), 1) : unsetenv("KYRNOSSL_LIBRARY");
  }

  std::optional<std::string> before;
};

TEST_F(Kyrnossl, ResolvesEveryNameOfTheList) {
  ASSERT_EQ(LoadKyrnossl(), 0);
  EXPECT_EQ(LoadKyrnossl(), 0);
  EXPECT_TRUE(KyrnosslLoaded());

  int entries = 0;
#define RESOLVED(result, name, parameters, arguments) \
  EXPECT_TRUE(SslHas(kyrnossl.i##name)) << #name;     \
  EXPECT_TRUE(IsFnLoaded(#name)) << #name;            \
  ++entries;
  DYNAMIC_FUNCTION(RESOLVED)
  DYNAMIC_VARIABLE(RESOLVED)
#undef RESOLVED
  EXPECT_EQ(entries, 152);
  EXPECT_FALSE(IsFnLoaded("kyrno_no_such_name"));
}

TEST_F(Kyrnossl, ForwardsToTheLibraries) {
  ASSERT_EQ(LoadKyrnossl(), 0);

  CH1 version[1024] = {};
  EXPECT_GT(kyrnosslversion(version, sizeof version), 0);
  for (const PCH10 name : {"GnuTLS ", "zlib ", "libtasn1 "}) EXPECT_TRUE(strstr(version, name));
  CH1 cut[] = "########";
  EXPECT_EQ(kyrnosslversion(cut, 4), 3);
  EXPECT_EQ(std::string(cut, 8), std::string("Gnu\0####", 8));

  const Bytef text[] = "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";
  Bytef packed[100], unpacked[sizeof text];
  uLongf packedLen = sizeof packed, unpackedLen = sizeof unpacked;
  EXPECT_EQ(compress(packed, &packedLen, text, sizeof text), Z_OK);
  EXPECT_EQ(uncompress(unpacked, &unpackedLen, packed, packedLen), Z_OK);
  EXPECT_EQ(memcmp(unpacked, text, sizeof text), 0);

  CH1 data[] = "data";
  gnutls_datum_t plain = {reinterpret_cast<UI1*>(data), 4}, coded = {}, decoded = {};
  EXPECT_EQ(gnutls_srp_base64_encode_alloc(&plain, &coded), 0);
  EXPECT_EQ(gnutls_srp_base64_decode_alloc(&coded, &decoded), 0);
  EXPECT_EQ(std::string(reinterpret_cast<CH1*>(decoded.data), decoded.size), "data");
  QLN_gnutls_free(coded.data);
  QLN_gnutls_free(decoded.data);

  void* const block = QLN_gnutls_realloc(QLN_gnutls_calloc(1, 8), 16);
  EXPECT_NE(block, nullptr);
  QLN_gnutls_free(block);
}

TEST_F(Kyrnossl, FailsWithoutTheEntriesAndNeverCrashes) {
  // A file that doesn't exist, one that isn't a library, one that lacks the version.
  for (const PCH10 name : {"/nowhere/lib.so", "/dev/null", "libz.so.1"}) {
    setenv("KYRNOSSL_LIBRARY", name, 1);
    EXPECT_EQ(LoadKyrnossl(), 1) << name;
    EXPECT_FALSE(KyrnosslLoaded());
    EXPECT_FALSE(IsFnLoaded("deflate"));
  }

  gnutls_session_t session = nullptr;
  EXPECT_LT(gnutls_init(&session, GNUTLS_CLIENT), 0);
  EXPECT_LT(gnutls_record_recv(session, nullptr, 0), 0);
  EXPECT_NE(deflate(nullptr, Z_FINISH), Z_OK);
  EXPECT_EQ(gnutls_x509_crt_check_hostname(nullptr, ""), 0u);
  EXPECT_EQ(gnutls_check_version(nullptr), nullptr);
  EXPECT_EQ(QLN_gnutls_malloc(8), nullptr);
  QLN_gnutls_free(nullptr);
  gnutls_deinit(session);
}

}  // namespace
