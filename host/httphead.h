// httphead.h - the header block of an HTTP message, as the host reads it.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/zvalue.h"

namespace host {

/// Names and values, in their order.
using HttpFields = std::vector<std::pair<std::string, std::string>>;

struct HttpHead {
  /// The words of the first line: method, target, version, or version, status, reason.
  std::string first, second, third;
  /// Names as they came, values without the blanks around them.
  HttpFields fields;

  /// The library has cut the block and refused what two readers could read in two ways, so nothing
  /// is refused here: a line without a colon is a name without a value.
  static HttpHead Parse(std::string_view block);

  /// The values of all fields of that name, case not regarded, with commas between; empty without.
  std::string Field(std::string_view name) const;
  /// Whether such a list has this item, case not regarded.
  bool Lists(std::string_view name, std::string_view item) const;
  /// Whether bytes follow as Content-Length says, or as chunks.
  bool HasLength() const;
  bool IsChunked() const { return Lists("Transfer-Encoding", "chunked"); }
  std::string FirstLine() const { return first + " " + second + " " + third; }
};

/// A message as the library composes it: the words of the first line, the fields, and the body,
/// which is bytes, or nested the description of a file. It adds the length of a body that is not
/// empty.
ZValue HttpMessage(const std::string& first, const std::string& second, const std::string& third,
                   const HttpFields& fields, const ZValue& body);

/// The items of a comma-separated list, without the blanks around them.
std::vector<std::string> ListItems(std::string_view list);
/// Equal but for the case of ASCII letters.
bool SameWord(std::string_view a, std::string_view b);

/// Whether the value of Accept-Encoding lets an answer be gzip.
bool AcceptsGzip(std::string_view acceptEncoding);

}  // namespace host
