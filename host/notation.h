// notation.h - arrays as JSON, for the command line and for people.
//
//   "text"              character vector, of the narrowest type that holds it
//   7, 2.5, true        scalar: the narrowest of i1, i2, i4, else f8; bit
//   [1, 2, 3]           simple vector, of the narrowest type that holds all of them
//   [true, false]       bit vector
//   []                  empty i1 vector
//   ["a", [1, 2], 3]    nested vector
//   {"type": "i4", "shape": [2, 3], "data": [1, 2, 3, 4, 5, 6]}    any type and shape
//
// Types: bit, i1, i2, i4, f8, complex, c1, c2, c4, nested, dpd, bid. "shape" may be left out of a
// vector. The data of characters are a text or a list of code points; of complex numbers pairs; of
// the decimals 32 hexadecimal digits each, the high byte first; doubles that are no finite number
// are "Infinity", "-Infinity" and "NaN". What is printed is the short form where that reads back
// as the same array, and the long form elsewhere.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "host/zvalue.h"

namespace host {

using Json = nlohmann::ordered_json;

/// Throws ZError with the reason when the text or object describes no array.
ZValue FromJson(const Json& json);
Json ToJson(const ZValue& value);

/// An argument of the command line: the notation, or, where a word could not begin any of it, the
/// word itself as text.
ZValue FromArgument(const std::string& word);

/// UTF-8 as a character vector of the narrowest type. Throws ZError when it is none.
ZValue TextValue(const std::string& utf8);

/// One line of the notation; characters outside ASCII stand as they are.
std::string Print(const Json& json);

/// "i4 2x3", "c1 scalar", "nested 0": what kind of array it is, in few characters.
std::string Kind(const ZValue& value);

/// The word of an element type.
std::string TypeName(ZType type);

}  // namespace host
