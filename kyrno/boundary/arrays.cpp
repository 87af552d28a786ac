// arrays.cpp - what the commands read and answer with.
#include "kyrno/boundary/arrays.h"

#include <cstring>

#include "Apl/vaget.h"
#include "Apl/vaset.h"
#include "Apl/zblock.h"
#include "kyrno/base/error.h"

UI4 ItemCount(const VARRAY* arg) {
  const VATYPES type = VAType(arg);
  return type == VAC1 || type == VAC2 || type == VAC4 ? 1 : VAElems(arg);
}

PAA CodeResult(SI4 code) {
  const UI4 one = 1;
  VAHOLD result(VANew(VAI4, 1, &one));
  if (!result || VASetSI4(result.Get(), 0, code)) return nullptr;
  return result.Release();
}

PUI4 CodeZ(SI4 code) {
  CH1* data = nullptr;
  PUI4 const z = VectorZ(VAI4, 1, &data);
  if (z) memcpy(data, &code, sizeof code);
  return z;
}

PAA ValueResult(PAA value) {
  VAHOLD owned(value);
  const UI4 two = 2;
  VAHOLD result(VANew(VAPntr, 1, &two));
  if (!owned || !result || VASetSI4(result.Get(), 0, 0) || VASetpAA(result.Get(), 1, owned.Get()))
    return CodeResult(ERR_MEMORY_ALLOC);
  static_cast<void>(owned.Release());
  return result.Release();
}

PAA TextValue(PCH10 text) {
  const UI4 n = static_cast<UI4>(strlen(text));
  VAHOLD value(VANew(VAC1, 1, &n));
  if (!value || VASetCH1(value.Get(), 0, text, n, VACHAR)) return nullptr;
  return value.Release();
}
