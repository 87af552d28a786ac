// vaconv.cpp - conversion of whole arrays.
#include "Apl/vaconv.h"

#include <cstring>

#include "Apl/logvapl.h"
#include "Apl/vaget.h"
#include "Apl/vaset.h"
#include "kyrno/base/error.h"
#include "kyrno/base/log.h"

static constexpr UI4 MODULE = 0x04000000;

namespace {

// What the elements of an array turned out to be.
struct CENSUS {
  bool whole = false;
  bool floating = false;
  bool chars = false;
  bool others = false;

  void Count(VATYPES type) {
    switch (type) {
      case VAI1:
      case VAI2:
      case VAI4:
      case VAC2:  // Deliberate: wide characters are counted as numbers.
      case VAC4:
        whole = true;
        break;
      case VAF8:
      case VAI8:
        floating = true;
        break;
      case VAC1:
        chars = true;
        break;
      default:
        others = true;
    }
  }
};

SI4 CopySI4(PAA target, const VARRAY* source, UI4 from, UI4 to) {
  SI4 value = 0;
  const SI4 code = VAGetSI4(source, from, &value);
  return code != 0 ? code : VASetSI4(target, to, value);
}

SI4 CopyF8(PAA target, const VARRAY* source, UI4 from, UI4 to) {
  F8 value = 0;
  const SI4 code = VAGetF8(source, from, &value);
  return code != 0 ? code : VASetF8(target, to, value);
}

// The count that VAGetpAA hands out becomes the slot's own.
SI4 CopyArray(PAA target, const VARRAY* source, UI4 index) {
  VAHOLD element;
  SI4 code = VAGetpAA(source, index, element.Out());
  if (code == 0) code = VASetpAA(target, index, element.Get());
  if (code == 0) static_cast<void>(element.Release());
  return code;
}

// One element of a nested array into a heterogeneous one.
SI4 CopyHet(PAA target, const VARRAY* source, UI4 index) {
  const VARRAY* const element = VAOwned(source, index);
  if (!element) return ERR_APL_CONVERSION;
  if (VARank(element) != 0 || VAType(element) == VAPntr) return CopyArray(target, source, index);
  switch (VAType(element)) {
    case VABit:
    case VAI1:
    case VAI2:
    case VAI4:
      return CopySI4(target, element, 0, index);
    case VAF8:
    case VAI8:
      return CopyF8(target, element, 0, index);
    case VAC1: {
      CH1 text[2];
      const SI4 code = VAGetCH1(element, 0, text, sizeof text, VACHAR);
      if (code == 0) VAHetStore(target, index, VAC1, text, sizeof text);
      return code;
    }
    default:
      return ERR_APL_CONVERSION;
  }
}

SI4 CopyElement(PAA target, const VARRAY* source, UI4 index) {
  switch (VAType(target)) {
    case VAI4:
      return CopySI4(target, source, index, index);
    case VAF8:
      return CopyF8(target, source, index, index);
    case VAPntr:
      return CopyArray(target, source, index);
    case VAHet:
      return VAType(source) == VAPntr ? CopyHet(target, source, index) : ERR_APL_CONVERSION;
    default:
      return ERR_APL_CONVERSION;
  }
}

bool IsReinterpretation(VATYPES from, VATYPES to) {
  return (from == VAC1 && to == VAI1) || (from == VAC2 && to == VAI2) ||
         (from == VAC4 && to == VAI4);
}

// A copy of a nested or heterogeneous array that shares what the elements hold.
PAA CopySpine(const VARRAY* array) {
  PAA const copy = VANew(VAType(array), VARank(array), VAShape(array));
  if (!copy) return nullptr;
  memcpy(VAData(copy), VAData(array), VADataLength(array));
  const UI4 n = VAElems(array);
  for (UI4 i = 0; i < n; ++i) {
    PAA const child = VAOwned(copy, i);
    if (child) VAIncRef(child);
  }
  return copy;
}

// One walk to normal form; `code` is what stopped it.
struct NORMWALK {
  const SI2* const toVA;
  const SI2* const fromVA;
  SI4 code = 0;
};

// Takes a count and gives one back: of the array as the type of its normal form, ready for its
// elements to be replaced, or of the array as it was. In a frame of its own, since the walk below
// may be 1,024 deep on a small stack.
__attribute__((noinline)) PAA NormType(PAA owned, NORMWALK* walk) {
  VAHOLD array(owned);
  VAHOLD normal;
  const VATYPES type = static_cast<VATYPES>(walk->toVA[walk->fromVA[VACheckType(owned)]]);
  walk->code = VAConv(owned, type, normal.Out());
  if (walk->code != 0) return array.Release();
  array = std::move(normal);
  if (type != VAPntr && type != VAHet) return array.Release();
  // Somebody else may be reading an array that is shared: only one of our own is changed.
  if (VARefCount(array.Get()) > 1) {
    normal = VAHOLD(CopySpine(array.Get()));
    if (!normal) {
      walk->code = ERR_APL_ALLOC;
      return array.Release();
    }
    array = std::move(normal);
  }
  return array.Release();
}

PAA Norm(PAA owned, NORMWALK* walk, UI4 depth) {
  if (depth > kMaxDepth) {
    walk->code = ERR_APL_CONVERSION;
    return owned;
  }
  PAA const array = NormType(owned, walk);
  if (VAType(array) != VAPntr && VAType(array) != VAHet) return array;
  const UI4 n = VAElems(array);
  for (UI4 i = 0; i < n && walk->code == 0; ++i) {
    PAA const child = VAOwned(array, i);
    if (child) VASetOwned(array, i, Norm(child, walk, depth + 1));
  }
  return array;
}

}  // namespace

VATYPES VAEndType(const VARRAY* array) {
  for (;;) {
    LOG(1, ("VAEndType"));
    if (!array || VARank(array) != 0 || VAElems(array) != 1) return VAPntr;
    const bool pointer =
        VAType(array) == VAPntr || (VAType(array) == VAHet && VAHetType(array, 0) == VAPntr);
    if (!pointer) return VAType(array);
    array = VAOwned(array, 0);
  }
}

VATYPES VACheckType(const VARRAY* array) {
  LOG(1, ("VACheckType"));
  if (VAType(array) != VAPntr && VAType(array) != VAHet) return VAType(array);

  CENSUS census;
  const UI4 n = VAElems(array);
  for (UI4 i = 0; i < n; ++i) {
    const bool pointer = VAType(array) == VAPntr || VAHetType(array, i) == VAPntr;
    census.Count(pointer ? VAEndType(VAOwned(array, i)) : VAHetType(array, i));
  }
  const bool numbers = census.whole || census.floating;
  if (numbers + census.chars + census.others != 1) return VAHet;
  if (numbers) return census.floating ? VAF8 : VAI4;
  return census.chars ? VAC1 : VAPntr;
}

SI4 convdata(PAA target, PAA source) {
  LOG(1, ("convdata"));
  if (IsReinterpretation(VAType(source), VAType(target))) {
    memcpy(VAData(target), VAData(source), VADataLength(source));
    return 0;
  }
  SI4 result = 0;
  const UI4 n = VAElems(source);
  for (UI4 i = 0; i < n; ++i) {
    if (CopyElement(target, source, i) == 0) continue;
    result = ERR_APL_CONVERSION;
    if (VAType(target) != VAPntr) break;  // a nested target gets all that can be had
  }
  return result;
}

SI4 VAConv(PAA source, VATYPES type, PPAA result) {
  LOG(1, ("VAConv"));
  LOGAA(9, source);
  *result = nullptr;
  if (VAType(source) == type) {
    VAIncRef(source);
    *result = source;
    return 0;
  }
  VAHOLD target(VANew(type, VARank(source), VAShape(source)));
  if (!target) return ERR_APL_ALLOC;
  const SI4 code = convdata(target.Get(), source);
  if (code == 0) *result = target.Release();
  return code;
}

SI4 VANorm(PPAA array, const SI2* toVA, const SI2* fromVA) {
  NORMWALK walk{toVA, fromVA};
  *array = Norm(*array, &walk, 0);
  return walk.code;
}
