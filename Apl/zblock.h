// zblock.h - the Z block, the interpreter's flat image of one array, also the payload of commands.
//
//   0  big-endian length of the whole block, these 8 bytes included
//   4  big-endian header word: architecture bits in its low byte, the rest zero
//   8  the top array; nested arrays are followed by their children, in ravel order, depth first
//
// One array, little-endian:
//
//   0   8  size word: rank + 3 + data in 8-byte words, one more than a simple array takes
//   8   1  rank << 4 | type: 0xF simple, 0x7 nested
//   9   1  element type, low nibble
//   10  6  zero
//   16  8  each axis, below 2^32
//   ..     data of a simple array, padded with zeros to 8 bytes; a nested one has none
//
// The size word of a nested array does not describe its extent and is not read. An empty nested
// array has no child; in memory it holds one null slot.
#pragma once

#include "Apl/vapl.h"

inline constexpr UI4 kZHead = 8;  // length and header word
inline constexpr UI4 RETZHEADER = ZHEADER | ARCH_UNICODE;

/// Array type by element type; VANoType where none is carried.
inline constexpr SI2 Tes2VA[15] = {VAC1, VABit, VAI1,  VAI2,     VAI4,  VAF8,     VAPntr, VAC1,
                                   VAC2, VAC4,  VA2F8, VANoType, VADpd, VANoType, VABid};

/// Element type by array type. The row of VAC1 is the one of a Unicode interpreter; what is written
/// follows SetUnicode. Rows that merge two types are what VANorm aims at before a result is packed.
inline constexpr SI2 VA2Tes[kTypeCount] = {0, 1, 2, 3, 4, 5, 5, 4, 5, 7, 8, 9, 6, 6, 6, 5, 12, 14};

/// Whether the interpreter's one-byte characters are Unicode; true at start. Each call sets it anew
/// from its header: all of one interpreter say the same.
bool isUnicode();
void SetUnicode(bool unicode);

/// A little-endian, 64-bit header without the foreign bits.
constexpr bool IsZHeader(UI4 header) { return header <= 0xFF && (header & 0xE9) == ZHEADER; }

/// The length and header words of a block, which must have its first 8 bytes.
UI4 ZLength(const void* block);
UI4 ZHeaderWord(const void* block);

/// Bytes that Pack writes for an array and its children; 0 when it cannot be packed: a null child,
/// a type without an image, or too deep.
UI8 SizeAA(const VARRAY* array);

/// Writes an array that SizeAA accepts; `target` has room for it and need not be zeroed. The result
/// is what it wrote.
UI8 Pack(const VARRAY* array, PCH1 target);

/// Reads the array at *offset of a block of `length` bytes and moves *offset behind it. Nothing
/// outside the block is read, and nothing larger than the block is allocated. ERR_ARCHITECTURE
/// for an element type, shape, extent or depth that cannot be, ERR_MEMORY_ALLOC; *array is then
/// null.
[[nodiscard]] SI4 Unpack(const CH1* base, UI4 length, PUI4 offset, PPAA array);

/// Reads a whole block: header, a length word that says `length`, and an array that fills it.
/// `block` has `length` bytes. Errors as Unpack.
[[nodiscard]] SI4 ReadZ(const void* block, UI4 length, PPAA array);

/// The array of a block that is as long as its own length word says, or null.
PAA UnpackZ(const UI4* block);

/// A new block, for free(), from an array that is released in any case. Null when memory is short
/// or the array cannot be packed or is above 4 GiB.
PUI4 PackZ(PAA owned);

/// A new block of 32 bytes with one whole number. Null when memory is short.
PUI4 ScalarZ(UI4 value);

/// A simple array where it stands in its block.
struct ZVIEW {
  VATYPES type;
  UI2 rank;
  UI4 count;        ///< elements
  const CH1* data;  ///< inside the block
};

/// Looks at a block of `length` bytes without copying. False for a nested array and for everything
/// that ReadZ refuses.
bool ViewZ(const void* block, UI4 length, ZVIEW* view);

/// Goes through a block from front to back: looks in the same way at the array at *offset, which
/// moves behind a simple one, and behind the head of a nested one, where its first item stands. 0
/// is the block itself: its head is checked, and the top array is the one that is looked at. Who
/// has come to the end as the arrays are nested, at `length`, has seen a block that ReadZ takes.
bool ViewNext(const void* block, UI4 length, PUI4 offset, ZVIEW* view);

/// The bytes of a viewed array, as many as its elements, where VAGetBytes would give them.
/// ERR_LENGTH for a type without bytes, ERR_DOMAIN for a value that is none.
[[nodiscard]] SI4 ViewBytes(const ZVIEW& view, PUI1 to);

/// The number that VAGetSI4 would read from a viewed array. False for what it converts or refuses.
bool ViewNumber(const ZVIEW& view, PSI4 number);

/// Looks in the same way at the items of a vector of at most `max` simple arrays; a simple array is
/// its own only item. The result is their number, 0 for every other form and for everything that
/// ReadZ refuses.
UI4 ViewItems(const void* block, UI4 length, ZVIEW* items, UI4 max);

/// Where the elements of a vector begin in its block, and what stands behind them.
inline constexpr UI4 kVectorZHead = 32;
UI4 VectorZTail(VATYPES type, UI4 n);
/// Writes all but the elements of a vector of a simple type: its block, of less than 4 GiB, has
/// room for the head, n elements and the tail.
void FinishVectorZ(PCH1 block, VATYPES type, UI4 n);

/// A new block, for free(), with a vector of n elements of a simple type, which the caller writes
/// at *data. Null when memory is short or the block would be above 4 GiB.
PUI4 VectorZ(VATYPES type, UI4 n, PCH1* data);

/// Writes a block of a known form from front to back, byte for byte what PackZ would make of the
/// array: first its size, then the arrays in their order.
///
/// Owner:   the stack of the function that writes. A block that nobody finished is freed.
/// Threads: that thread.
/// Errors:  false without memory; nothing may be written then.
class ZWRITER {
 public:
  static constexpr UI4 kIntBytes = 24;
  static constexpr UI4 kNestedBytes = 24;
  static constexpr UI4 kMatrixBytes = 32;
  static UI4 VectorBytes(VATYPES type, UI4 n);

  /// For arrays of so many bytes together, which come to less than 4 GiB.
  explicit ZWRITER(UI4 bytes);
  /// The same in a block that it then owns, with kZHead bytes more. What a vector has at its place
  /// already stays.
  ZWRITER(PCH1 owned, UI4 bytes);
  ~ZWRITER();
  ZWRITER(const ZWRITER&) = delete;
  ZWRITER& operator=(const ZWRITER&) = delete;
  explicit operator bool() const { return block != nullptr; }

  /// The head of a vector whose n items follow.
  void Nested(UI4 n);
  /// The head of a matrix: of a nested one, whose items follow, or of a simple one without rows.
  void Matrix(VATYPES type, UI4 rows, UI4 columns);
  /// A vector of a simple type: where the caller writes its elements.
  PCH1 Vector(VATYPES type, UI4 n);
  /// A scalar.
  void Int(SI4 value);
  /// A text, translated as VASetCH1 does.
  void Text(PCH10 text, UI4 n);
  void Floats(const F8* values, UI4 n);

  /// The block, for free(), when all is written.
  [[nodiscard]] PUI4 Finish();

 private:
  CH1* block;  // owned
  CH1* at;     // behind what is written
};
