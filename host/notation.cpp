// notation.cpp - arrays as JSON.
#include "host/notation.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>

namespace host {

namespace {

constexpr struct {
  ZType type;
  const char* word;
} kTypes[] = {
    {ZType::Bit, "bit"}, {ZType::I1, "i1"},   {ZType::I2, "i2"},
    {ZType::I4, "i4"},   {ZType::F8, "f8"},   {ZType::C1, "c1"},
    {ZType::C2, "c2"},   {ZType::C4, "c4"},   {ZType::Complex, "complex"},
    {ZType::Dpd, "dpd"}, {ZType::Bid, "bid"}, {ZType::Nested, "nested"},
};

using Bytes = std::vector<unsigned char>;
using CodePoints = std::vector<std::uint32_t>;

// --- Text ---------------------------------------------------------------------------------------

bool IsCharacter(std::uint32_t c) { return c < 0xD800 || (c > 0xDFFF && c < 0x110000); }

/// The parser has checked the UTF-8 already.
CodePoints FromUtf8(const std::string& text) {
  CodePoints points;
  points.reserve(text.size());
  for (const char raw : text) {
    const auto c = static_cast<unsigned char>(raw);
    if ((c & 0xC0) == 0x80)
      points.back() = points.back() << 6 | (c & 0x3F);
    else
      points.push_back(c < 0x80 ? c : c < 0xE0 ? c & 0x1F : c < 0xF0 ? c & 0x0F : c & 0x07);
  }
  return points;
}

std::string ToUtf8(const CodePoints& points) {
  std::string text;
  text.reserve(points.size());
  const auto tail = [&](std::uint32_t c, int shift) {
    text += static_cast<char>(0x80 | (c >> shift & 0x3F));
  };
  for (const std::uint32_t c : points) {
    if (c < 0x80) {
      text += static_cast<char>(c);
    } else if (c < 0x800) {
      text += static_cast<char>(0xC0 | c >> 6);
      tail(c, 0);
    } else if (c < 0x10000) {
      text += static_cast<char>(0xE0 | c >> 12);
      tail(c, 6);
      tail(c, 0);
    } else {
      text += static_cast<char>(0xF0 | c >> 18);
      tail(c, 12);
      tail(c, 6);
      tail(c, 0);
    }
  }
  return text;
}

ZType NarrowestCharacters(const CodePoints& points) {
  const std::uint32_t top = points.empty() ? 0 : *std::max_element(points.begin(), points.end());
  return top <= 0xFF ? ZType::C1 : top <= 0xFFFF ? ZType::C2 : ZType::C4;
}

// --- Elements to bytes --------------------------------------------------------------------------

/// Appends the low bytes of an element.
template <class T>
void Append(Bytes* to, T element, std::size_t width) {
  const auto* from = reinterpret_cast<const unsigned char*>(&element);
  to->insert(to->end(), from, from + width);
}

/// A number written without point or exponent, if it fits 64 signed bits.
std::optional<std::int64_t> WholeNumber(const Json& json) {
  if (json.is_number_unsigned() &&
      json.get<std::uint64_t>() > std::uint64_t{std::numeric_limits<std::int64_t>::max()})
    return std::nullopt;
  if (json.is_number_integer()) return json.get<std::int64_t>();
  return std::nullopt;
}

std::int64_t IntegerOf(const Json& json, std::int64_t low, std::int64_t high) {
  const auto number = WholeNumber(json);
  if (!number || *number < low || *number > high)
    throw ZError(json.dump() + " is no integer from " + std::to_string(low) + " to " +
                 std::to_string(high));
  return *number;
}

double DoubleOf(const Json& json) {
  if (json.is_number()) return json.get<double>();
  if (json == "Infinity") return std::numeric_limits<double>::infinity();
  if (json == "-Infinity") return -std::numeric_limits<double>::infinity();
  if (json == "NaN") return std::numeric_limits<double>::quiet_NaN();
  throw ZError(json.dump() + " is no number");
}

void AppendDecimal(Bytes* to, const Json& json) {
  constexpr std::size_t kDigits = 32;
  const std::string digits = json.is_string() ? json.get<std::string>() : "";
  if (digits.size() != kDigits) throw ZError(json.dump() + " is not 32 hexadecimal digits");
  for (std::size_t i = kDigits; i > 0; i -= 2) {
    unsigned char byte = 0;
    const char* const first = digits.data() + i - 2;
    if (std::from_chars(first, first + 2, byte, 16).ptr != first + 2)
      throw ZError(json.dump() + " is not 32 hexadecimal digits");
    to->push_back(byte);
  }
}

void AppendElement(Bytes* to, ZType type, const Json& json) {
  switch (type) {
    case ZType::I1:
      return Append(to, IntegerOf(json, -128, 127), 1);
    case ZType::I2:
      return Append(to, IntegerOf(json, -32768, 32767), 2);
    case ZType::I4:
      return Append(to, IntegerOf(json, INT32_MIN, INT32_MAX), 4);
    case ZType::C1:
      return Append(to, IntegerOf(json, 0, 0xFF), 1);
    case ZType::C2:
      return Append(to, IntegerOf(json, 0, 0xFFFF), 2);
    case ZType::C4:
      return Append(to, IntegerOf(json, 0, UINT32_MAX), 4);
    case ZType::F8:
      return Append(to, DoubleOf(json), 8);
    case ZType::Complex:
      if (!json.is_array() || json.size() != 2)
        throw ZError(json.dump() + " is no pair of numbers");
      Append(to, DoubleOf(json[0]), 8);
      return Append(to, DoubleOf(json[1]), 8);
    case ZType::Dpd:
    case ZType::Bid:
      return AppendDecimal(to, json);
    case ZType::Bit:
    case ZType::Nested:
    case ZType::Classic:
      break;
  }
  throw ZError("not a type with elements of whole bytes");
}

Bytes BitsOf(const Json& list) {
  Bytes bits((list.size() + 7) / 8);
  std::size_t i = 0;
  for (const Json& json : list) {
    const bool one = json.is_boolean() ? json.get<bool>() : IntegerOf(json, 0, 1) != 0;
    if (one) bits[i / 8] |= static_cast<unsigned char>(0x80 >> i % 8);
    ++i;
  }
  return bits;
}

// --- From JSON ----------------------------------------------------------------------------------

ZValue Simple(ZType type, std::vector<std::uint32_t> shape, const Json& list) {
  if (type == ZType::Bit) return ZValue(type, std::move(shape), BitsOf(list));
  Bytes bytes;
  bytes.reserve(list.size() * ElementBits(type) / 8);
  for (const Json& json : list) AppendElement(&bytes, type, json);
  return ZValue(type, std::move(shape), std::move(bytes));
}

ZValue Characters(ZType type, std::vector<std::uint32_t> shape, const CodePoints& points) {
  Bytes bytes;
  const std::size_t width = ElementBits(type) / 8;
  bytes.reserve(points.size() * width);
  for (const std::uint32_t c : points) {
    if (width < sizeof c && c >> width * 8 != 0)
      throw ZError("character " + std::to_string(c) + " does not fit " + TypeName(type));
    Append(&bytes, c, width);
  }
  return ZValue(type, std::move(shape), std::move(bytes));
}

/// The narrowest type for numbers, all of them numbers.
ZType NarrowestNumbers(const Json& list) {
  std::int64_t low = 0;
  std::int64_t high = 0;
  for (const Json& json : list) {
    const auto number = WholeNumber(json);
    if (!number) return ZType::F8;
    low = std::min(low, *number);
    high = std::max(high, *number);
  }
  if (low >= INT8_MIN && high <= INT8_MAX) return ZType::I1;
  if (low >= INT16_MIN && high <= INT16_MAX) return ZType::I2;
  if (low >= INT32_MIN && high <= INT32_MAX) return ZType::I4;
  return ZType::F8;
}

std::uint32_t Length(std::size_t n) {
  if (n > UINT32_MAX) throw ZError("too many elements");
  return static_cast<std::uint32_t>(n);
}

ZValue Convert(const Json& json, int depth);

std::vector<ZValue> Items(const Json& list, int depth) {
  std::vector<ZValue> items;
  items.reserve(list.size());
  for (const Json& json : list) items.push_back(Convert(json, depth + 1));
  return items;
}

ZValue FromList(const Json& list, int depth) {
  const auto all = [&](auto is) { return std::all_of(list.begin(), list.end(), is); };
  if (all([](const Json& json) { return json.is_number(); }))
    return Simple(NarrowestNumbers(list), {Length(list.size())}, list);
  if (all([](const Json& json) { return json.is_boolean(); }))
    return Simple(ZType::Bit, {Length(list.size())}, list);
  return ZValue::List(Items(list, depth));
}

ZType TypeOf(const Json& word) {
  for (const auto& [type, name] : kTypes)
    if (word == name) return type;
  throw ZError(word.dump() + " is no element type");
}

ZValue FromObject(const Json& object, int depth) {
  for (const auto& [key, unused] : object.items())
    if (key != "type" && key != "shape" && key != "data")
      throw ZError("an array has no \"" + key + "\": only type, shape and data");
  if (!object.contains("type") || !object.contains("data"))
    throw ZError("an array in long form needs \"type\" and \"data\"");

  const ZType type = TypeOf(object["type"]);
  const Json& data = object["data"];
  const bool text = data.is_string();
  if (text && type != ZType::C1 && type != ZType::C2 && type != ZType::C4)
    throw ZError("only character types take a text as data");
  if (!text && !data.is_array()) throw ZError("\"data\" is a list");
  const CodePoints points = text ? FromUtf8(data.get<std::string>()) : CodePoints();

  std::vector<std::uint32_t> shape;
  if (object.contains("shape")) {
    if (!object["shape"].is_array()) throw ZError("\"shape\" is a list");
    for (const Json& axis : object["shape"])
      shape.push_back(static_cast<std::uint32_t>(IntegerOf(axis, 0, UINT32_MAX)));
  } else {
    shape.push_back(Length(text ? points.size() : data.size()));
  }

  if (text) return Characters(type, std::move(shape), points);
  if (type == ZType::Nested) return ZValue(std::move(shape), Items(data, depth));
  return Simple(type, std::move(shape), data);
}

ZValue Convert(const Json& json, int depth) {
  if (depth > ZValue::kMaxDepth) throw ZError("nested too deep");
  if (json.is_string()) {
    const CodePoints points = FromUtf8(json.get<std::string>());
    return Characters(NarrowestCharacters(points), {Length(points.size())}, points);
  }
  if (json.is_array()) return FromList(json, depth);
  if (json.is_object()) return FromObject(json, depth);
  const Json list = Json::array({json});
  if (json.is_boolean()) return Simple(ZType::Bit, {}, list);
  if (json.is_number()) return Simple(NarrowestNumbers(list), {}, list);
  throw ZError("null is no array");
}

// --- To JSON ------------------------------------------------------------------------------------

template <class T>
T ElementAt(const ZValue& value, std::size_t i) {
  T element;
  std::memcpy(&element, value.Data().data() + i * sizeof element, sizeof element);
  return element;
}

Json DoubleJson(double number) {
  if (std::isnan(number)) return "NaN";
  if (std::isinf(number)) return number < 0 ? "-Infinity" : "Infinity";
  return number;
}

std::string DecimalJson(const unsigned char* bytes) {
  constexpr char kHex[] = "0123456789abcdef";
  std::string digits;
  for (int i = 15; i >= 0; --i) {
    digits += kHex[bytes[i] >> 4];
    digits += kHex[bytes[i] & 0xF];
  }
  return digits;
}

/// Element i of a simple array, in the form that the long notation takes.
Json ElementJson(const ZValue& value, std::size_t i) {
  switch (value.Type()) {
    case ZType::C1:
      return ElementAt<std::uint8_t>(value, i);
    case ZType::C2:
      return ElementAt<std::uint16_t>(value, i);
    case ZType::C4:
      return ElementAt<std::uint32_t>(value, i);
    case ZType::F8:
      return DoubleJson(ElementAt<double>(value, i));
    case ZType::Complex:
      return Json::array({DoubleJson(ElementAt<double>(value, 2 * i)),
                          DoubleJson(ElementAt<double>(value, 2 * i + 1))});
    case ZType::Dpd:
    case ZType::Bid:
      return DecimalJson(value.Data().data() + 16 * i);
    case ZType::Bit:
      return (value.Data()[i / 8] >> (7 - i % 8) & 1) != 0;
    case ZType::I1:
      return ElementAt<std::int8_t>(value, i);
    case ZType::I2:
      return ElementAt<std::int16_t>(value, i);
    case ZType::I4:
      return ElementAt<std::int32_t>(value, i);
    case ZType::Nested:
    case ZType::Classic:
      break;
  }
  throw ZError("not a simple array");
}

bool IsText(ZType type) { return type == ZType::C1 || type == ZType::C2 || type == ZType::C4; }

/// The data of the long form.
Json DataJson(const ZValue& value) {
  Json list = Json::array();
  if (value.IsNested()) {
    for (const ZValue& item : value.Items()) list.push_back(ToJson(item));
    return list;
  }
  const std::uint64_t n = value.Count();
  for (std::uint64_t i = 0; i < n; ++i) list.push_back(ElementJson(value, i));
  if (!IsText(value.Type())) return list;

  CodePoints points(list.begin(), list.end());
  if (!std::all_of(points.begin(), points.end(), IsCharacter)) return list;
  return ToUtf8(points);
}

/// Whether the bare data of a vector, or its element for a scalar, reads back as the same array.
bool ShortFormIsExact(const ZValue& value, const Json& data) {
  if (value.IsNested()) {
    const auto all = [&](auto is) { return std::all_of(data.begin(), data.end(), is); };
    return value.Rank() == 1 && !all([](const Json& json) { return json.is_number(); }) &&
           !all([](const Json& json) { return json.is_boolean(); });
  }
  if (IsText(value.Type()))
    return value.Rank() == 1 && data.is_string() &&
           NarrowestCharacters(FromUtf8(data.get<std::string>())) == value.Type();
  if (value.Rank() > 1) return false;
  switch (value.Type()) {
    case ZType::Bit:
      return !data.empty();
    case ZType::I1:
    case ZType::I2:
    case ZType::I4:
    case ZType::F8:
      // Doubles print with a point or an exponent, so that they never read as integers.
      return std::all_of(data.begin(), data.end(), [](const Json& j) { return j.is_number(); }) &&
             NarrowestNumbers(data) == value.Type();
    default:
      return false;
  }
}

}  // namespace

std::string TypeName(ZType type) {
  for (const auto& [known, word] : kTypes)
    if (known == type) return word;
  return "unknown";
}

ZValue FromJson(const Json& json) { return Convert(json, 1); }

Json ToJson(const ZValue& value) {
  Json data = DataJson(value);
  if (ShortFormIsExact(value, data)) return value.Rank() == 0 ? data[0] : data;
  return {{"type", TypeName(value.Type())}, {"shape", value.Shape()}, {"data", std::move(data)}};
}

ZValue FromArgument(const std::string& word) {
  const Json json = Json::parse(word, nullptr, false);
  if (!json.is_discarded() && !json.is_null()) return FromJson(json);
  if (!word.empty() && std::strchr("[{\"", word[0]))
    throw ZError(word + " is not well-formed JSON");
  return TextValue(word);
}

ZValue TextValue(const std::string& utf8) {
  const Json text = utf8;
  try {
    static_cast<void>(text.dump());  // throws for bytes that are no UTF-8
  } catch (const Json::exception&) {
    throw ZError("a text is not well-formed UTF-8");
  }
  return FromJson(text);
}

std::string Print(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string Kind(const ZValue& value) {
  std::string kind = TypeName(value.Type());
  if (value.Rank() == 0) return kind + " scalar";
  for (std::size_t i = 0; i < value.Rank(); ++i)
    kind += (i == 0 ? ' ' : 'x') + std::to_string(value.Shape()[i]);
  return kind;
}

}  // namespace host
