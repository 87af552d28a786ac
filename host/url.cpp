// url.cpp - the addresses that "get" and "ws" take.
#include "host/url.h"

#include <strings.h>

#include <charconv>
#include <stdexcept>

namespace host {

namespace {

const char* DefaultPort(bool secure) { return secure ? "443" : "80"; }

/// What stands in a URL as it is, and what has been encoded already.
constexpr char kUrlPlain[] = "-._~:/?[]@!$&'()*+,;=%";

bool IsPort(const std::string& text) {
  unsigned port = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, failed] = std::from_chars(text.data(), end, port);
  return failed == std::errc() && rest == end && port > 0 && port <= 0xFFFF;
}

bool IsAlphanumeric(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

}  // namespace

std::string PercentEncode(const std::string& text, const std::string& plain) {
  constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (const char c : text) {
    if (IsAlphanumeric(c) || plain.find(c) != std::string::npos) {
      out += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    out += {'%', kHex[byte >> 4], kHex[byte & 0xF]};
  }
  return out;
}

std::string Url::Authority() const {
  const std::string name = host.find(':') == std::string::npos ? host : "[" + host + "]";
  return port == DefaultPort(secure) ? name : name + ":" + port;
}

Url ParseUrl(const std::string& text, const std::string& scheme) {
  const std::invalid_argument wrong("\"" + text + "\": give " + scheme +
                                    "[s]://HOST[:PORT][/PATH]");
  const auto begins = [&](const std::string& prefix) {
    return strncasecmp(text.c_str(), prefix.c_str(), prefix.size()) == 0;
  };
  const bool secure = begins(scheme + "s://");
  if (!secure && !begins(scheme + "://")) throw wrong;

  const std::size_t begin = text.find("://") + 3;
  const std::string rest = text.substr(begin, text.find('#') - begin);
  const std::size_t slash = rest.find_first_of("/?");
  std::string authority = rest.substr(0, slash);
  Url url{"", DefaultPort(secure), slash == std::string::npos ? "" : rest.substr(slash), secure};

  // The colon of a port stands behind the bracket of an IPv6 address.
  const std::size_t bracket = authority.rfind(']');
  const std::size_t colon = authority.find(':', bracket == std::string::npos ? 0 : bracket);
  if (colon != std::string::npos) {
    url.port = authority.substr(colon + 1);
    authority.resize(colon);
    if (!IsPort(url.port)) throw wrong;
  }
  if (authority.size() > 2 && authority.front() == '[' && authority.back() == ']')
    authority = authority.substr(1, authority.size() - 2);
  if (authority.empty() || PercentEncode(authority, "-._~:%") != authority) throw wrong;
  url.host = authority;

  url.target = PercentEncode(url.target, kUrlPlain);
  if (!url.target.starts_with('/')) url.target.insert(url.target.begin(), '/');
  return url;
}

}  // namespace host
