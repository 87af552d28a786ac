// zvalue.h - an array as the host sees it, and its flat image, the Z block.
//
//   0        4         8
//   | length | header  | top array | its children, depth first |      length and header big-endian
//
//   0         8     9     10     16         16 + 8 * rank
//   | length  | r|t | 0|e | zero | shape... | elements, padded to 8 bytes |      little-endian
//
// r is the rank, t the kind (15 simple, 7 nested), e the element type. A nested array has no bytes
// of its own: its children follow in ravel order, and an empty one has none.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace host {

/// Element types by the numbers that stand in a block.
enum class ZType : std::uint8_t {
  Classic = 0,  ///< one-byte characters of a sender without Unicode; read as C1, never kept
  Bit = 1,      ///< element i is bit 7 - i % 8 of byte i / 8
  I1 = 2,
  I2 = 3,
  I4 = 4,
  F8 = 5,
  Nested = 6,
  C1 = 7,
  C2 = 8,
  C4 = 9,
  Complex = 10,  ///< two doubles, the real part first
  Dpd = 12,      ///< decimal128, densely packed
  Bid = 14,      ///< decimal128, binary integer
};

/// Bits of one element; 0 for Nested.
unsigned ElementBits(ZType type);

/// A block that is none, or a value asked for something that it is not.
class ZError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// One array of a block, seen in place: nothing is copied or allocated.
struct ZArray {
  ZType type;
  unsigned rank;
  const unsigned char* shape;  ///< rank words of 8 bytes, at any alignment
  std::uint64_t count;         ///< product of the shape
  const unsigned char* data;   ///< elements of a simple array, the first child of a nested one
  std::size_t bytes;           ///< bytes of data, padding not counted; 0 for a nested array
  std::size_t next;            ///< where the next array of the block begins

  /// The array at an offset of a block. Throws ZError when it does not lie whole within size.
  static ZArray Read(const unsigned char* block, std::size_t size, std::size_t at);

  std::uint32_t Axis(unsigned i) const;
  /// Element of an integer array (Bit, I1, I2, I4) or an integral double. Throws ZError.
  std::int64_t Integer(std::uint64_t i = 0) const;
  /// The bytes of a C1 array, nothing of an empty one. Throws ZError.
  std::string_view Text() const;
};

/// Size of a block by its own length word.
std::size_t ZSize(const std::uint32_t* z);

/// An array of any type, rank and nesting. Plain data: copies are deep.
class ZValue {
 public:
  /// Most levels of nesting that are read or written.
  static constexpr int kMaxDepth = 1024;

  /// An empty I4 vector.
  ZValue() : ZValue(ZType::I4, {0}, {}) {}
  /// Scalars: I4 and F8. Character vectors: the bytes as C1.
  ZValue(std::int32_t value);     // NOLINT: conversions keep argument lists readable
  ZValue(double value);           // NOLINT
  ZValue(std::string_view text);  // NOLINT
  ZValue(const char* text) : ZValue(std::string_view(text)) {}         // NOLINT
  ZValue(const std::string& text) : ZValue(std::string_view(text)) {}  // NOLINT

  /// A simple array over element bytes as they stand in memory. Throws ZError when their number
  /// does not fit the shape.
  ZValue(ZType type, std::vector<std::uint32_t> shape, std::vector<unsigned char> data);
  /// A nested array. Throws ZError when the number of items does not fit the shape.
  ZValue(std::vector<std::uint32_t> shape, std::vector<ZValue> items);

  /// A nested vector.
  static ZValue List(std::vector<ZValue> items);
  /// A simple vector of trivially copied elements: the caller matches T to the type.
  template <class T>
  static ZValue Vector(ZType type, const std::vector<T>& elements) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(elements.data());
    return ZValue(type, {static_cast<std::uint32_t>(elements.size())},
                  std::vector<unsigned char>(bytes, bytes + elements.size() * sizeof(T)));
  }

  ZType Type() const { return type; }
  const std::vector<std::uint32_t>& Shape() const { return shape; }
  std::size_t Rank() const { return shape.size(); }
  std::uint64_t Count() const;
  bool IsNested() const { return type == ZType::Nested; }
  const std::vector<unsigned char>& Data() const { return data; }
  const std::vector<ZValue>& Items() const { return items; }

  /// Element i in ravel order: the item of a nested array, a scalar of a simple one.
  ZValue At(std::uint64_t i) const;
  /// Element i as a number; an item of a nested array answers for its own element 0.
  std::int64_t Integer(std::uint64_t i = 0) const;
  double Number(std::uint64_t i = 0) const;
  /// The bytes of a C1 array; nothing for an empty array of any type.
  std::string Text() const;
  /// What a binary or text mode puts on the wire for this array: C1 and I1 as they stand, of I2
  /// the low byte of each.
  std::string Bytes() const;

  /// Same type, shape and elements, bit for bit.
  bool operator==(const ZValue& other) const = default;

  /// The flat block. Throws ZError above 4 GiB or kMaxDepth.
  std::vector<std::uint32_t> Encode() const;
  /// Reads a block of exactly this size. Throws ZError on anything malformed.
  static ZValue Decode(const void* z, std::size_t size);
  static ZValue Decode(const std::uint32_t* z) { return Decode(z, ZSize(z)); }

 private:
  std::size_t EncodedSize(int depth) const;
  unsigned char* EncodeTo(unsigned char* to) const;
  static ZValue DecodeAt(const unsigned char* block, std::size_t size, std::size_t* at, int depth);
  ZArray View() const;

  ZType type;
  std::vector<std::uint32_t> shape;
  std::vector<unsigned char> data;
  std::vector<ZValue> items;
};

}  // namespace host
