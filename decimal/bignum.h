// bignum.h - whole numbers of up to 2,560 bits: what it takes to write any double out in full.
#pragma once

#include <algorithm>
#include <bit>
#include <cassert>

#include "decimal/unpacked.h"

/// A whole number, which must not grow beyond its limbs.
class BIGNUM {
 public:
  explicit BIGNUM(UI16 value) : limb{static_cast<UI8>(value), static_cast<UI8>(value >> 64)} {
    size = 2;
    Trim();
  }

  UI4 BitLength() const {
    return size == 0 ? 0 : 64 * size - static_cast<UI4>(std::countl_zero(limb[size - 1]));
  }
  bool IsZero() const { return size == 0; }
  /// Its last 128 bits.
  UI16 Low() const { return static_cast<UI16>(limb[1]) << 64 | limb[0]; }

  bool operator<(const BIGNUM& other) const {
    if (size != other.size) return size < other.size;
    for (UI4 i = size; i-- > 0;) {
      if (limb[i] != other.limb[i]) return limb[i] < other.limb[i];
    }
    return false;
  }

  /// Takes a number away that isn't larger.
  void Subtract(const BIGNUM& other) {
    UI8 borrow = 0;
    for (UI4 i = 0; i < size; ++i) {
      const UI16 difference = static_cast<UI16>(limb[i]) - other.limb[i] - borrow;
      limb[i] = static_cast<UI8>(difference);
      borrow = static_cast<UI8>(difference >> 64) & 1;
    }
    assert(borrow == 0);
    Trim();
  }

  void Multiply(UI8 factor) {
    UI8 carry = 0;
    for (UI4 i = 0; i < size; ++i) {
      const UI16 product = static_cast<UI16>(limb[i]) * factor + carry;
      limb[i] = static_cast<UI8>(product);
      carry = static_cast<UI8>(product >> 64);
    }
    if (carry != 0) Append(carry);
  }

  void MultiplyByPower5(UI4 exponent) {
    constexpr UI4 kStep = 27;  // the largest power in 64 bits
    constexpr UI8 kPower = 7450580596923828125;
    for (; exponent >= kStep; exponent -= kStep) Multiply(kPower);
    for (; exponent > 0; --exponent) Multiply(5);
  }

  void ShiftLeft(UI4 bits) {
    if (size == 0) return;
    Multiply(1ull << bits % 64);
    const UI4 whole = bits / 64;
    assert(size + whole <= kLimbs);
    std::copy_backward(limb, limb + size, limb + size + whole);
    std::fill_n(limb, whole, 0);
    size += whole;
  }

  /// Result: the remainder.
  UI8 Divide(UI8 divisor) {
    UI8 remainder = 0;
    for (UI4 i = size; i-- > 0;) {
      const UI16 part = static_cast<UI16>(remainder) << 64 | limb[i];
      limb[i] = static_cast<UI8>(part / divisor);
      remainder = static_cast<UI8>(part % divisor);
    }
    Trim();
    return remainder;
  }

 private:
  static constexpr UI4 kLimbs = 40;

  void Append(UI8 top) {
    assert(size < kLimbs);
    limb[size++] = top;
  }
  void Trim() {
    while (size > 0 && limb[size - 1] == 0) --size;
  }

  UI8 limb[kLimbs];  // the least first; those from size on are 0
  UI4 size;
};
