// vaget.cpp - reading single elements.
#include "Apl/vaget.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "Apl/vatrans.h"
#include "Apl/zblock.h"
#include "decimal/cdecf.h"
#include "kyrno/base/error.h"
#include "kyrno/base/log.h"

static constexpr UI4 MODULE = 0x08000000;

namespace {

// One element, whatever array it stands in.
struct ELEM {
  enum KIND { Whole, Float, Decimal, Char, Array };

  KIND kind = Whole;
  bool het = false;  // it stands in a heterogeneous array
  SI4 whole = 0;
  F8 real = 0;
  F16 decimal = {};
  bool packed = false;  // the decimal is densely packed
  CH1 ch = 0;
  PAA array = nullptr;  // borrowed from the array that was read

  SI4 SetWhole(SI4 value) {
    kind = Whole;
    whole = value;
    return 0;
  }
  SI4 SetFloat(F8 value) {
    kind = Float;
    real = value;
    return 0;
  }
  SI4 SetDecimal(F16 value, bool isPacked) {
    kind = Decimal;
    decimal = value;
    packed = isPacked;
    return 0;
  }
  SI4 SetArray(PAA value) {
    kind = Array;
    array = value;
    return value ? 0 : ERR_APL_DOMAIN;
  }
};

template <typename T>
T At(const UI1* data, size_t place) {
  T value;
  memcpy(&value, data + sizeof(T) * place, sizeof value);
  return value;
}

// An element of one of the types that simple and heterogeneous arrays have in common.
SI4 ReadCommon(VATYPES type, const UI1* data, size_t place, ELEM* e) {
  switch (type) {
    case VABit:
      return e->SetWhole(data[place / 8] >> (7 - place % 8) & 1);
    case VAI1:
      return e->SetWhole(At<SI1>(data, place));
    case VAI2:
      return e->SetWhole(At<SI2>(data, place));
    case VAI4:
      return e->SetWhole(At<SI4>(data, place));
    case VAF8:
      return e->SetFloat(At<F8>(data, place));
    case VAPntr:
      return e->SetArray(At<PAA>(data, place));
    default:
      return ERR_APL_DOMAIN;
  }
}

SI4 ReadHet(const VARRAY* array, UI4 index, ELEM* e) {
  e->het = true;
  const VATYPES type = VAHetType(array, index);
  const UI1* const data = VAHetData(array, index);
  if (type != VAC1) return ReadCommon(type, data, 0, e);
  e->kind = ELEM::Char;
  e->ch = static_cast<CH1>(*data);
  return 0;
}

// Any element but the text of a character array.
SI4 ReadElem(const VARRAY* array, UI4 index, ELEM* e) {
  *e = ELEM();
  if (index >= VAElems(array)) return ERR_APL_LENGTH;
  const UI1* const data = VAData(array);
  switch (VAType(array)) {
    case VA2F8:
      // Written so that a NaN fails too.
      if (!(At<F8>(data, 2 * static_cast<size_t>(index) + 1) == 0)) return ERR_APL_DOMAIN;
      return e->SetFloat(At<F8>(data, 2 * static_cast<size_t>(index)));
    case VAApvI4:
      return e->SetWhole(static_cast<SI4>(At<UI4>(data, 0) + index * At<UI4>(data, 1)));
    case VAApvF8:
      return e->SetFloat(At<F8>(data, 0) + index * At<F8>(data, 1));
    case VADpd:
    case VABid:
      return e->SetDecimal(At<F16>(data, index), VAType(array) == VADpd);
    case VAHet:
      return ReadHet(array, index, e);
    default:
      return ReadCommon(VAType(array), data, index, e);
  }
}

// The element that a single value ends in, never an array.
SI4 ReadSingle(const VARRAY* array, UI4 index, ELEM* e) {
  for (;;) {
    const SI4 code = ReadElem(array, index, e);
    if (code != 0 || e->kind != ELEM::Array) return code;
    if (VAElems(e->array) != 1) return ERR_APL_INDEX;
    array = e->array;
    index = 0;
  }
}

// A whole double as SI4. Deliberate: the bounds are those of 64 bits, and what lies between them
// and 32 bits reads as the least SI4, as the processor converts it.
SI4 ToSI4(F8 value, PSI4 result) {
  F8 whole = 0;
  if (!(std::modf(value, &whole) == 0)) return ERR_APL_DOMAIN;
  if (whole < -0x1p63 || whole > 0x1p63) return ERR_APL_DOMAIN;
  const bool fits = whole >= INT32_MIN && whole <= INT32_MAX;
  *result = fits ? static_cast<SI4>(whole) : INT32_MIN;
  return 0;
}

// The number as a double: a decimal one correctly rounded.
SI4 RealOf(const ELEM& e, PF8 result) {
  switch (e.kind) {
    case ELEM::Whole:
      *result = e.whole;
      return 0;
    case ELEM::Float:
      *result = e.real;
      return 0;
    case ELEM::Decimal:
      return (e.packed ? dpdToF8 : bidToF8)(&e.decimal, result);
    default:
      return ERR_APL_DOMAIN;
  }
}

constexpr UI4 kMaxDigits = MaxDecfStrLen();
constexpr UI4 kHetNumberLen = 30;

// The digits of a number without a terminator, as "%d" and "%G" print them in the C locale: the
// process may have set another one. `out` has room for kMaxDigits.
UI4 Digits(const ELEM& e, PCH1 out) {
  if (e.kind == ELEM::Decimal) {
    (e.packed ? dpdToCH1 : bidToCH1)(&e.decimal, out, kMaxDigits);
    return static_cast<UI4>(strlen(out));
  }
  CH1* const end = out + kMaxDigits;
  if (e.kind == ELEM::Whole) return static_cast<UI4>(std::to_chars(out, end, e.whole).ptr - out);
  CH1* const stop = std::to_chars(out, end, e.real, std::chars_format::general, 6).ptr;
  for (CH1* c = out; c < stop; ++c) {
    if (*c >= 'a' && *c <= 'z') *c = static_cast<CH1>(*c - 'a' + 'A');
  }
  return static_cast<UI4>(stop - out);
}

// Where a text ends up: a whole VAC1 array, or an element that is none.
struct FOUNDTEXT {
  const VARRAY* string = nullptr;
  ELEM e;
};

SI4 FindText(const VARRAY* array, UI4 index, FOUNDTEXT* text) {
  for (;;) {
    if (VAType(array) == VAC1) {
      if (VARank(array) > 1) return ERR_APL_RANK;
      if (index != 0) return ERR_APL_DOMAIN;
      text->string = array;
      return 0;
    }
    const SI4 code = ReadElem(array, index, &text->e);
    if (code != 0 || text->e.kind != ELEM::Array) return code;
    const VARRAY* const inner = text->e.array;
    // Deliberate: a heterogeneous element is read through to the first of many.
    if (!text->e.het && VAType(inner) != VAC1 && VAElems(inner) != 1) return ERR_APL_LENGTH;
    array = inner;
    index = 0;
  }
}

// Copies a text and, with VACHAR, ends and translates it.
SI4 Deliver(const void* source, UI4 length, PCH1 destination, UI4 size, SI2 type) {
  const UI4 terminator = type == VABIN ? 0 : 1;
  if (size < terminator || size - terminator < length) return ERR_APL_LENGTH;
  if (length > 0) memcpy(destination, source, length);
  if (terminator == 0) return 0;
  destination[length] = 0;
  return 0;
}

bool IsCharArray(VATYPES type) { return type == VAC1 || type == VAC2 || type == VAC4; }

UNICODETYPES EncodingOf(VATYPES type) {
  if (type == VAC2) return UCS2;
  if (type == VAC4) return UCS4;
  return isUnicode() ? UCS1 : C1AV;
}

// A heterogeneous element as text. Deliberate: the target encoding is not heeded here.
SI4 HetText(const ELEM& e, PUI1 destination, PUI4 size, SI2 type) {
  CH1* const out = reinterpret_cast<PCH1>(destination);
  if (e.kind == ELEM::Array) {
    return out ? VAGetCH1(e.array, 0, out, *size, type) : VAGetLen(e.array, 0, size, type);
  }
  CH1 text[kMaxDigits + 1];
  UI4 length = 1;
  if (e.kind == ELEM::Char) {
    text[0] = e.ch;
    VA2ascn(text, 1);
  } else {
    length = Digits(e, text);
  }
  if (!out) {
    *size = length;
    return 0;
  }
  if (*size < length) return ERR_APL_LENGTH;
  memcpy(out, text, length);
  // The length does not count a terminator, so it is written only where there is room.
  if (*size > length) out[length] = 0;
  return 0;
}

// Converts, or measures into *size with a null destination.
SI4 UnicodeText(const VARRAY* array, UI4 index, PUI1 destination, PUI4 size, UNICODETYPES to,
                SI2 type) {
  for (;;) {
    if (IsCharArray(VAType(array))) {
      if (VARank(array) > 1) return ERR_APL_RANK;
      if (index != 0) return ERR_APL_DOMAIN;
      const UNICODETYPES from = EncodingOf(VAType(array));
      return ConvUnicodeM(to, destination, size, from, VAData(array),
                          VACount(array) * MinUSize[from], type);
    }
    ELEM e;
    SI4 code = ReadElem(array, index, &e);
    if (code != 0) return code;
    if (e.het) return HetText(e, destination, size, type);
    if (e.kind != ELEM::Array) {
      CH1 digits[kMaxDigits + 1];
      code = VAGetCH1(array, index, digits, sizeof digits, type);
      if (code != 0) return code;
      return ConvUnicodeM(to, destination, size, UCS1, reinterpret_cast<const UI1*>(digits),
                          static_cast<UI4>(strlen(digits)), type);
    }
    if (!IsCharArray(VAType(e.array)) && VAElems(e.array) != 1) return ERR_APL_LENGTH;
    array = e.array;
    index = 0;
  }
}

}  // namespace

SI4 VAGetSI4(const VARRAY* array, UI4 index, PSI4 result) {
  *result = 0;
  ELEM e;
  SI4 code = ReadSingle(array, index, &e);
  if (code != 0) return code;
  if (e.kind == ELEM::Whole) {
    *result = e.whole;
    return 0;
  }
  F8 real = 0;
  code = RealOf(e, &real);
  if (code == 0) code = ToSI4(real, result);
  if (code != 0 || e.kind != ELEM::Decimal) return code;
  // Deliberate: the double decides whether it is a whole number, the decimal then which one: 34
  // nines behind the point pass the test as 1 and read as 0.
  return (e.packed ? dpdToSI4 : bidToSI4)(&e.decimal, result);
}

SI4 VAGetF8(const VARRAY* array, UI4 index, PF8 result) {
  ELEM e;
  const SI4 code = ReadSingle(array, index, &e);
  return code != 0 ? code : RealOf(e, result);
}

SI4 VAGetLen(const VARRAY* array, UI4 index, PUI4 length, SI2 type) {
  FOUNDTEXT text;
  const SI4 code = FindText(array, index, &text);
  if (code != 0) return code;
  const UI4 terminator = type == VABIN ? 0 : 1;
  if (text.string || text.e.kind == ELEM::Char) {
    *length = (text.string ? VACount(text.string) : 1) + terminator;
    return 0;
  }
  if (type == VABIN) return ERR_APL_DOMAIN;
  if (text.e.het) {
    *length = kHetNumberLen;
    return 0;
  }
  if (text.e.kind == ELEM::Decimal) {
    *length = MaxDecfStrLen();
    return 0;
  }
  CH1 digits[kMaxDigits];
  *length = Digits(text.e, digits) + (text.e.kind == ELEM::Whole ? terminator : 0);
  return 0;
}

SI4 VAGetCH1(const VARRAY* array, UI4 index, PCH1 destination, UI4 size, SI2 type) {
  FOUNDTEXT text;
  SI4 code = FindText(array, index, &text);
  if (code != 0) return code;
  if (!text.string && text.e.kind != ELEM::Char) {
    if (type == VABIN) return ERR_APL_DOMAIN;
    CH1 digits[kMaxDigits];
    return Deliver(digits, Digits(text.e, digits), destination, size, type);
  }
  const UI4 length = text.string ? VACount(text.string) : 1;
  const void* const source =
      text.string ? static_cast<const void*>(VAData(text.string)) : &text.e.ch;
  code = Deliver(source, length, destination, size, type);
  if (code == 0 && type != VABIN) VA2ascn(destination, length);
  return code;
}

SI4 VAGetCH1m(const VARRAY* array, UI4 index, PCH1* result, SI2 type) {
  *result = nullptr;
  UI4 length = 0;
  SI4 code = VAGetLen(array, index, &length, type);
  if (code != 0) return code;
  LOG(4, ("VAGetCH1m len %lu", static_cast<unsigned long>(length)));
  const UI4 size = length + 5;
  CH1* const text = static_cast<PCH1>(malloc(size));
  if (!text) return ERR_APL_ALLOC;
  memset(text + length, 0, size - length);  // ends bytes like text
  code = VAGetCH1(array, index, text, size, type);
  if (code == 0) {
    *result = text;
    return 0;
  }
  LOG(4, ("VAGetCH1m error %ld", static_cast<long>(code)));
  free(text);
  return code;
}

SI4 ReadText(const VARRAY* array, UI4 index, TEXT* text) {
  PCH1 read = nullptr;
  const SI4 code = VAGetCH1m(array, index, &read, VACHAR);
  text->reset(read);
  return code;
}

SI4 VAGetBytes(const VARRAY* array, PUI1 destination, PUI4 length) {
  const VATYPES type = VAType(array);
  const UI4 n = VAElems(array);
  const bool bytes = type == VAC1 || type == VAI1 || type == VAI2;
  if (!destination && bytes) {
    *length = n;
    return 0;
  }
  if (*length < n) return ERR_LENGTH;
  if (!bytes) return ERR_DOMAIN;
  if (type == VAI2) {
    for (UI4 i = 0; i < n; ++i) {
      const SI2 value = At<SI2>(VAData(array), i);
      if (value < -128 || value > 255) return ERR_DOMAIN;
      destination[i] = static_cast<UI1>(value);
    }
    return 0;
  }
  if (n > 0) memcpy(destination, VAData(array), n);
  if (type == VAC1) VA2ascn(reinterpret_cast<PCH1>(destination), n);
  return 0;
}

SI4 VAGetUnicodeLen(const VARRAY* array, UI4 index, PUI4 length, UNICODETYPES to, SI2 type) {
  const SI4 code = UnicodeText(array, index, nullptr, length, to, type);
  if (code != 0) *length = 0;
  return code;
}

SI4 VAGetUnicode(const VARRAY* array, UI4 index, PCH1 destination, UI4 size, UNICODETYPES to,
                 SI2 type) {
  return UnicodeText(array, index, reinterpret_cast<PUI1>(destination), &size, to, type);
}

SI4 VAGetpAA(const VARRAY* array, UI4 index, PPAA result) {
  *result = nullptr;
  ELEM e;
  const SI4 code = ReadElem(array, index, &e);
  if (code != 0) return code;
  if (e.kind == ELEM::Array) {
    VAIncRef(e.array);
    *result = e.array;
    return 0;
  }
  if (e.kind == ELEM::Decimal) return ERR_APL_DOMAIN;
  const VATYPES type = e.kind == ELEM::Whole ? VAI4 : e.kind == ELEM::Float ? VAF8 : VAC1;
  PAA const scalar = VANew(type, 0, nullptr);
  if (!scalar) return ERR_MEMORY_ALLOC;
  switch (e.kind) {
    case ELEM::Whole:
      memcpy(VAData(scalar), &e.whole, sizeof e.whole);
      break;
    case ELEM::Float:
      memcpy(VAData(scalar), &e.real, sizeof e.real);
      break;
    default:
      *VAData(scalar) = static_cast<UI1>(e.ch);
  }
  *result = scalar;
  return 0;
}
