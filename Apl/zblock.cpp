// zblock.cpp - reading and writing Z blocks.
#include "Apl/zblock.h"

#include <byteswap.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "kyrno/base/error.h"

// A nested array may be 1,024 deep and the stack small: what is not the walk itself stays in frames
// of its own, and the walks have no locals whose address is taken.
#define OFF_THE_WALK __attribute__((noinline))

namespace {

constexpr UI4 kZHead = 8;       // length and header word
constexpr UI4 kArrayHead = 16;  // one array without its shape
constexpr UI1 kSimple = 0xF;
constexpr UI1 kNested = 0x7;

std::atomic<bool> unicodeChars{true};  // tally

UI4 BigEndianAt(const void* from) {
  UI4 word;
  memcpy(&word, from, sizeof word);
  return bswap_32(word);
}

void PutBigEndian(void* to, UI4 value) {
  value = bswap_32(value);
  memcpy(to, &value, sizeof value);
}

UI4 HeadBytes(UI2 rank) { return kArrayHead + 8u * rank; }

// Whether the elements are carried as they stand in memory.
bool IsPlain(VATYPES type) {
  switch (type) {
    case VABit:
    case VAI1:
    case VAI2:
    case VAI4:
    case VAF8:
    case VAC1:
    case VAC2:
    case VAC4:
    case VADpd:
    case VABid:
      return true;
    default:
      return false;
  }
}

UI1 Eltype(VATYPES type) {
  if (type == VAC1 && !isUnicode()) return 0;
  return static_cast<UI1>(VA2Tes[type]);
}

UI8 Size(const VARRAY* array, UI4 depth) {
  if (!array || array->rank > 15 || depth > kMaxDepth) return 0;
  UI8 size = HeadBytes(array->rank);
  if (IsPlain(VAType(array))) return size + (VADataLength(array) + UI8{7}) / 8 * 8;
  if (VAType(array) != VAPntr) return 0;

  const UI4 n = VACount(array);
  for (UI4 i = 0; i < n; ++i) {
    const UI8 child = Size(VAOwned(array, i), depth + 1);
    if (child == 0) return 0;
    size += child;
  }
  return size;
}

// Writes head and shape of an array; behind them come its data or its children.
OFF_THE_WALK void PackHead(const VARRAY* array, PCH1 target) {
  const bool nested = VAType(array) == VAPntr;
  const UI2 rank = array->rank;
  const UI8 length = rank + 3u + (VADataLength(array) + UI8{7}) / 8;
  memcpy(target, &length, sizeof length);
  target[8] = static_cast<CH1>(rank << 4 | (nested ? kNested : kSimple));
  target[9] = static_cast<CH1>(Eltype(VAType(array)));
  memset(target + 10, 0, 6);
  for (UI2 axis = 0; axis < rank; ++axis) {
    const UI8 extent = array->shape[axis];
    memcpy(target + kArrayHead + 8u * axis, &extent, sizeof extent);
  }
}

// Reads head and shape of one array at *offset, and the data of a simple one; the slots of a nested
// one are still empty. Null, with the reason in *code, on failure.
OFF_THE_WALK PAA ReadOne(const CH1* base, UI4 length, PUI4 offset, PSI4 code) {
  *code = ERR_ARCHITECTURE;
  if (*offset > length || length - *offset < kArrayHead) return nullptr;
  const UI4 left = length - *offset;
  const CH1* const block = base + *offset;
  const UI2 rank = static_cast<UI1>(block[8]) >> 4;
  const UI1 eltype = block[9] & 0xF;
  const UI4 head = HeadBytes(rank);
  if (eltype >= std::size(Tes2VA) || left < head) return nullptr;
  const VATYPES type = static_cast<VATYPES>(Tes2VA[eltype]);
  if (type == VANoType) return nullptr;

  UI4 shape[15];
  for (UI2 axis = 0; axis < rank; ++axis) {
    memcpy(&shape[axis], block + kArrayHead + 8u * axis, sizeof shape[axis]);
  }
  UI4 elements = 0;
  if (!ShapeProduct(rank, shape, &elements)) return nullptr;

  if (type == VAPntr) {
    if (elements > (left - head) / kArrayHead) return nullptr;
    PAA const array = VANew(type, rank, shape);
    *code = array ? 0 : ERR_MEMORY_ALLOC;
    *offset += head;
    return array;
  }

  UI8 words;
  memcpy(&words, block, sizeof words);
  if (words < rank + 3u || words - 1 > left / 8) return nullptr;
  const UI4 extent = static_cast<UI4>(words - 1) * 8;
  const UI4 there = extent - head;
  if ((static_cast<UI8>(VAsize[type]) * elements + 7) / 8 > there) return nullptr;

  PAA const array = VANewUnset(type, rank, shape);
  *code = array ? 0 : ERR_MEMORY_ALLOC;
  if (!array) return nullptr;
  // What is there comes in eights and holds the data, so it also holds their last whole word.
  memcpy(VAData(array), block + head, VADataLength(array));
  *offset += extent;
  return array;
}

// Reads an array with all its children; null, with the reason in *code, on failure.
PAA ReadTree(const CH1* base, UI4 length, PUI4 offset, UI4 depth, PSI4 code) {
  if (depth > kMaxDepth) {
    *code = ERR_ARCHITECTURE;
    return nullptr;
  }
  PAA const array = ReadOne(base, length, offset, code);
  if (!array || VAType(array) != VAPntr) return array;
  const UI4 n = VACount(array);
  for (UI4 i = 0; i < n; ++i) {
    PAA const child = ReadTree(base, length, offset, depth + 1, code);
    if (!child) return VAFree(array);
    VASetOwned(array, i, child);
  }
  return array;
}

}  // namespace

bool isUnicode() { return unicodeChars.load(std::memory_order_relaxed); }
void SetUnicode(bool unicode) { unicodeChars.store(unicode, std::memory_order_relaxed); }

UI4 ZLength(const void* block) { return BigEndianAt(block); }
UI4 ZHeaderWord(const void* block) { return BigEndianAt(static_cast<const CH1*>(block) + 4); }

UI8 SizeAA(const VARRAY* array) { return Size(array, 0); }

UI8 Pack(const VARRAY* array, PCH1 target) {
  PackHead(array, target);
  UI8 at = HeadBytes(array->rank);
  if (VAType(array) == VAPntr) {
    const UI4 n = VACount(array);
    for (UI4 i = 0; i < n; ++i) at += Pack(VAOwned(array, i), target + at);
    return at;
  }
  const UI4 bytes = VADataLength(array);
  memcpy(target + at, VAData(array), bytes);
  const UI4 pad = -bytes & 7u;
  memset(target + at + bytes, 0, pad);
  return at + bytes + pad;
}

SI4 Unpack(const CH1* base, UI4 length, PUI4 offset, PPAA array) {
  SI4 code = 0;
  *array = ReadTree(base, length, offset, 0, &code);
  return code;
}

SI4 ReadZ(const void* block, UI4 length, PPAA array) {
  *array = nullptr;
  if (length < kZHead || ZLength(block) != length || !IsZHeader(ZHeaderWord(block))) {
    return ERR_ARCHITECTURE;
  }
  UI4 at = kZHead;
  const SI4 code = Unpack(static_cast<const CH1*>(block), length, &at, array);
  if (code != 0) return code;
  if (at == length) return 0;
  *array = VAFree(*array);
  return ERR_ARCHITECTURE;
}

PAA UnpackZ(const UI4* block) {
  if (!block) return nullptr;
  PAA array = nullptr;
  return ReadZ(block, ZLength(block), &array) == 0 ? array : nullptr;
}

PUI4 PackZ(PAA owned) {
  const VAHOLD array(owned);
  const UI8 size = SizeAA(owned);
  if (size == 0 || size > UINT32_MAX - kZHead) return nullptr;
  const UI4 length = static_cast<UI4>(size) + kZHead;
  CH1* const block = static_cast<CH1*>(malloc(length));
  if (!block) return nullptr;

  PutBigEndian(block, length);
  PutBigEndian(block + 4, RETZHEADER);
  Pack(owned, block + kZHead);
  return reinterpret_cast<PUI4>(block);
}

PUI4 ScalarZ(UI4 value) {
  static constexpr UI1 scalarZ[32] = {0, 0, 0, 0x20, 0, 0, 0, ZHEADER, 4,
                                      0, 0, 0, 0,    0, 0, 0, 0x0F,    0x04};
  CH1* const block = static_cast<CH1*>(malloc(sizeof scalarZ));
  if (!block) return nullptr;
  memcpy(block, scalarZ, sizeof scalarZ);
  memcpy(block + 24, &value, sizeof value);
  return reinterpret_cast<PUI4>(block);
}
