// url_test.cpp - addresses as people write them, and those that would change a request.
#include "host/url.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using host::ParseUrl;
using host::Url;

TEST(Url, GivesHostPortTargetAndTheHostField) {
  constexpr struct {
    const char *text, *host, *port, *target, *authority;
    bool secure = false;
  } kCases[] = {
      {"http://localhost", "localhost", "80", "/", "localhost"},
      {"HTTP://a.b:8080/x/y?z=1#part", "a.b", "8080", "/x/y?z=1", "a.b:8080"},
      {"http://host?query", "host", "80", "/?query", "host"},
      {"http://[::1]:81/", "::1", "81", "/", "[::1]:81"},
      {"http://[fe80::1]", "fe80::1", "80", "/", "[fe80::1]"},
      {"http://h/a b%20c\r\nX: 1", "h", "80", "/a%20b%20c%0D%0AX:%201", "h"},
      {"http://h/\u03c0", "h", "80", "/%CF%80", "h"},
      {"https://h/x", "h", "443", "/x", "h", true},
      {"HTTPS://h:80", "h", "80", "/", "h:80", true},
      {"http://h:443", "h", "443", "/", "h:443"},
  };
  for (const auto& c : kCases) {
    const Url url = ParseUrl(c.text, "http");
    EXPECT_EQ(url.host, c.host) << c.text;
    EXPECT_EQ(url.port, c.port) << c.text;
    EXPECT_EQ(url.target, c.target) << c.text;
    EXPECT_EQ(url.Authority(), c.authority) << c.text;
    EXPECT_EQ(url.secure, c.secure) << c.text;
  }
}

TEST(Url, RefusesWhatIsNone) {
  for (const char* text : {"", "localhost", "wss://h/", "httpss://h/", "http:/h", "http://",
                           "http:///x", "http://:80/", "http://h:/", "http://h:0/",
                           "http://h:65536/", "http://h:8x/", "http://u@h/", "http://h\r\nX: 1/"})
    EXPECT_THROW(ParseUrl(text, "http"), std::invalid_argument) << text;
}

}  // namespace
