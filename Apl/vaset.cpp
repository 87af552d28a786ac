// vaset.cpp - storing single elements.
#include "Apl/vaset.h"

#include <cstring>

#include "Apl/vaget.h"
#include "Apl/vatrans.h"
#include "Apl/zblock.h"
#include "decimal/cdecf.h"
#include "kyrno/base/error.h"

namespace {

bool OwnsArrays(VATYPES type) { return type == VAPntr || type == VAHet; }

void StoreF8(PAA array, size_t place, F8 value) {
  memcpy(VAData(array) + sizeof value * place, &value, sizeof value);
}

// Stores what one of the conversions to F16 makes of the value.
template <typename T>
SI4 StoreDecimal(PAA array, UI4 index, SI4 (*convert)(T, PF16), T value) {
  F16 decimal;
  const SI4 code = convert(value, &decimal);
  if (code == 0) memcpy(VAData(array) + sizeof decimal * index, &decimal, sizeof decimal);
  return code;
}

// Passes a filled array on to its slot, or leaves it with its guard when filling it had failed.
SI4 StoreMade(PAA array, UI4 index, VAHOLD made, SI4 code) {
  if (code == 0) VASetOwned(array, index, made.Release());
  return code;
}

}  // namespace

SI4 VASetSI4(PAA array, UI4 index, SI4 value) {
  if (index >= VAElems(array)) return ERR_APL_LENGTH;
  switch (VAType(array)) {
    case VAI4:
      memcpy(VAData(array) + sizeof value * static_cast<size_t>(index), &value, sizeof value);
      return 0;
    case VAF8:
    case VA2F8:
      return VASetF8(array, index, value);
    case VAHet:
      VAHetStore(array, index, VAI4, &value, sizeof value);
      return 0;
    case VAPntr: {
      VAHOLD scalar(VANew(VAI4, 0, nullptr));
      if (!scalar) return ERR_MEMORY_ALLOC;
      const SI4 code = VASetSI4(scalar.Get(), 0, value);
      return StoreMade(array, index, std::move(scalar), code);
    }
    case VADpd:
      return StoreDecimal(array, index, SI4Todpd, value);
    case VABid:
      return StoreDecimal(array, index, SI4Tobid, value);
    default:
      return ERR_APL_DOMAIN;
  }
}

SI4 VASetF8(PAA array, UI4 index, F8 value) {
  if (index >= VAElems(array)) return ERR_APL_LENGTH;
  switch (VAType(array)) {
    case VAF8:
      StoreF8(array, index, value);
      return 0;
    case VA2F8:
      StoreF8(array, 2 * static_cast<size_t>(index), value);
      StoreF8(array, 2 * static_cast<size_t>(index) + 1, 0);
      return 0;
    case VAHet:
      VAHetStore(array, index, VAF8, &value, sizeof value);
      return 0;
    case VAPntr: {
      VAHOLD scalar(VANew(VAF8, 0, nullptr));
      if (!scalar) return ERR_MEMORY_ALLOC;
      const SI4 code = VASetF8(scalar.Get(), 0, value);
      return StoreMade(array, index, std::move(scalar), code);
    }
    case VADpd:
      return StoreDecimal(array, index, F8Todpd, value);
    case VABid:
      return StoreDecimal(array, index, F8Tobid, value);
    default:
      return ERR_APL_DOMAIN;
  }
}

SI4 VASetCH1(PAA array, UI4 index, PCH10 source, UI4 length, SI2 type) {
  if (OwnsArrays(VAType(array))) {
    if (index >= VAElems(array)) return ERR_APL_LENGTH;
    VAHOLD text(VANew(VAC1, 1, &length));
    if (!text) return ERR_MEMORY_ALLOC;
    const SI4 code = VASetCH1(text.Get(), 0, source, length, type);
    return StoreMade(array, index, std::move(text), code);
  }
  if (VAType(array) != VAC1) return index >= VAElems(array) ? ERR_APL_LENGTH : ERR_APL_DOMAIN;

  const UI4 n = VACount(array);
  if (VARank(array) > 1) return ERR_APL_RANK;
  if (length > n) return ERR_APL_LENGTH;
  if (index != 0) return ERR_APL_DOMAIN;
  CH1* const text = reinterpret_cast<PCH1>(VAData(array));
  if (length > 0) memcpy(text, source, length);
  memset(text + length, ' ', n - length);
  if (type != VABIN) VA2avn(text, n);
  return 0;
}

SI4 VASetUnicode(PAA array, UI4 index, PCH10 source, UI4 size, UNICODETYPES from) {
  const UI1* const text = reinterpret_cast<const UI1*>(source);
  if (size == VAZEROTERM) {
    const SI4 units = ZeroLength(text, from);
    if (units < 0) return ERR_APL_DOMAIN;
    size = static_cast<UI4>(units) * MinUSize[from];
  }
  if (OwnsArrays(VAType(array))) {
    if (index >= VAElems(array)) return ERR_APL_LENGTH;
    UI1 width = 1;
    const size_t count = ToVAPL(text, size, from, &width);
    if (count > UINT32_MAX) return ERR_MEMORY_ALLOC;
    const UI4 shape = static_cast<UI4>(count);
    VAHOLD made(VANew(es2va[width], 1, &shape));
    if (!made) return ERR_MEMORY_ALLOC;
    const SI4 code = VASetUnicode(made.Get(), 0, source, size, from);
    return StoreMade(array, index, std::move(made), code);
  }

  UNICODETYPES to = UCS1;
  switch (VAType(array)) {
    case VAC1:
      to = isUnicode() ? UCS1 : C1AV;
      break;
    case VAC2:
      to = UCS2;
      break;
    case VAC4:
      to = UCS4;
      break;
    default:
      return ERR_APL_DOMAIN;
  }
  if (VARank(array) > 1) return ERR_APL_RANK;
  if (index != 0) return ERR_APL_DOMAIN;
  return ConvUnicode(to, VAData(array), VACount(array) * MinUSize[to], from, text, size, 0);
}

SI4 VASetpAA(PAA array, UI4 index, PAA value) {
  if (index >= VAElems(array)) return ERR_APL_LENGTH;
  if (!OwnsArrays(VAType(array))) return ERR_APL_DOMAIN;
  VASetOwned(array, index, value);
  return 0;
}
