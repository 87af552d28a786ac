// zvalue.cpp - reading and writing of Z blocks.
#include "host/zvalue.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

namespace host {

static_assert(std::endian::native == std::endian::little, "elements are copied as they stand");

namespace {

constexpr std::size_t kBlockHead = 8;
constexpr std::size_t kArrayHead = 16;
constexpr unsigned kMaxRank = 15;
constexpr unsigned char kSimple = 0xF;
constexpr unsigned char kNested = 0x7;
constexpr std::uint32_t kHeader = 0xA4;      // little-endian, 64 bits, Unicode
constexpr std::uint32_t kHeaderMask = 0xE9;  // the bits that a reader insists on
constexpr std::uint32_t kHeaderWant = 0xA0;

template <class T>
T Load(const unsigned char* from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

std::size_t Pad8(std::size_t n) { return (n + 7) / 8 * 8; }

/// Bytes of count elements; the caller knows that they exist, so that nothing overflows.
std::uint64_t DataBytes(ZType type, std::uint64_t count) {
  return type == ZType::Bit ? (count + 7) / 8 : count * (ElementBits(type) / 8);
}

/// Product of a shape. An axis of 0 makes it 0, however large the others are.
bool Product(const unsigned rank, auto axis, std::uint64_t* out) {
  *out = 1;
  bool overflow = false;
  for (unsigned i = 0; i < rank; ++i) {
    const std::uint64_t n = axis(i);
    if (n == 0) {
      *out = 0;
      return true;
    }
    overflow |= __builtin_mul_overflow(*out, n, out);
  }
  return !overflow && *out <= UINT32_MAX;
}

bool IsKnown(unsigned code) { return code <= 14 && code != 11 && code != 13; }

}  // namespace

unsigned ElementBits(ZType type) {
  switch (type) {
    case ZType::Nested:
      return 0;
    case ZType::Bit:
      return 1;
    case ZType::Classic:
    case ZType::I1:
    case ZType::C1:
      return 8;
    case ZType::I2:
    case ZType::C2:
      return 16;
    case ZType::I4:
    case ZType::C4:
      return 32;
    case ZType::F8:
      return 64;
    case ZType::Complex:
    case ZType::Dpd:
    case ZType::Bid:
      return 128;
  }
  throw ZError("unknown element type");
}

ZArray ZArray::Read(const unsigned char* block, std::size_t size, std::size_t at) {
  if (at > size || size - at < kArrayHead) throw ZError("array header reaches past the block");
  const unsigned char* head = block + at;
  std::size_t left = size - at - kArrayHead;

  ZArray array{};
  array.rank = head[8] >> 4;
  array.shape = head + kArrayHead;
  const unsigned code = head[9] & 0xF;
  if (!IsKnown(code)) throw ZError("unknown element type " + std::to_string(code));
  array.type = code == 0 ? ZType::C1 : static_cast<ZType>(code);
  const bool nested = array.type == ZType::Nested;
  if ((head[8] & 0xF) != (nested ? kNested : kSimple))
    throw ZError("array kind and element type differ");

  if (left / 8 < array.rank) throw ZError("shape reaches past the block");
  left -= array.rank * std::size_t{8};
  if (!Product(
          array.rank, [&](unsigned i) { return Load<std::uint64_t>(array.shape + i * 8); },
          &array.count))
    throw ZError("shape is too large");

  array.data = array.shape + array.rank * std::size_t{8};
  array.next = static_cast<std::size_t>(array.data - block);
  if (nested) {
    if (left / kArrayHead < array.count) throw ZError("more items than the block has room for");
    return array;
  }

  array.bytes = DataBytes(array.type, array.count);
  const std::size_t padded = Pad8(array.bytes);
  if (padded > left) throw ZError("elements reach past the block");
  if (Load<std::uint64_t>(head) != array.rank + 3 + padded / 8)
    throw ZError("array length does not fit its shape");
  array.next += padded;
  return array;
}

std::uint32_t ZArray::Axis(unsigned i) const { return Load<std::uint32_t>(shape + i * 8); }

std::int64_t ZArray::Integer(std::uint64_t i) const {
  if (i >= count) throw ZError("element " + std::to_string(i) + " does not exist");
  switch (type) {
    case ZType::Bit:
      return data[i / 8] >> (7 - i % 8) & 1;
    case ZType::I1:
      return Load<std::int8_t>(data + i);
    case ZType::I2:
      return Load<std::int16_t>(data + i * 2);
    case ZType::I4:
      return Load<std::int32_t>(data + i * 4);
    case ZType::F8:
      if (const auto value = Load<double>(data + i * 8);
          std::trunc(value) == value && std::abs(value) < 9e15)
        return static_cast<std::int64_t>(value);
      [[fallthrough]];
    default:
      throw ZError("not an integer");
  }
}

std::string_view ZArray::Text() const {
  if (count == 0) return {};
  if (type != ZType::C1) throw ZError("not a one-byte character array");
  return {reinterpret_cast<const char*>(data), bytes};
}

std::size_t ZSize(const std::uint32_t* z) { return __builtin_bswap32(*z); }

ZValue::ZValue(std::int32_t value) : type(ZType::I4), data(sizeof value) {
  std::memcpy(data.data(), &value, sizeof value);
}

ZValue::ZValue(double value) : type(ZType::F8), data(sizeof value) {
  std::memcpy(data.data(), &value, sizeof value);
}

ZValue::ZValue(std::string_view text)
    : ZValue(ZType::C1, {static_cast<std::uint32_t>(text.size())}, {text.begin(), text.end()}) {}

ZValue::ZValue(ZType elementType, std::vector<std::uint32_t> axes, std::vector<unsigned char> bytes)
    : type(elementType == ZType::Classic ? ZType::C1 : elementType),
      shape(std::move(axes)),
      data(std::move(bytes)) {
  if (type == ZType::Nested) throw ZError("a nested array takes items");
  if (Rank() > kMaxRank) throw ZError("rank above 15");
  const std::uint64_t count = Count();
  if (data.size() != DataBytes(type, count)) throw ZError("data do not fit the shape");
  // Bits behind the last element mean nothing; cleared, they cannot make equal arrays differ.
  if (type == ZType::Bit && count % 8 != 0)
    data.back() &= static_cast<unsigned char>(0xFF00 >> count % 8);
}

ZValue::ZValue(std::vector<std::uint32_t> axes, std::vector<ZValue> children)
    : type(ZType::Nested), shape(std::move(axes)), items(std::move(children)) {
  if (Rank() > kMaxRank) throw ZError("rank above 15");
  if (items.size() != Count()) throw ZError("items do not fit the shape");
}

ZValue ZValue::List(std::vector<ZValue> items) {
  const auto n = static_cast<std::uint32_t>(items.size());
  return ZValue({n}, std::move(items));
}

std::uint64_t ZValue::Count() const {
  std::uint64_t count;
  if (!Product(
          static_cast<unsigned>(Rank()), [&](unsigned i) { return shape[i]; }, &count))
    throw ZError("shape is too large");
  return count;
}

ZArray ZValue::View() const {
  ZArray view{};
  view.type = type;
  view.count = Count();
  view.data = data.data();
  view.bytes = data.size();
  return view;
}

ZValue ZValue::At(std::uint64_t i) const {
  if (i >= Count()) throw ZError("element " + std::to_string(i) + " does not exist");
  if (IsNested()) return items[i];
  if (type == ZType::Bit)
    return ZValue(type, {}, {static_cast<unsigned char>(View().Integer(i) << 7)});
  const std::size_t width = ElementBits(type) / 8;
  const auto from = data.begin() + static_cast<std::ptrdiff_t>(i * width);
  return ZValue(type, {}, {from, from + static_cast<std::ptrdiff_t>(width)});
}

std::int64_t ZValue::Integer(std::uint64_t i) const {
  return IsNested() ? At(i).Integer() : View().Integer(i);
}

double ZValue::Number(std::uint64_t i) const {
  if (IsNested()) return At(i).Number();
  if (type == ZType::F8 && i < Count()) return Load<double>(data.data() + i * 8);
  return static_cast<double>(View().Integer(i));
}

std::string ZValue::Text() const { return std::string(View().Text()); }

std::string ZValue::Bytes() const {
  if (type != ZType::I2 && type != ZType::C1 && type != ZType::I1)
    throw ZError("not an array of bytes");
  const std::size_t width = ElementBits(type) / 8;
  std::string bytes(data.size() / width, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(data[i * width]);
  return bytes;
}

std::vector<std::uint32_t> ZValue::Encode() const {
  const std::size_t size = kBlockHead + EncodedSize(1);
  if (size > UINT32_MAX) throw ZError("block above 4 GiB");
  std::vector<std::uint32_t> z(size / sizeof(std::uint32_t));
  z[0] = __builtin_bswap32(static_cast<std::uint32_t>(size));
  z[1] = __builtin_bswap32(kHeader);
  EncodeTo(reinterpret_cast<unsigned char*>(z.data()) + kBlockHead);
  return z;
}

std::size_t ZValue::EncodedSize(int depth) const {
  if (depth > kMaxDepth) throw ZError("nested too deep");
  std::size_t size = kArrayHead + 8 * Rank() + Pad8(data.size());
  for (const ZValue& item : items) size += item.EncodedSize(depth + 1);
  return size;
}

unsigned char* ZValue::EncodeTo(unsigned char* to) const {
  // Deliberate: the length counts one word more than a simple array takes, and for a nested array
  // it counts a word per item, though none of them stands there.
  const std::size_t dataWords = IsNested() ? items.size() : Pad8(data.size()) / 8;
  const std::uint64_t length = Rank() + 3 + dataWords;
  std::memcpy(to, &length, sizeof length);
  to[8] = static_cast<unsigned char>(Rank() << 4 | (IsNested() ? kNested : kSimple));
  to[9] = static_cast<unsigned char>(type);
  to += kArrayHead;
  for (const std::uint64_t axis : shape) {
    std::memcpy(to, &axis, sizeof axis);
    to += sizeof axis;
  }
  to = std::copy(data.begin(), data.end(), to) + (Pad8(data.size()) - data.size());
  for (const ZValue& item : items) to = item.EncodeTo(to);
  return to;
}

ZValue ZValue::Decode(const void* z, std::size_t size) {
  const auto* block = static_cast<const unsigned char*>(z);
  if (size < kBlockHead + kArrayHead) throw ZError("block is too short");
  if (__builtin_bswap32(Load<std::uint32_t>(block)) != size)
    throw ZError("block length does not fit");
  const std::uint32_t header = __builtin_bswap32(Load<std::uint32_t>(block + 4));
  if (header > 0xFF || (header & kHeaderMask) != kHeaderWant) throw ZError("foreign block header");

  std::size_t at = kBlockHead;
  ZValue value = DecodeAt(block, size, &at, 1);
  if (at != size) throw ZError("bytes behind the last array");
  return value;
}

ZValue ZValue::DecodeAt(const unsigned char* block, std::size_t size, std::size_t* at, int depth) {
  if (depth > kMaxDepth) throw ZError("nested too deep");
  const ZArray array = ZArray::Read(block, size, *at);
  *at = array.next;

  std::vector<std::uint32_t> axes(array.rank);
  for (unsigned i = 0; i < array.rank; ++i) axes[i] = array.Axis(i);
  if (array.type != ZType::Nested)
    return ZValue(array.type, std::move(axes), {array.data, array.data + array.bytes});

  std::vector<ZValue> items;
  items.reserve(std::min<std::uint64_t>(array.count, 4096));  // the rest as the items prove real
  for (std::uint64_t i = 0; i < array.count; ++i)
    items.push_back(DecodeAt(block, size, at, depth + 1));
  return ZValue(std::move(axes), std::move(items));
}

}  // namespace host
