// zblock.cpp - reading and writing Z blocks.
#include "Apl/zblock.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cstring>
#include <utility>

#include "Apl/vatrans.h"
#include "kyrno/base/error.h"
#include "util/blockstore.h"
#include "util/wire.h"

// A nested array may be 1,024 deep and the stack small: what is not the walk itself stays in frames
// of its own, and the walks have no locals whose address is taken.
#define OFF_THE_WALK __attribute__((noinline))

namespace {

constexpr UI4 kArrayHead = 16;  // one array without its shape
constexpr UI1 kSimple = 0xF;
constexpr UI1 kNested = 0x7;

std::atomic<bool> unicodeChars{true};  // tally

constexpr UI4 HeadBytes(UI2 rank) { return kArrayHead + 8u * rank; }

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

// Writes the head of an array without its shape; a nested one counts 8 bytes of data for each item.
void PutHead(VATYPES type, UI2 rank, UI8 dataBytes, PCH1 target) {
  const bool nested = type == VAPntr;
  const UI8 length = rank + 3u + (dataBytes + 7) / 8;
  memcpy(target, &length, sizeof length);
  target[8] = static_cast<CH1>(rank << 4 | (nested ? kNested : kSimple));
  target[9] = static_cast<CH1>(Eltype(type));
  memset(target + 10, 0, 6);
}

// The same of a vector, with its shape.
void PutVectorHead(VATYPES type, UI4 n, UI8 dataBytes, PCH1 target) {
  PutHead(type, 1, dataBytes, target);
  const UI8 extent = n;
  memcpy(target + kArrayHead, &extent, sizeof extent);
}

// Writes head and shape of an array; behind them come its data or its children.
OFF_THE_WALK void PackHead(const VARRAY* array, PCH1 target) {
  PutHead(VAType(array), array->rank, VADataLength(array), target);
  for (UI2 axis = 0; axis < array->rank; ++axis) {
    const UI8 extent = array->shape[axis];
    memcpy(target + kArrayHead + 8u * axis, &extent, sizeof extent);
  }
}

// Head and shape of one array in a block, judged against what is left of the block.
struct ARRAYHEAD {
  VATYPES type;
  UI2 rank;
  UI4 shape[15];
  UI4 elements;
  UI4 bytes;   // of head and shape
  UI4 extent;  // of a simple array in the block, its data included
};

OFF_THE_WALK bool ReadHead(const CH1* block, UI4 left, ARRAYHEAD* head) {
  head->elements = 0;
  if (left < kArrayHead) return false;
  head->rank = static_cast<UI1>(block[8]) >> 4;
  head->bytes = HeadBytes(head->rank);
  const UI1 eltype = block[9] & 0xF;
  if (eltype >= std::size(Tes2VA) || left < head->bytes) return false;
  head->type = static_cast<VATYPES>(Tes2VA[eltype]);
  if (head->type == VANoType) return false;
  for (UI2 axis = 0; axis < head->rank; ++axis) {
    UI8 extent;
    memcpy(&extent, block + kArrayHead + 8u * axis, sizeof extent);
    if (extent > UINT32_MAX) return false;
    head->shape[axis] = static_cast<UI4>(extent);
  }
  if (!ShapeProduct(head->rank, head->shape, &head->elements)) return false;
  if (head->type == VAPntr) return head->elements <= (left - head->bytes) / kArrayHead;

  UI8 words;
  memcpy(&words, block, sizeof words);
  if (words < head->rank + 3u || words - 1 > left / 8) return false;
  head->extent = static_cast<UI4>(words - 1) * 8;
  return (static_cast<UI8>(VAsize[head->type]) * head->elements + 7) / 8 <=
         head->extent - head->bytes;
}

// Reads head and shape of one array at *offset, and the data of a simple one; the slots of a nested
// one are still empty. Null, with the reason in *code, on failure.
OFF_THE_WALK PAA ReadOne(const CH1* base, UI4 length, PUI4 offset, PSI4 code) {
  ARRAYHEAD head;
  *code = ERR_ARCHITECTURE;
  if (*offset > length || !ReadHead(base + *offset, length - *offset, &head)) return nullptr;
  const bool nested = head.type == VAPntr;
  PAA const array = nested ? VANew(head.type, head.rank, head.shape)
                           : VANewUnset(head.type, head.rank, head.shape);
  *code = array ? 0 : ERR_MEMORY_ALLOC;
  if (!array) return nullptr;
  // What is there comes in eights and holds the data, so it also holds their last whole word.
  if (!nested) memcpy(VAData(array), base + *offset + head.bytes, VADataLength(array));
  *offset += nested ? head.bytes : head.extent;
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
void SetUnicode(bool unicode) {
  // All calls say the same: a store each time would take the line from the other threads.
  if (isUnicode() != unicode) unicodeChars.store(unicode, std::memory_order_relaxed);
}

UI4 ZLength(const void* block) { return GetUI4(block); }
UI4 ZHeaderWord(const void* block) { return GetUI4(static_cast<const CH1*>(block) + 4); }

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
  CH1* const block = static_cast<CH1*>(BlockAlloc(length));
  if (!block) return nullptr;

  PutUI4(block, length);
  PutUI4(block + 4, RETZHEADER);
  Pack(owned, block + kZHead);
  return reinterpret_cast<PUI4>(block);
}

bool ViewZ(const void* block, UI4 length, ZVIEW* view) {
  if (length < kZHead || ZLength(block) != length || !IsZHeader(ZHeaderWord(block))) return false;
  const CH1* const top = static_cast<const CH1*>(block) + kZHead;
  ARRAYHEAD head;
  if (!ReadHead(top, length - kZHead, &head)) return false;
  if (head.type == VAPntr || head.extent != length - kZHead) return false;
  *view = {head.type, head.rank, head.elements, top + head.bytes};
  return true;
}

bool ViewNext(const void* block, UI4 length, PUI4 offset, ZVIEW* view) {
  if (*offset == 0) {
    if (length < kZHead || ZLength(block) != length || !IsZHeader(ZHeaderWord(block))) return false;
    *offset = kZHead;
  }
  ARRAYHEAD head;
  const CH1* const array = static_cast<const CH1*>(block) + *offset;
  if (*offset > length || !ReadHead(array, length - *offset, &head)) return false;
  *view = {head.type, head.rank, head.elements, array + head.bytes};
  *offset += head.type == VAPntr ? head.bytes : head.extent;
  return true;
}

SI4 ViewBytes(const ZVIEW& view, PUI1 to) {
  if (view.type == VAC1 || view.type == VAI1) {
    if (view.count > 0) memcpy(to, view.data, view.count);
    if (view.type == VAC1) VA2ascn(reinterpret_cast<PCH1>(to), view.count);
    return 0;
  }
  if (view.type != VAI2) return ERR_LENGTH;
  for (UI4 i = 0; i < view.count; ++i) {
    SI2 element;
    memcpy(&element, view.data + sizeof element * i, sizeof element);
    if (element < -128 || element > 255) return ERR_DOMAIN;
    to[i] = static_cast<UI1>(element);
  }
  return 0;
}

bool ViewNumber(const ZVIEW& item, PSI4 number) {
  if (item.count != 1) return false;
  switch (item.type) {
    case VABit:
      *number = static_cast<UI1>(*item.data) >> 7;
      return true;
    case VAI1: {
      const SI4 byte = static_cast<UI1>(*item.data);
      *number = byte < 128 ? byte : byte - 256;
      return true;
    }
    case VAI2: {
      SI2 value;
      memcpy(&value, item.data, sizeof value);
      *number = value;
      return true;
    }
    case VAI4:
      memcpy(number, item.data, sizeof *number);
      return true;
    default:
      return false;
  }
}

UI4 ViewItems(const void* block, UI4 length, ZVIEW* items, UI4 max) {
  UI4 at = 0;
  ZVIEW top;
  if (!ViewNext(block, length, &at, &top)) return 0;
  if (top.type != VAPntr) {
    *items = top;
    return at == length ? 1 : 0;
  }
  if (top.rank != 1 || top.count > max) return 0;
  for (UI4 i = 0; i < top.count; ++i) {
    if (!ViewNext(block, length, &at, &items[i]) || items[i].type == VAPntr) return 0;
  }
  return at == length ? top.count : 0;
}

namespace {

/// Bytes of n elements, and with the padding behind them.
UI8 DataBytes(VATYPES type, UI4 n) { return (static_cast<UI8>(VAsize[type]) * n + 7) / 8; }
UI8 Padded(UI8 bytes) { return (bytes + 7) / 8 * 8; }

}  // namespace

UI4 VectorZTail(VATYPES type, UI4 n) {
  const UI8 bytes = DataBytes(type, n);
  return static_cast<UI4>(Padded(bytes) - bytes);
}

void FinishVectorZ(PCH1 block, VATYPES type, UI4 n) {
  static_assert(kVectorZHead == kZHead + HeadBytes(1));
  const UI8 bytes = DataBytes(type, n);
  const UI8 padded = Padded(bytes);
  PutUI4(block, static_cast<UI4>(kVectorZHead + padded));
  PutUI4(block + 4, RETZHEADER);

  PutVectorHead(type, n, bytes, block + kZHead);
  memset(block + kVectorZHead + bytes, 0, padded - bytes);
}

PUI4 VectorZ(VATYPES type, UI4 n, PCH1* data) {
  const UI8 length = kVectorZHead + Padded(DataBytes(type, n));
  if (!IsPlain(type) || length > UINT32_MAX) return nullptr;
  CH1* const block = static_cast<CH1*>(BlockAlloc(length));
  if (!block) return nullptr;
  FinishVectorZ(block, type, n);
  *data = block + kVectorZHead;
  return reinterpret_cast<PUI4>(block);
}

PUI4 ScalarZ(UI4 value) {
  static constexpr UI1 scalarZ[32] = {0, 0, 0, 0x20, 0, 0, 0, ZHEADER, 4,
                                      0, 0, 0, 0,    0, 0, 0, 0x0F,    0x04};
  CH1* const block = static_cast<CH1*>(BlockAlloc(sizeof scalarZ));
  if (!block) return nullptr;
  memcpy(block, scalarZ, sizeof scalarZ);
  memcpy(block + 24, &value, sizeof value);
  return reinterpret_cast<PUI4>(block);
}

UI4 ZWRITER::VectorBytes(VATYPES type, UI4 n) {
  return HeadBytes(1) + static_cast<UI4>(Padded(DataBytes(type, n)));
}

ZWRITER::ZWRITER(UI4 bytes) : ZWRITER(static_cast<PCH1>(BlockAlloc(kZHead + UI8{bytes})), bytes) {}

ZWRITER::ZWRITER(PCH1 owned, UI4 bytes) : block(owned), at(owned) {
  if (!block) return;
  PutUI4(block, kZHead + bytes);
  PutUI4(block + 4, RETZHEADER);
  at += kZHead;
}

ZWRITER::~ZWRITER() { BlockFree(block); }

PCH1 ZWRITER::Vector(VATYPES type, UI4 n) {
  const UI8 bytes = DataBytes(type, n);
  PutVectorHead(type, n, bytes, at);
  CH1* const data = at + HeadBytes(1);
  at = data + Padded(bytes);
  memset(data + bytes, 0, static_cast<size_t>(at - (data + bytes)));
  return data;
}

void ZWRITER::Nested(UI4 n) {
  static_assert(kNestedBytes == HeadBytes(1));
  PutVectorHead(VAPntr, n, UI8{n} * sizeof(PAA), at);
  at += kNestedBytes;
}

void ZWRITER::Matrix(VATYPES type, UI4 rows, UI4 columns) {
  static_assert(kMatrixBytes == HeadBytes(2));
  // Without rows a nested one still has its prototype, for which the size word counts.
  const UI8 items = std::max<UI8>(UI8{rows} * columns, type == VAPntr ? 1 : 0);
  PutHead(type, 2, items * sizeof(PAA), at);
  const UI8 shape[] = {rows, columns};
  memcpy(at + kArrayHead, shape, sizeof shape);
  at += kMatrixBytes;
}

void ZWRITER::Int(SI4 value) {
  static_assert(kIntBytes == HeadBytes(0) + 8);
  PutHead(VAI4, 0, sizeof value, at);
  const UI8 padded = static_cast<UI4>(value);
  memcpy(at + HeadBytes(0), &padded, sizeof padded);
  at += kIntBytes;
}

void ZWRITER::Text(PCH10 text, UI4 n) {
  CH1* const data = Vector(VAC1, n);
  if (n > 0) memcpy(data, text, n);
  VA2avn(data, n);
}

void ZWRITER::Floats(const F8* values, UI4 n) {
  CH1* const data = Vector(VAF8, n);
  if (n > 0) memcpy(data, values, n * sizeof *values);
}

PUI4 ZWRITER::Finish() {
  assert(at == block + ZLength(block));
  return reinterpret_cast<PUI4>(std::exchange(block, nullptr));
}
