// vaset.h - storing single elements of an array.
//
// A store into a VAPntr or VAHet slot makes the small array that the value needs. It overwrites
// what stood there without releasing it: slots are written once, into freshly made arrays.
#pragma once

#include "Apl/vapl.h"
#include "Apl/vaunicod.h"

/// As the size of a source: it ends at its zero unit.
inline constexpr UI4 VAZEROTERM = static_cast<UI4>(-1);

[[nodiscard]] SI4 VASetSI4(PAA array, UI4 index, SI4 value);
[[nodiscard]] SI4 VASetF8(PAA array, UI4 index, F8 value);

/// Stores `length` bytes; a VAC1 array is filled up with blanks and, with VACHAR, translated. Takes
/// no VAZEROTERM.
[[nodiscard]] SI4 VASetCH1(PAA array, UI4 index, PCH10 source, UI4 length, SI2 type);

/// Stores text of `size` bytes in the encoding `from`. What does not fit a simple array is cut.
[[nodiscard]] SI4 VASetUnicode(PAA array, UI4 index, PCH10 source, UI4 size, UNICODETYPES from);

/// Stores `value`, and its count goes with it. On failure the count stays with the caller.
[[nodiscard]] SI4 VASetpAA(PAA array, UI4 index, PAA value);
