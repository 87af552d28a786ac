// vaunicod.h - conversion of text between the encodings that an array and a peer may use.
//
// Units of more than one byte are in the machine's order. All sizes and positions are in bytes.
#pragma once

#include <cstddef>

#include "Apl/vapl.h"

enum UNICODETYPES : UI1 {
  C1AV = 0,  ///< the interpreter's own one-byte set
  UCS1 = 1,
  UCS2 = 2,
  UCS4 = 3,
  UTF8 = 4,
  UTF16 = 5,
};

/// Bytes of the smallest unit, by UNICODETYPES.
inline constexpr UI1 MinUSize[6] = {1, 1, 2, 4, 1, 2};

/// Character type of an element, by its width in bytes: 1, 2 or 4.
inline constexpr VATYPES es2va[5] = {VAC1, VAC1, VAC2, VAC4, VAC4};

/// The number of characters of UTF-8 text up to its end or a zero byte, with the element width that
/// holds them; size_t(-1) when the text would not convert whole: a sequence that is cut, overlong,
/// above U+10FFFF, or a stray continuation byte. The text must be complete.
size_t utf8_lenStrict(const UI1* text, size_t size, PUI1 width);

/// Writes one code point at `position`, or measures it with a null destination. The bytes that it
/// takes; -1 when there is no room, -2 when the encoding has no such character.
SI4 PutUnicodeC(UNICODETYPES to, PUI1 destination, UI4 size, UI4 position, UI4 codepoint);

/// How many elements of which width hold a text. Deliberate: for UCS2 and UCS4 the count is the
/// byte size, so that the array comes out longer than the text.
size_t ToVAPL(const UI1* source, size_t size, UNICODETYPES from, PUI1 width);

/// Units before the zero unit, or -1 for an unknown encoding.
SI4 ZeroLength(const UI1* source, UNICODETYPES from);

/// Converts up to the end of the source, a zero code point, a malformed UTF-8 sequence, or the end
/// of the destination, and adds a zero if `terminate`. With a null destination it measures into
/// *size, also when an error stops it. ERR_UTF8 above U+10FFFF, ERR_APL_LENGTH without room for a
/// whole character, ERR_APL_DOMAIN for one that the target does not have.
[[nodiscard]] SI4 ConvUnicodeM(UNICODETYPES to, PUI1 destination, PUI4 size, UNICODETYPES from,
                               const UI1* source, UI4 sourceSize, SI2 terminate);
[[nodiscard]] SI4 ConvUnicode(UNICODETYPES to, PUI1 destination, UI4 size, UNICODETYPES from,
                              const UI1* source, UI4 sourceSize, SI2 terminate);
