// bid128.cpp - the binary integer encoding, as text and as whole numbers.
#include <algorithm>
#include <charconv>
#include <cstdlib>

#include "decimal/unpacked.h"

constinit thread_local UI4 _IDEC_glbround = kRoundNearestEven;
constinit thread_local UI4 _IDEC_glbflags = 0;

namespace {

constexpr UI8 kSign = 1ull << 63;
constexpr UI8 kSteering = 3ull << 61;  // both bits set: no ordinary number
constexpr UI8 kSpecial = 0x1eull << 58;
constexpr UI8 kNaN = 0x1full << 58;
constexpr UI8 kSignalling = 1ull << 57;
constexpr UI4 kExponentShift = 49;  // in the upper half
constexpr UI8 kExponentMask = (1ull << 14) - 1;
constexpr UI8 kCoefficientMask = (1ull << kExponentShift) - 1;
constexpr UI8 kPayloadMask = (1ull << 46) - 1;

UI16 Join(UI8 high, UI8 low) { return static_cast<UI16>(high) << 64 | low; }

PCH1 Append(PCH1 out, PCH10 text) {
  while (*text) *out++ = *text++;
  return out;
}

PCH1 AppendDigits(PCH1 out, UI16 value) {
  CH1 reversed[kDigits];
  SI4 n = 0;
  do {
    reversed[n++] = static_cast<CH1>('0' + static_cast<SI4>(value % 10));
    value /= 10;
  } while (value != 0);
  return std::reverse_copy(reversed, reversed + n, out);
}

}  // namespace

bool UnpackSpecial(F16 packed, UNPACKED* number) {
  number->negative = (packed.high & kSign) != 0;
  if ((packed.high & kSpecial) != kSpecial) return false;
  if ((packed.high & kNaN) != kNaN) {
    number->kind = UNPACKED::Infinite;
  } else {
    number->kind = packed.high & kSignalling ? UNPACKED::SignallingNaN : UNPACKED::QuietNaN;
  }
  return true;
}

UI8 PackSpecial(const UNPACKED& number) {
  const UI8 sign = number.negative ? kSign : 0;
  switch (number.kind) {
    case UNPACKED::Finite:
      return sign;
    case UNPACKED::Infinite:
      return sign | kSpecial;
    case UNPACKED::QuietNaN:
      return sign | kNaN;
    case UNPACKED::SignallingNaN:
      return sign | kNaN | kSignalling;
  }
  return sign;
}

UNPACKED UnpackBid(F16 bid) {
  UNPACKED number;
  UI4 shift = kExponentShift;
  if (UnpackSpecial(bid, &number)) {
    if (!number.IsNaN()) return number;
    number.digits = Join(bid.high & kPayloadMask, bid.low);
    if (number.digits >= kPower10[kDigits - 1]) number.digits = 0;
    return number;
  }
  if ((bid.high & kSteering) == kSteering) {
    shift -= 2;  // digits of 2^113 and more are too many
  } else {
    number.digits = Join(bid.high & kCoefficientMask, bid.low);
    if (number.digits >= kPower10[kDigits]) number.digits = 0;
  }
  number.exponent = static_cast<SI4>(bid.high >> shift & kExponentMask) - kExponentBias;
  return number;
}

F16 PackBid(const UNPACKED& number) {
  F16 bid{static_cast<UI8>(number.digits), PackSpecial(number)};
  bid.high |= static_cast<UI8>(number.digits >> 64);
  if (number.kind == UNPACKED::Finite) {
    bid.high |= static_cast<UI8>(number.exponent + kExponentBias) << kExponentShift;
  }
  return bid;
}

bool RoundsUp(UI8 rest, UI8 half, bool odd, bool negative) {
  if (rest == 0) return false;
  RaiseFlags(kFlagInexact);
  switch (_IDEC_glbround) {
    case kRoundDown:
      return negative;
    case kRoundUp:
      return !negative;
    case kRoundToZero:
      return false;
    case kRoundNearestAway:
      return rest >= half;
    default:
      return rest > half || (rest == half && odd);
  }
}

void bid128_to_string(F16 bid, PCH1 text) {
  const UNPACKED number = UnpackBid(bid);
  *text++ = number.negative ? '-' : '+';
  switch (number.kind) {
    case UNPACKED::Finite:
      text = AppendDigits(text, number.digits);
      text = Append(text, number.exponent < 0 ? "E-" : "E+");
      text = AppendDigits(text, static_cast<UI4>(std::abs(number.exponent)));
      break;
    case UNPACKED::Infinite:
      text = Append(text, "Inf");
      break;
    case UNPACKED::QuietNaN:
      text = Append(text, "NaN");
      break;
    case UNPACKED::SignallingNaN:
      text = Append(text, "SNaN");
      break;
  }
  *text = 0;
}

F16 bid128_from_int32(SI4 value) {
  UNPACKED number;
  number.negative = value < 0;
  number.digits = static_cast<UI8>(std::abs(static_cast<int64_t>(value)));
  return PackBid(number);
}

SI4 bid128_to_int32_xint(F16 bid) {
  const UNPACKED number = UnpackBid(bid);
  const UI16 limit = number.negative ? 0x80000000u : 0x7fffffffu;
  UI16 whole = number.digits;
  bool inexact = false;
  bool fits = number.kind == UNPACKED::Finite;
  if (number.exponent < 0) {
    const UI16 unit = kPower10[std::min(-number.exponent, kDigits)];
    whole = number.digits / unit;
    inexact = number.digits % unit != 0;
  } else if (whole != 0) {
    fits = fits && whole <= limit && number.exponent < 10;
    if (fits) whole *= kPower10[number.exponent];
  }
  if (!fits || whole > limit) {
    RaiseFlags(kFlagInvalid);
    return INT32_MIN;
  }
  if (inexact) RaiseFlags(kFlagInexact);
  const int64_t magnitude = static_cast<int64_t>(whole);
  return static_cast<SI4>(number.negative ? -magnitude : magnitude);
}
