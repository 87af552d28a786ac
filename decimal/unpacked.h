// unpacked.h - a decimal128 number taken apart: what both encodings stand for.
#pragma once

#include "decimal/decimal128.h"

__extension__ typedef unsigned __int128 UI16;

inline constexpr SI4 kDigits = 34;  ///< of the longest coefficient; a payload has one less
inline constexpr SI4 kExponentBias = 6176;

inline constexpr struct POWERS10 {
  UI16 power[kDigits + 1] = {1};
  constexpr POWERS10() {
    for (SI4 i = 1; i <= kDigits; ++i) power[i] = power[i - 1] * 10;
  }
  constexpr UI16 operator[](SI4 exponent) const { return power[exponent]; }
} kPower10;

struct UNPACKED {
  enum KIND { Finite, Infinite, QuietNaN, SignallingNaN };

  KIND kind = Finite;
  bool negative = false;
  SI4 exponent = 0;
  UI16 digits = 0;  ///< of a NaN its payload

  bool IsNaN() const { return kind == QuietNaN || kind == SignallingNaN; }
};

UNPACKED UnpackBid(F16 bid);
F16 PackBid(const UNPACKED& number);

/// The fields that both encodings share: the sign, and infinity and NaN without its payload. True
/// if the number is one of these two.
bool UnpackSpecial(F16 packed, UNPACKED* number);
/// The same the other way: the upper half, to which the rest is added.
UI8 PackSpecial(const UNPACKED& number);

inline void RaiseFlags(UI4 flags) { _IDEC_glbflags |= flags; }

/// Whether a magnitude grows by one in its last place because of what was cut off behind it:
/// `rest`, where `half` would be one half of that place. Raises inexact.
bool RoundsUp(UI8 rest, UI8 half, bool odd, bool negative);
