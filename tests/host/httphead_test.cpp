// httphead_test.cpp - fields as peers write them.
#include "host/httphead.h"

#include <gtest/gtest.h>

namespace {

using host::AcceptsGzip;
using host::HttpHead;

TEST(HttpHead, JoinsAFieldThatComesTwiceAndDisregardsCase) {
  const HttpHead head = HttpHead::Parse(
      "GET /a HTTP/1.1\r\nHOST:x\r\nConnection: keep-alive , Upgrade\r\nnothing\r\n"
      "connection:\tCLOSE \r\nContent-Length: 00\r\n\r\n");
  EXPECT_EQ(head.FirstLine(), "GET /a HTTP/1.1");
  EXPECT_EQ(head.Field("Host"), "x");
  EXPECT_EQ(head.Field("Connection"), "keep-alive , Upgrade, CLOSE");
  EXPECT_TRUE(head.Lists("Connection", "close"));
  EXPECT_FALSE(head.Lists("Connection", "keep"));
  EXPECT_FALSE(head.HasLength());
}

TEST(HttpHead, TakesGzipUnlessItsOwnItemOrTheOneForAllRefuses) {
  constexpr struct {
    const char* value;
    bool gzip;
  } kCases[] = {
      {"", false},
      {"identity", false},
      {"gzip", true},
      {"GZIP;q=1", true},
      {"deflate, gzip ;q=0.001", true},
      {"gzip;q=0", false},
      {"gzip; Q = 0.000", false},
      {"gzip;level=9;q=0", false},
      {"*", true},
      {"*;q=0", false},
      {"*;q=0, gzip", true},
      {"gzip;q=0, *", false},
      {"gzipped", false},
  };
  for (const auto& c : kCases) EXPECT_EQ(AcceptsGzip(c.value), c.gzip) << c.value;
}

}  // namespace
