// decimal128.h - the conversions of IEEE 754-2008 decimal128 numbers.
//
// A finite number is  sign * digits * 10^exponent  with up to 34 digits and an exponent from -6176
// to 6111, in 128 bits:
//
//   binary integer   sign | 0eeeeeeeeeeeee, 14 bits below 11... |     the digits, 113 bits
//                    sign | 11 | exponent, 14 bits | 111 bits         the digits are 0: too many
//   densely packed   sign | 5 bits: top of the exponent, first digit | 12 bits: its rest |
//                    11 declets of 10 bits, each three digits
//   both             sign | 11110 | ...    infinity
//                    sign | 11111 | 0 ...  NaN with a payload; 1 in place of 0: a signalling one
//
// Each result is that of the standard. Nothing is an error: what cannot be converted gives the
// standard's value for it and raises a flag.
#pragma once

#include "sys/linux/qlntypes.h"

/// A number in either encoding, its halves in the machine's order.
struct alignas(16) F16 {
  UI8 low;
  UI8 high;
};
using PF16 = F16*;

/// How results are rounded: one of kRound... It is 0 when a thread starts.
extern constinit thread_local UI4 _IDEC_glbround;
inline constexpr UI4 kRoundNearestEven = 0;
inline constexpr UI4 kRoundDown = 1;
inline constexpr UI4 kRoundUp = 2;
inline constexpr UI4 kRoundToZero = 3;
inline constexpr UI4 kRoundNearestAway = 4;

/// What conversions met: a sum of kFlag..., the places as in the processor's own status word. It
/// grows until somebody clears it.
extern constinit thread_local UI4 _IDEC_glbflags;
inline constexpr UI4 kFlagInvalid = 0x01;
inline constexpr UI4 kFlagOverflow = 0x08;
inline constexpr UI4 kFlagUnderflow = 0x10;
inline constexpr UI4 kFlagInexact = 0x20;

/// From one encoding to the other. Signalling NaNs stay so; what isn't canonical becomes so.
F16 bid_dpd_to_bid128(F16 dpd);
F16 bid_to_dpd128(F16 bid);

/// Sign, digits, E, sign, exponent: "+15E-1"; "+NaN", "-SNaN", "+Inf". At most 42 bytes, the NUL
/// included.
void bid128_to_string(F16 bid, PCH1 text);

F16 bid128_from_int32(SI4 value);

/// Digits behind the point are cut off, which is inexact. Invalid, and the least number: a NaN, an
/// infinity, a number out of range.
SI4 bid128_to_int32_xint(F16 bid);

/// A NaN comes out quiet and keeps its payload if that fits, here and in the opposite direction.
F8 bid128_to_binary64(F16 bid);

/// An exact result has the exponent nearest to 0, any other one all 34 digits.
F16 binary64_to_bid128(F8 value);
