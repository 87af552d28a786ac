// vaget.h - reading single elements of an array, in the type that the reader wants.
//
// A value may come as a simple array, as a nested scalar that holds one, or as one element of a
// heterogeneous vector; the reader does not care which. A VAC1 array counts as one string whose
// only index is 0; every other array is read by the element's place in ravel order.
//
// An empty slot has no value to give and answers ERR_APL_DOMAIN.
#pragma once

#include "Apl/vapl.h"
#include "Apl/vaunicod.h"
#include "util/freed.h"

inline constexpr SI2 VABIN = 0;   ///< bytes as they stand: character data only
inline constexpr SI2 VACHAR = 1;  ///< text: numbers as digits, translated, with a zero at its end

[[nodiscard]] SI4 VAGetSI4(const VARRAY* array, UI4 index, PSI4 result);
[[nodiscard]] SI4 VAGetF8(const VARRAY* array, UI4 index, PF8 result);

/// Bytes that VAGetCH1 delivers. With VACHAR the terminator is counted for characters and whole
/// numbers. Deliberate: for a floating number it is not, and VAGetCH1 still writes it, so a buffer
/// sized by this length has one byte more. For a decimal it is the most that its text may need.
[[nodiscard]] SI4 VAGetLen(const VARRAY* array, UI4 index, PUI4 length, SI2 type);

/// The text or bytes of one element. ERR_APL_LENGTH, and nothing written, when `size` is too small;
/// with VACHAR the text always ends in a zero.
[[nodiscard]] SI4 VAGetCH1(const VARRAY* array, UI4 index, PCH1 destination, UI4 size, SI2 type);

/// The same in a fresh block that the caller frees; null on failure.
[[nodiscard]] SI4 VAGetCH1m(const VARRAY* array, UI4 index, PCH1* result, SI2 type);
/// The text of one element, of any length; null on failure.
[[nodiscard]] SI4 ReadText(const VARRAY* array, UI4 index, TEXT* text);

/// All elements of a VAC1, VAI1 or VAI2 array as bytes. With a null destination only their count is
/// stored. Alone in its family it answers ERR_LENGTH and ERR_DOMAIN.
[[nodiscard]] SI4 VAGetBytes(const VARRAY* array, PUI1 destination, PUI4 length);

/// The bytes that VAGetUnicode delivers; 0 on failure. `type` VACHAR adds a terminator.
[[nodiscard]] SI4 VAGetUnicodeLen(const VARRAY* array, UI4 index, PUI4 length, UNICODETYPES to,
                                  SI2 type);
/// The text of one element in the encoding `to`. Digits of a heterogeneous element are never
/// converted, and its nested text is delivered as VAGetCH1 has it.
[[nodiscard]] SI4 VAGetUnicode(const VARRAY* array, UI4 index, PCH1 destination, UI4 size,
                               UNICODETYPES to, SI2 type);

/// The element as an array that the caller owns: a share of a nested one, else a new scalar. Null
/// on failure. A decimal has no scalar of its own: ERR_APL_DOMAIN.
[[nodiscard]] SI4 VAGetpAA(const VARRAY* array, UI4 index, PPAA result);
