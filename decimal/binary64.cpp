// binary64.cpp - decimal numbers from and to doubles, correctly rounded by exact arithmetic.
#include <algorithm>
#include <bit>
#include <cstdlib>

#include "decimal/bignum.h"
#include "decimal/unpacked.h"

namespace {

constexpr UI4 kFractionBits = 52;
constexpr UI8 kHidden = 1ull << kFractionBits;
constexpr UI8 kQuiet = kHidden >> 1;
constexpr UI8 kInfinity = 0x7ffull << kFractionBits;
constexpr SI4 kLeastExponent = -1022;  // of a normal number

// A magnitude before it is rounded: bits * 2^(exponent - 61), where `bits` has its first bit at
// place 61, and its last bit stands for all that follows.
struct SCALED {
  UI8 bits;
  SI4 exponent;
};
constexpr UI4 kScaledBits = 62;

// digits * 10^exponent, with digits above 0.
SCALED Scale(UI16 digits, SI4 exponent) {
  BIGNUM above(digits);
  BIGNUM below(1);
  (exponent < 0 ? below : above).MultiplyByPower5(static_cast<UI4>(std::abs(exponent)));

  // The quotient of the two shall lie between 1 and 2.
  SI4 shift = static_cast<SI4>(above.BitLength()) - static_cast<SI4>(below.BitLength());
  (shift < 0 ? above : below).ShiftLeft(static_cast<UI4>(std::abs(shift)));
  if (above < below) {
    above.ShiftLeft(1);
    --shift;
  }
  UI8 bits = 0;
  for (UI4 i = 1; i < kScaledBits; ++i) {
    const bool one = !(above < below);
    if (one) above.Subtract(below);
    above.ShiftLeft(1);
    bits = bits << 1 | one;
  }
  return {bits << 1 | !above.IsZero(), exponent + shift};
}

// The bits of the double, its sign apart.
UI8 Round(SCALED value, bool negative) {
  const SI4 missing = std::max(kLeastExponent - value.exponent, 0);  // of a subnormal number
  const UI4 cut = kScaledBits - kFractionBits - 1 + static_cast<UI4>(std::min(missing, 54));
  const UI8 rest = value.bits & ((1ull << cut) - 1);
  UI8 kept = value.bits >> cut;
  if (missing > 0 && rest != 0) RaiseFlags(kFlagUnderflow);
  kept += RoundsUp(rest, 1ull << (cut - 1), kept & 1, negative);

  // The hidden bit, and one carried into it, count the exponent up by themselves.
  const SI4 exponent = std::max(value.exponent, kLeastExponent) - kLeastExponent;
  const UI8 bits = (static_cast<UI8>(exponent) << kFractionBits) + kept;
  if (bits < kInfinity) return bits;
  RaiseFlags(kFlagOverflow);
  constexpr UI8 half = 1;  // the true value lies beyond the largest double by more than that
  return kInfinity - !RoundsUp(half + 1, half, true, negative);
}

UI8 MagnitudeOf(const UNPACKED& number) {
  if (number.kind == UNPACKED::Infinite) return kInfinity;
  if (number.IsNaN()) {
    if (number.kind == UNPACKED::SignallingNaN) RaiseFlags(kFlagInvalid);
    return kInfinity | kQuiet | static_cast<UI8>(number.digits < kQuiet ? number.digits : 0);
  }
  if (number.digits == 0) return 0;
  // Any number of digits overflows at the upper end and is less than half of the least double at
  // the lower one: exponents further out change nothing.
  const SI4 exponent = std::clamp(number.exponent, -360, 310);
  return Round(Scale(number.digits, exponent), number.negative);
}

// value * 10^number->exponent, rounded to 34 digits.
void RoundToDigits(BIGNUM value, UNPACKED* number) {
  constexpr UI8 kStep = 10'000'000'000'000'000'000u;  // 10^19
  constexpr UI4 kSafeBits = 180;  // a longer number has more than 34 digits without its last 19
  bool sticky = false;
  UI8 next = 0;  // the first digit that was cut off
  while (value.BitLength() > kSafeBits) {
    sticky |= value.Divide(kStep) != 0;
    number->exponent += 19;
  }
  while (value.BitLength() > 128 || value.Low() >= kPower10[kDigits]) {
    sticky |= next != 0;
    next = value.Divide(10);
    ++number->exponent;
  }
  number->digits = value.Low();
  number->digits += RoundsUp(2 * next + sticky, 10, number->digits & 1, number->negative);
  if (number->digits == kPower10[kDigits]) {
    number->digits /= 10;
    ++number->exponent;
  }
}

}  // namespace

F8 bid128_to_binary64(F16 bid) {
  const UNPACKED number = UnpackBid(bid);
  return std::bit_cast<F8>(static_cast<UI8>(number.negative) << 63 | MagnitudeOf(number));
}

F16 binary64_to_bid128(F8 value) {
  const UI8 bits = std::bit_cast<UI8>(value);
  const SI4 biased = static_cast<SI4>(bits >> kFractionBits & 0x7ff);
  UI8 fraction = bits & (kHidden - 1);
  UNPACKED number;
  number.negative = bits >> 63 != 0;
  if (biased == 0x7ff) {
    number.kind = fraction == 0 ? UNPACKED::Infinite : UNPACKED::QuietNaN;
    number.digits = fraction & (kQuiet - 1);
    if (fraction != 0 && !(fraction & kQuiet)) RaiseFlags(kFlagInvalid);
    return PackBid(number);
  }
  if (biased > 0) fraction |= kHidden;
  if (fraction == 0) return PackBid(number);

  // fraction * 2^exponent, and 2^-n is 5^n * 10^-n. An odd fraction makes that n the least.
  SI4 exponent = std::max(biased, 1) - 1023 - static_cast<SI4>(kFractionBits);
  const SI4 even = std::countr_zero(fraction);
  exponent += even;
  BIGNUM whole(fraction >> even);
  if (exponent < 0) {
    whole.MultiplyByPower5(static_cast<UI4>(-exponent));
    number.exponent = exponent;
  } else {
    whole.ShiftLeft(static_cast<UI4>(exponent));
  }
  RoundToDigits(whole, &number);
  return PackBid(number);
}
