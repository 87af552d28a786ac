// sessioncache_test.cpp - what is kept, what goes, and that the bytes are the right ones.
#include "kyrno/tls/sessioncache.h"

#include <climits>

#include "tests/kyrno/tls/certtexts.h"

namespace {

class SessionCache : public ::testing::Test {
 protected:
  const GNUTLSHOLD loaded;

  static gnutls_datum_t Datum(std::string& text) {
    return {reinterpret_cast<unsigned char*>(text.data()), static_cast<unsigned int>(text.size())};
  }
  static int Store(SessionCache2* cache, std::string key, std::string data) {
    const int code = DBStoreFunc(cache, Datum(key), Datum(data));
    data.assign(data.size(), '-');  // what is kept is a copy
    return code;
  }
  static std::string Find(SessionCache2* cache, std::string key) {
    const gnutls_datum_t found = DBRetrieveFunc(cache, Datum(key));
    const std::string text(reinterpret_cast<PCH10>(found.data), found.size);
    QLN_gnutls_free(found.data);
    return text;
  }
  static int Remove(SessionCache2* cache, std::string key) {
    return DBRemoveFunc(cache, Datum(key));
  }
};

TEST_F(SessionCache, KeepsTheBytesOfEachKeyAndOverwritesTheOldestKeyWhenFull) {
  SessionCache2 cache(3);
  for (const char* const key : {"a", "b", "c"}) EXPECT_EQ(Store(&cache, key, key), 0);
  Store(&cache, "a", std::string("new\0bytes", 9));  // keeps its slot and its age
  EXPECT_EQ(Find(&cache, "a"), std::string("new\0bytes", 9));
  EXPECT_EQ(Find(&cache, "ab"), "");

  Store(&cache, "d", "d");
  EXPECT_EQ(Find(&cache, "a"), "");
  EXPECT_EQ(Find(&cache, "b") + Find(&cache, "c") + Find(&cache, "d"), "bcd");

  // A slot that was given up isn't used before its turn.
  EXPECT_EQ(Remove(&cache, "c"), 0);
  EXPECT_EQ(Remove(&cache, "c"), 0);
  Store(&cache, "e", "e");
  EXPECT_EQ(Find(&cache, "b") + Find(&cache, "c") + Find(&cache, "d") + Find(&cache, "e"), "de");
}

TEST_F(SessionCache, KeepsNothingWithoutAKeyARoomOrACache) {
  SessionCache2 one(1);
  Store(&one, "", "secret");  // an empty key would be that of every peer
  EXPECT_EQ(Find(&one, ""), "");
  for (const SI4 size : {0, -1, INT_MIN}) {
    SessionCache2 none(size);
    EXPECT_EQ(Store(&none, "a", "a"), 0);
    EXPECT_EQ(Find(&none, "a"), "") << size;
  }
  EXPECT_EQ(Store(nullptr, "a", "a"), GNUTLS_E_DB_ERROR);
  EXPECT_EQ(Remove(nullptr, "a"), GNUTLS_E_DB_ERROR);
  EXPECT_EQ(Find(nullptr, "a"), "");
  SessionCache2 largest(INT_MAX);
  Store(&largest, "a", "a");
  EXPECT_EQ(Find(&largest, "a"), "a");
}

}  // namespace
