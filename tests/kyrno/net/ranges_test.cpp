// ranges_test.cpp - address filters.
#include "kyrno/net/ranges.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "kyrno/base/error.h"

namespace {

SI4 Judge(const RANGES& ranges, const char* text) {
  QLNSOCKADDR addr{};
  auto* in = reinterpret_cast<sockaddr_in*>(&addr);
  auto* in6 = reinterpret_cast<sockaddr_in6*>(&addr);
  if (inet_pton(AF_INET, text, &in->sin_addr) == 1) addr.ss_family = AF_INET;
  if (inet_pton(AF_INET6, text, &in6->sin6_addr) == 1) addr.ss_family = AF_INET6;
  return ranges.IsValid(&addr);
}

TEST(Ranges, AnAddressIsJudgedByThePrefixesOfItsFamily) {
  RANGES ranges;
  ASSERT_EQ(ranges.SetAddr4("10.1.2.128/25,192.168.0.0/16,172.16.5.4,"), 0);
  ASSERT_EQ(ranges.SetAddr6("fe80::/10,2001:db8::5"), 0);
  for (const char* in :
       {"10.1.2.128", "172.16.5.4", "::ffff:10.1.2.200", "febf::1", "2001:db8::5"}) {
    EXPECT_EQ(Judge(ranges, in), 1) << in;
  }
  for (const char* out : {"10.1.2.127", "172.16.5.5", "::ffff:10.1.2.1", "fec0::1", "2001:db8::4",
                          "of another family"}) {
    EXPECT_EQ(Judge(ranges, out), 0) << out;
  }
}

TEST(Ranges, ATextThatDoesNotParseLeavesNoFilter) {
  for (const char* text : {"10.0.0.0/33", "10.0.0.0/99999999999999999999", ",", "10.0.0.0/ 8",
                           "10.0.0.0/8,bad", "1.2.3.4,,1.2.3.4"}) {
    RANGES ranges;
    ASSERT_EQ(ranges.SetAddr4("127.0.0.1"), 0);
    EXPECT_EQ(ranges.SetAddr4(text), ERR_INVALID_ADDR) << text;
    EXPECT_EQ(Judge(ranges, "99.9.9.9"), 1) << text;
  }
}

}  // namespace
