// zcode.h - Z bytes for tests, written out by hand: it shares nothing with the library but the
// layout.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace zcode {

using Bytes = std::vector<uint8_t>;

constexpr int CHAR = 0, BOOL = 1, SINT = 2, INTG = 3, LONG = 4, DOUB = 5, PNTR = 6, WC08 = 7,
              WC16 = 8, WC32 = 9, DPD = 12, BID = 14;

inline void Add(Bytes* out, uint64_t value, int width) {
  for (int i = 0; i < width; ++i) out->push_back(static_cast<uint8_t>(value >> (8 * i)));
}

inline Bytes Head(uint64_t words, int type, int eltype, const std::vector<uint64_t>& shape) {
  Bytes out;
  Add(&out, words, 8);
  Add(&out, static_cast<uint64_t>(shape.size() << 4 | static_cast<size_t>(type)), 1);
  Add(&out, static_cast<uint64_t>(eltype), 1);
  Add(&out, 0, 6);
  for (const uint64_t axis : shape) Add(&out, axis, 8);
  return out;
}

/// A simple array, its data padded.
inline Bytes Simple(int eltype, const std::vector<uint64_t>& shape, Bytes data) {
  data.resize((data.size() + 7) / 8 * 8);
  Bytes out = Head(shape.size() + 3 + data.size() / 8, 0xF, eltype, shape);
  out.insert(out.end(), data.begin(), data.end());
  return out;
}

/// A nested array with the children behind it.
inline Bytes Nested(const std::vector<uint64_t>& shape, const std::vector<Bytes>& children) {
  const size_t slots = children.empty() ? 1 : children.size();
  Bytes out = Head(shape.size() + 3 + slots, 0x7, PNTR, shape);
  for (const Bytes& child : children) out.insert(out.end(), child.begin(), child.end());
  return out;
}

inline Bytes Text(const std::string& text) {
  return Simple(WC08, {text.size()}, Bytes(text.begin(), text.end()));
}

inline Bytes Int(int32_t value) {
  Bytes data;
  Add(&data, static_cast<uint32_t>(value), 4);
  return Simple(LONG, {}, data);
}

inline Bytes Vector(const std::vector<Bytes>& children) {
  return Nested({children.size()}, children);
}

/// A matrix of names and values, as HTTP has its fields.
using FIELDS = std::vector<std::pair<std::string, std::string>>;
inline Bytes Fields(const FIELDS& fields) {
  std::vector<Bytes> cells;
  for (const auto& [name, value] : fields) {
    cells.push_back(Text(name));
    cells.push_back(Text(value));
  }
  return Nested({fields.size(), 2}, cells);
}

/// The whole block round a top array.
inline Bytes Block(const Bytes& array, uint32_t header = 0xA4) {
  Bytes out;
  Add(&out, __builtin_bswap32(static_cast<uint32_t>(array.size() + 8)), 4);
  Add(&out, __builtin_bswap32(header), 4);
  out.insert(out.end(), array.begin(), array.end());
  return out;
}

}  // namespace zcode
