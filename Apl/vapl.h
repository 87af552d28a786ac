// vapl.h - the array value: one counted heap record of header, shape and data.
//
//   | alignment words | length refcount type rank | shape[rank] | data, whole 32-bit words |
//                     ^ PAA                                     ^ PAA + 12 + 4 * rank
//
// The alignment words put the data of doubles on 8 bytes and of decimals on 16; all other types
// have none, so that pointers and the elements of a VAHet array may stand on any 4-byte boundary:
// their bytes are copied in and out, never addressed as objects.
#pragma once

#include <atomic>
#include <utility>

#include "sys/linux/qlntypes.h"

/// Element types. The numbers are the `type` field of a record and index VAsize.
enum VATYPES : UI2 {
  VANoType = 0,
  VABit = 1,  ///< packed, the first element in the high bit of the first byte
  VAI1 = 2,
  VAI2 = 3,
  VAI4 = 4,
  VAF8 = 5,
  VA2F8 = 6,    ///< complex: real part, imaginary part
  VAApvI4 = 7,  ///< one start and one step for the whole array
  VAApvF8 = 8,  ///< the same in doubles
  VAC1 = 9,
  VAC2 = 10,
  VAC4 = 11,
  VAPntr = 12,  ///< nested: each slot owns one count, or is null
  VAHet = 13,   ///< one HETELEM an element
  VABoxd = 14,  ///< pointers that the record does not own
  VAI8 = 15,    ///< a tag only: no accessor reads it
  VADpd = 16,   ///< decimal128, densely packed
  VABid = 17,   ///< decimal128, binary integer
};
inline constexpr UI2 kTypeCount = 18;

/// Deepest nesting that a Z block carries and that any walk over a value follows.
inline constexpr UI4 kMaxDepth = 1024;

/// Width of one element in bits, by VATYPES.
inline constexpr UI2 VAsize[kTypeCount] = {0, 1,  8,  16, 32, 64, 128, 64,  128,
                                           8, 16, 32, 64, 80, 64, 64,  128, 128};

/// One element of a VAHet array.
struct __attribute__((packed)) HETELEM {
  CH1 type;     ///< VABit, VAI1, VAI2, VAI4, VAF8, VAC1 or VAPntr
  CH1 fill;     ///< unused, zero
  UI1 data[8];  ///< the value, from the first byte on
};
using PHETELEM = HETELEM*;
static_assert(sizeof(HETELEM) == 10);

/// An array.
///
/// Owner:   its count. A pointer slot of a VAPntr array and a VAPntr element of a VAHet array own
///          one count each; everybody else gives up what they hold with VAFree, best by a VAHOLD.
/// Threads: the count may be moved by any thread, because sockets hand out values that they keep.
///          The elements belong to one thread at a time; a record that is shared is only read.
struct VARRAY {
  UI4 length;  ///< bytes of header, shape and data, without the alignment words
  std::atomic<UI4> refcount;
  UI2 type;  ///< one of VATYPES
  UI2 rank;
  UI4 shape[1];  ///< open-ended, rank of them
};
using PAA = VARRAY*;
using PPAA = PAA*;

/// A new array of count 1 and zeroed data. Null when memory is short, when the data would come to
/// 2^32 bits or more, or when the type has no elements.
PAA VANew(VATYPES type, UI2 rank, const UI4* shape);

/// The same, except that the caller must write every data byte: only the slots of the pointer-like
/// types are cleared. Spares large copies a pass over memory.
PAA VANewUnset(VATYPES type, UI2 rank, const UI4* shape);

/// Gives up one count. Null is accepted; the result is always null.
PAA VAFree(PAA array);

/// One count more; the result is the new count.
UI4 VAIncRef(PAA array);
UI4 VARefCount(const VARRAY* array);

inline VATYPES VAType(const VARRAY* array) { return static_cast<VATYPES>(array->type); }
inline UI2 VARank(const VARRAY* array) { return array->rank; }
inline PUI4 VAShape(PAA array) { return array->shape; }
inline const UI4* VAShape(const VARRAY* array) { return array->shape; }
inline UI4 VALength(const VARRAY* array) { return array->length; }

inline PUI1 VAData(PAA array) {
  return reinterpret_cast<PUI1>(array) + 12 + 4 * static_cast<size_t>(array->rank);
}
inline const UI1* VAData(const VARRAY* array) {
  return reinterpret_cast<const UI1*>(array) + 12 + 4 * static_cast<size_t>(array->rank);
}

/// Bytes of data, whole 32-bit words.
inline UI4 VADataLength(const VARRAY* array) {
  return array->length - (4 * static_cast<UI4>(array->rank) + 12);
}

/// The product of a shape; false when it does not fit. One empty axis makes it 0, however long the
/// others are.
bool ShapeProduct(UI2 rank, const UI4* shape, PUI4 product);

/// The product of the array's shape: what the interpreter sees.
UI4 VACount(const VARRAY* array);

/// The elements stored: VACount, except that an empty array of the pointer-like types (VAPntr,
/// VAHet, VABoxd) stores its prototype and reports 1.
UI4 VAElems(const VARRAY* array);

/// True for the types that store a prototype when empty.
inline bool IsPointerLike(VATYPES type) {
  return type == VAPntr || type == VAHet || type == VABoxd;
}

/// Overwrites slot `index` of a VAPntr array, or makes element `index` of a VAHet array a pointer.
/// The count of `value` goes with it, what stood there is not released. The index is not checked.
void VASetOwned(PAA array, UI4 index, PAA value);

/// Element `index` of a VAHet array. The index is not checked.
VATYPES VAHetType(const VARRAY* array, UI4 index);
PUI1 VAHetData(PAA array, UI4 index);
const UI1* VAHetData(const VARRAY* array, UI4 index);
/// Stores type and value, `size` bytes of them at most 8; what stood there is not released.
void VAHetStore(PAA array, UI4 index, VATYPES type, const void* value, size_t size);

/// The array that element `index` owns a count of, lent: the slot of a VAPntr array, the pointer of
/// a VAHet element. Null when the slot is empty or the element no pointer. The index is not
/// checked.
PAA VAOwned(const VARRAY* array, UI4 index);

/// Owns one count of an array.
class VAHOLD {
 public:
  VAHOLD() = default;
  explicit VAHOLD(PAA owned) : array(owned) {}
  VAHOLD(VAHOLD&& other) noexcept : array(other.Release()) {}
  VAHOLD& operator=(VAHOLD&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  VAHOLD(const VAHOLD&) = delete;
  VAHOLD& operator=(const VAHOLD&) = delete;
  ~VAHOLD() { VAFree(array); }

  /// A guard with a count of its own. Null is accepted.
  static VAHOLD Share(PAA lent) {
    if (lent) VAIncRef(lent);
    return VAHOLD(lent);
  }

  /// Lends.
  PAA Get() const { return array; }
  /// Passes the count on.
  [[nodiscard]] PAA Release() { return std::exchange(array, nullptr); }
  /// Gives up what it holds and takes `owned` over.
  void Reset(PAA owned = nullptr) { VAFree(std::exchange(array, owned)); }
  /// Gives up what it holds and lends its place, for an operation that hands an array out.
  PPAA Out() {
    Reset();
    return &array;
  }
  explicit operator bool() const { return array != nullptr; }

 private:
  PAA array = nullptr;  // one count of it is owned
};
