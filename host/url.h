// url.h - the addresses that "get" and "ws" take.
#pragma once

#include <string>

namespace host {

struct Url {
  std::string host;    ///< without the brackets of an IPv6 address
  std::string port;    ///< 80 where the address names none, or 443
  std::string target;  ///< path and query, begins with a slash
  bool secure = false;

  /// What the Host field says.
  std::string Authority() const;
};

/// SCHEME://HOST[:PORT][/PATH][?QUERY], or the scheme's secure form with an s. A fragment is
/// dropped. Bytes that may not stand in a request line are percent-encoded. Throws
/// std::invalid_argument with what is wanted.
Url ParseUrl(const std::string& text, const std::string& scheme);

/// Every byte but letters, digits and those in `plain` as %XX.
std::string PercentEncode(const std::string& text, const std::string& plain);

}  // namespace host
