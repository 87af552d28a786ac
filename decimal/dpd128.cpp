// dpd128.cpp - the densely packed encoding, from and to the binary integer one.
#include "decimal/unpacked.h"

namespace {

constexpr SI4 kDeclets = 11;
constexpr UI4 kDecletBits = 10;
constexpr UI4 kDecletCount = 1 << kDecletBits;
constexpr UI4 kTrailingBits = kDeclets * kDecletBits;

// Three digits, in the bits pqr stu v wxy. A digit up to 7 has its three bits, one of 8 or 9 its
// last bit alone; v, w, x and, where two digits or more are large, s and t tell which ones are
// large. With three of them p and q mean nothing: these 24 declets stand beside those that have 0
// there.
constexpr UI2 DecodeDeclet(UI4 declet) {
  const UI4 pq = declet >> 7 & 6, st = declet >> 4 & 6, wx = declet & 6;
  const UI4 r = declet >> 7 & 1, u = declet >> 4 & 1, y = declet & 1;
  const UI4 pqr = pq | r, stu = st | u;
  const auto number = [](UI4 a, UI4 b, UI4 c) { return static_cast<UI2>(100 * a + 10 * b + c); };

  if (!(declet & 8)) return number(pqr, stu, wx | y);
  if (wx == 0) return number(pqr, stu, 8 | y);
  if (wx == 2) return number(pqr, 8 | u, st | y);
  if (wx == 4) return number(8 | r, stu, pq | y);
  if (st == 0) return number(8 | r, 8 | u, pq | y);
  if (st == 2) return number(8 | r, pq | u, 8 | y);
  if (st == 4) return number(pqr, 8 | u, 8 | y);
  return number(8 | r, 8 | u, 8 | y);
}

constexpr struct DECLETS {
  UI2 digits[kDecletCount] = {};
  UI2 declet[1000] = {};
  // From the top down, so that the least declet of a number, the canonical one, comes last.
  constexpr DECLETS() {
    for (UI4 i = kDecletCount; i-- > 0;) {
      digits[i] = DecodeDeclet(i);
      declet[digits[i]] = static_cast<UI2>(i);
    }
  }
} kDeclet;

UNPACKED UnpackDpd(F16 dpd) {
  const UI16 bits = static_cast<UI16>(dpd.high) << 64 | dpd.low;
  UNPACKED number;
  const bool special = UnpackSpecial(dpd, &number);
  if (number.kind == UNPACKED::Infinite) return number;
  if (!special) {
    const UI4 rest = static_cast<UI4>(bits >> kTrailingBits) & 0xfff;
    UI4 top = static_cast<UI4>(bits >> 125) & 3;
    UI4 first = static_cast<UI4>(bits >> 122) & 7;
    if (top == 3) {
      top = first >> 1;
      first = 8 | (first & 1);
    }
    number.exponent = static_cast<SI4>(top << 12 | rest) - kExponentBias;
    number.digits = first;
  }
  for (UI4 at = kTrailingBits; at > 0;) {
    at -= kDecletBits;
    number.digits = 1000 * number.digits + kDeclet.digits[static_cast<UI4>(bits >> at) & 0x3ff];
  }
  return number;
}

F16 PackDpd(const UNPACKED& number) {
  UI16 bits = static_cast<UI16>(PackSpecial(number)) << 64;
  UI16 digits = number.digits;
  for (UI4 at = 0; at < kTrailingBits; at += kDecletBits) {
    bits |= static_cast<UI16>(kDeclet.declet[static_cast<UI4>(digits % 1000)]) << at;
    digits /= 1000;
  }
  if (number.kind == UNPACKED::Finite) {
    const UI4 first = static_cast<UI4>(digits);
    const UI4 biased = static_cast<UI4>(number.exponent + kExponentBias);
    const UI4 top = biased >> 12;
    const UI4 combined = first < 8 ? top << 3 | first : 0x18 | top << 1 | (first & 1);
    bits |= static_cast<UI16>(combined) << 122;
    bits |= static_cast<UI16>(biased & 0xfff) << kTrailingBits;
  }
  return {static_cast<UI8>(bits), static_cast<UI8>(bits >> 64)};
}

}  // namespace

F16 bid_dpd_to_bid128(F16 dpd) { return PackBid(UnpackDpd(dpd)); }
F16 bid_to_dpd128(F16 bid) { return PackDpd(UnpackBid(bid)); }
