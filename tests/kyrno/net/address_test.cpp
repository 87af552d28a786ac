// address_test.cpp - address texts.
#include "kyrno/net/address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <utility>

namespace {

TEST(Address, IPv6TextIsCanonical) {
  const std::pair<const char*, const char*> rows[] = {
      {"::", "::"},
      {"0:0:1:0:0:1:0:0", "::1:0:0:1:0:0"},
      {"1:0:0:2:0:0:0:3", "1:0:0:2::3"},
      {"1:0:2:3:4:5:6:7", "1:0:2:3:4:5:6:7"},
      {"FE80::00AB:CDEF", "fe80::ab:cdef"},
      {"::ffff:10.0.0.1", "::ffff:10.0.0.1"},
  };
  for (const auto& [in, out] : rows) {
    UI1 address[16];
    ASSERT_EQ(inet_pton(AF_INET6, in, address), 1);
    CH1 text[INET6_ADDRSTRLEN];
    inet_ntop6(address, text);
    EXPECT_STREQ(text, out);
  }
}

}  // namespace
