// decimal128_test.cpp - the edges of the decimal conversions; compare.py asks for the rest.
#include <gtest/gtest.h>

#include <bit>
#include <limits>
#include <string>

#include "decimal/cdecf.h"

namespace {

constexpr F8 kInf = std::numeric_limits<F8>::infinity();
constexpr F8 kMax = std::numeric_limits<F8>::max();
constexpr UI8 kUnits = 0x3040000000000000;  // the exponent 0
const std::string k34Nines(34, '9');

UI8 Bits(F8 value) { return std::bit_cast<UI8>(value); }

TEST(Decimal128, ConvertsItsEdgesInBothEncodings) {
  constexpr UI4 kBeyond = kFlagOverflow | kFlagInexact, kTiny = kFlagUnderflow | kFlagInexact;
  const struct {
    F16 bid;
    std::string text;
    F8 real;
    UI4 flags;  // of the double
    SI4 whole;
  } rows[] = {
      {{15, 0x303e000000000000}, "+15E-1", 1.5, 0, 1},
      {{0, 0x8000000000000000}, "-0E-6176", -0.0, 0, 0},
      {{0x378d8e63ffffffff, 0x5fffed09bead87c0},
       "+" + k34Nines + "E+6111",
       kInf,
       kBeyond,
       INT32_MIN},
      {{1, 0}, "+1E-6176", 0, kTiny, 0},
      // Below and above the middle between the largest double and the next power of two.
      {{0xfc42c49756feafaa, 0x326658a213cc7a4f},
       "+1797693134862315807937289714053034E+275",
       kMax,
       kFlagInexact,
       INT32_MIN},
      {{0xfc42c49756feafab, 0x326658a213cc7a4f},
       "+1797693134862315807937289714053035E+275",
       kInf,
       kBeyond,
       INT32_MIN},
      // Below and above one half of the least double.
      {{0x55419fe92b8afb72, 0x2d7679cbed01d783},
       "+2470328229206232720882843964341106E-357",
       0,
       kTiny,
       0},
      {{0x55419fe92b8afb73, 0x2d7679cbed01d783},
       "+2470328229206232720882843964341107E-357",
       0x1p-1074,
       kTiny,
       0},
      // Ties go to the even neighbour.
      {{(1ull << 53) + 1, kUnits}, "+9007199254740993E+0", 0x1p53, kFlagInexact, INT32_MIN},
      {{(1ull << 53) + 3, kUnits}, "+9007199254740995E+0", 0x1p53 + 4, kFlagInexact, INT32_MIN},
      {{214748364899, 0xb03c000000000000},
       "-214748364899E-2",
       -2147483648.99,
       kFlagInexact,
       INT32_MIN},
      {{0, 0xf800000000000000}, "-Inf", -kInf, 0, INT32_MIN},
  };
  for (const auto& row : rows) {
    CH1 text[MaxDecfStrLen()];
    EXPECT_EQ(bidToCH1(&row.bid, text, sizeof text), 0);
    EXPECT_EQ(text, row.text);
    const F16 dpd = bid_to_dpd128(row.bid);
    EXPECT_EQ(dpdToCH1(&dpd, text, sizeof text), 0);
    EXPECT_EQ(text, row.text);
    _IDEC_glbflags = 0;
    EXPECT_EQ(Bits(bid128_to_binary64(row.bid)), Bits(row.real)) << row.text;
    EXPECT_EQ(_IDEC_glbflags, row.flags) << row.text;
    EXPECT_EQ(bid128_to_int32_xint(row.bid), row.whole) << row.text;
  }
}

TEST(Decimal128, ReadsBothEncodingsAlsoWhereTheyAreNotCanonical) {
  const struct {
    bool packed;
    F16 value;
    std::string text;
  } rows[] = {
      {false, {0x378d8e6400000000, 0x3041ed09bead87c0}, "+0E+0"},  // 10^34
      {false, {~0ull, 0x6c107fffffffffff}, "+0E+0"},               // the larger form
      {false, {~0ull, 0x7bffffffffffffff}, "+Inf"},
      {true, {0xf3fcff3fcff3fcff, 0x77ffcff3fcff3fcf}, "+" + k34Nines + "E+6111"},
      {true, {0x3ff, 0x2208000000000000}, "+999E+0"},  // each 0x300 beside 0x0ff
      {true, {~0ull, 0xfe00000000000000}, "-SNaN"},
  };
  for (const auto& row : rows) {
    CH1 text[MaxDecfStrLen()];
    (row.packed ? dpdToCH1 : bidToCH1)(&row.value, text, sizeof text);
    EXPECT_EQ(text, row.text);
  }
}

TEST(Decimal128, CarriesTheSignAndPayloadOfANaN) {
  const UI8 signalling = 0xfff000000000002a;
  _IDEC_glbflags = 0;
  const F16 bid = binary64_to_bid128(std::bit_cast<F8>(signalling));
  EXPECT_EQ(bid.high, 0xfc00000000000000u);
  EXPECT_EQ(bid.low, 42u);
  EXPECT_EQ(_IDEC_glbflags, kFlagInvalid);
  EXPECT_EQ(Bits(bid128_to_binary64(bid)), 0xfff800000000002au);
  EXPECT_EQ(Bits(bid128_to_binary64({1ull << 51, 0x7c00000000000000})), 0x7ff8000000000000u);
  EXPECT_EQ(bid128_to_int32_xint(bid), INT32_MIN);
}

TEST(Decimal128, RoundsByTheModeOfItsThread) {
  const struct {
    UI4 mode;
    PCH10 tenth, minusTenth;  // 0.1 is a little more
    F8 beyond, minusBeyond, tie;
  } rows[] = {
      {kRoundNearestEven, "7E-34", "7E-34", kInf, -kInf, 0x1p53},
      {kRoundDown, "7E-34", "8E-34", kMax, -kInf, 0x1p53},
      {kRoundUp, "8E-34", "7E-34", kInf, -kMax, 0x1p53 + 2},
      {kRoundToZero, "7E-34", "7E-34", kMax, -kMax, 0x1p53},
      {kRoundNearestAway, "7E-34", "7E-34", kInf, -kInf, 0x1p53 + 2},
  };
  const auto end = [](F8 value) {
    CH1 text[MaxDecfStrLen()];
    bid128_to_string(binary64_to_bid128(value), text);
    return std::string(text).substr(34);
  };
  for (const auto& row : rows) {
    _IDEC_glbround = row.mode;
    EXPECT_EQ(end(0.1), row.tenth);
    EXPECT_EQ(end(-0.1), row.minusTenth);
    EXPECT_EQ(bid128_to_binary64({1, 0x32b0000000000000}), row.beyond);
    EXPECT_EQ(bid128_to_binary64({1, 0xb2b0000000000000}), row.minusBeyond);
    EXPECT_EQ(bid128_to_binary64({(1ull << 53) + 1, kUnits}), row.tie);
  }
  _IDEC_glbround = kRoundNearestEven;
}

TEST(Decimal128, TakesEveryDoubleWithTheExponentNearestToZero) {
  const std::pair<F8, PCH10> rows[] = {
      {-0.0, "-0E+0"},
      {1e22, "+10000000000000000000000E+0"},
      {0x1p-1074, "+4940656458412465441765687928682214E-357"},
      {kMax, "+1797693134862315708145274237317044E+275"},
      {0x1.f4p119, "+1298074214633706907132624082305024E+3"},
  };
  for (const auto& [value, text] : rows) {
    F16 dpd;
    CH1 got[MaxDecfStrLen()];
    EXPECT_EQ(F8Todpd(value, &dpd), 0);
    EXPECT_EQ(dpdToCH1(&dpd, got, sizeof got), 0);
    EXPECT_STREQ(got, text);
  }
}

}  // namespace
