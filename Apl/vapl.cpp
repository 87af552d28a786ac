// vapl.cpp - making, counting and releasing arrays.
#include "Apl/vapl.h"

#include <cassert>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

// Free words in front of the record. The decimal rows follow 5 - rank modulo 4 for every rank, so
// that the data of all of them stands on 16 bytes.
size_t AlignmentBytes(VATYPES type, UI2 rank) {
  switch (type) {
    case VAF8:
    case VA2F8:
    case VAApvF8:
      return rank % 2 == 0 ? 4 : 0;
    case VADpd:
    case VABid:
      return 4 * ((5u - rank) & 3u);
    default:
      return 0;
  }
}

// The record with its head filled in and its data as the allocator left it.
PAA Allocate(VATYPES type, UI2 rank, const UI4* shape, bool zeroed) {
  if (type == VANoType || type >= kTypeCount) return nullptr;
  UI4 elements = 0;
  if (!ShapeProduct(rank, shape, &elements)) return nullptr;
  if (elements == 0 && IsPointerLike(type)) elements = 1;
  const UI4 bits = VAsize[type];
  if (elements > UINT32_MAX / bits) return nullptr;

  const bool progression = type == VAApvI4 || type == VAApvF8;
  const UI8 dataBits = progression ? bits : static_cast<UI8>(bits) * elements;
  const UI4 length = static_cast<UI4>((dataBits + 32u * rank + 127) / 32 * 4);
  const size_t front = AlignmentBytes(type, rank);
  CH1* const block = static_cast<CH1*>(zeroed ? calloc(1, front + length) : malloc(front + length));
  if (!block) return nullptr;

  PAA const array = reinterpret_cast<PAA>(block + front);
  array->length = length;
  new (&array->refcount) std::atomic<UI4>(1);
  array->type = type;
  array->rank = rank;
  if (rank > 0) memcpy(array->shape, shape, sizeof(UI4) * rank);
  return array;
}

}  // namespace

PAA VANew(VATYPES type, UI2 rank, const UI4* shape) { return Allocate(type, rank, shape, true); }

PAA VANewUnset(VATYPES type, UI2 rank, const UI4* shape) {
  return Allocate(type, rank, shape, IsPointerLike(type));
}

PAA VAFree(PAA array) {
  if (!array) return nullptr;
  const UI4 before = array->refcount.fetch_sub(1, std::memory_order_acq_rel);
  assert(before != 0);
  if (before > 1) return nullptr;

  const VATYPES type = VAType(array);
  // Deliberate: the slots of a VABoxd array are not followed, it does not own what they hold.
  if (type == VAPntr || type == VAHet) {
    const UI4 n = VAElems(array);
    for (UI4 i = 0; i < n; ++i) VAFree(VAOwned(array, i));
  }
  free(reinterpret_cast<CH1*>(array) - AlignmentBytes(type, array->rank));
  return nullptr;
}

UI4 VAIncRef(PAA array) {
  // A tally: whoever shares an array has it from somebody who holds a count.
  return array->refcount.fetch_add(1, std::memory_order_relaxed) + 1;
}

UI4 VARefCount(const VARRAY* array) {
  // Pairs with the release of VAFree: who reads 1 sees all that the former owners did.
  return array->refcount.load(std::memory_order_acquire);
}

bool ShapeProduct(UI2 rank, const UI4* shape, PUI4 product) {
  *product = 0;
  UI8 n = 1;
  for (UI2 axis = 0; axis < rank; ++axis) {
    if (shape[axis] == 0) return true;
    if (n <= UINT32_MAX) n *= shape[axis];
  }
  if (n > UINT32_MAX) return false;
  *product = static_cast<UI4>(n);
  return true;
}

UI4 VACount(const VARRAY* array) {
  UI4 n = 0;
  ShapeProduct(array->rank, array->shape, &n);
  return n;
}

UI4 VAElems(const VARRAY* array) {
  const UI4 n = VACount(array);
  return n == 0 && IsPointerLike(VAType(array)) ? 1 : n;
}

VATYPES VAHetType(const VARRAY* array, UI4 index) {
  return static_cast<VATYPES>(VAData(array)[sizeof(HETELEM) * index]);
}

PUI1 VAHetData(PAA array, UI4 index) {
  return VAData(array) + sizeof(HETELEM) * index + offsetof(HETELEM, data);
}

const UI1* VAHetData(const VARRAY* array, UI4 index) {
  return VAData(array) + sizeof(HETELEM) * index + offsetof(HETELEM, data);
}

void VAHetStore(PAA array, UI4 index, VATYPES type, const void* value, size_t size) {
  VAData(array)[sizeof(HETELEM) * index] = static_cast<UI1>(type);
  memcpy(VAHetData(array, index), value, size);
}

PAA VAOwned(const VARRAY* array, UI4 index) {
  PAA owned = nullptr;
  if (VAType(array) == VAPntr) {
    memcpy(&owned, VAData(array) + sizeof owned * index, sizeof owned);
  } else if (VAType(array) == VAHet && VAHetType(array, index) == VAPntr) {
    memcpy(&owned, VAHetData(array, index), sizeof owned);
  }
  return owned;
}

void VASetOwned(PAA array, UI4 index, PAA value) {
  if (VAType(array) == VAHet) {
    VAHetStore(array, index, VAPntr, &value, sizeof value);
  } else {
    memcpy(VAData(array) + sizeof value * index, &value, sizeof value);
  }
}
