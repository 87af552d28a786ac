// access_test.cpp - reading and storing single elements.
#include <clocale>
#include <cmath>
#include <limits>

#include "Apl/vatrans.h"
#include "Apl/zblock.h"
#include "tests/support/arrays.h"

namespace {

VAHOLD MakeHet() {
  const UI4 n = 5;
  VAHOLD a(VANew(VAHet, 1, &n));
  EXPECT_EQ(VASetSI4(a.Get(), 0, -7), 0);
  EXPECT_EQ(VASetF8(a.Get(), 1, 2.5), 0);
  EXPECT_EQ(VASetCH1(a.Get(), 2, "text", 4, VABIN), 0);
  VAHetStore(a.Get(), 3, VAC1, "c", 1);
  const UI1 bit = 0x80;
  VAHetStore(a.Get(), 4, VABit, &bit, 1);
  return a;
}

TEST(Access, ReadsNumbersOfEveryTypeAsAWholeNumberOrSaysWhyNot) {
  const F8 nan = std::numeric_limits<F8>::quiet_NaN();
  const F8 inf = std::numeric_limits<F8>::infinity();
  struct {
    VAHOLD array;
    UI4 index;
    SI4 code;
    SI4 value;
  } const rows[] = {
      {MakeVector<UI1>(VABit, {0x40, 0x80}), 1, 0, 1},
      {MakeVector<UI1>(VABit, {0x40, 0x80}), 8, 0, 1},
      {MakeVector<SI1>(VAI1, {1, -2}), 1, 0, -2},
      {MakeVector<SI2>(VAI2, {-300}), 0, 0, -300},
      {MakeVector<SI4>(VAI4, {}), 0, ERR_APL_LENGTH, 0},
      {MakeScalar(VAF8, 3.0), 0, 0, 3},
      {MakeScalar(VAF8, 3.5), 0, ERR_APL_DOMAIN, 0},
      {MakeScalar(VAF8, 0x1p40), 0, 0, INT32_MIN},
      {MakeScalar(VAF8, 0x1p64), 0, ERR_APL_DOMAIN, 0},
      {MakeScalar(VAF8, nan), 0, ERR_APL_DOMAIN, 0},
      {MakeScalar(VAF8, -inf), 0, ERR_APL_DOMAIN, 0},
      {MakeVector<F8>(VA2F8, {1, 1, 4, 0}), 1, 0, 4},
      {MakeVector<F8>(VA2F8, {1, 1, 4, nan}), 1, ERR_APL_DOMAIN, 0},
      {MakeVector<SI4>(VAApvI4, {INT32_MAX, 1}), 0, 0, INT32_MAX},
      {MakeScalar<CH1>(VAC1, '7'), 0, ERR_APL_DOMAIN, 0},
      {VAHOLD(VANew(VABid, 0, nullptr)), 0, ERR_APL_DOMAIN, 0},
      {VAHOLD(VANew(VABoxd, 0, nullptr)), 0, ERR_APL_DOMAIN, 0},
      {VAHOLD(VANew(VAPntr, 0, nullptr)), 0, ERR_APL_DOMAIN, 0},  // an empty slot
      {MakeNested(MakeNested(MakeScalar<SI4>(VAI4, 9))), 0, 0, 9},
      {MakeNested(MakeVector<SI4>(VAI4, {1, 2})), 0, ERR_APL_INDEX, 0},
      {MakeHet(), 0, 0, -7},
      {MakeHet(), 1, ERR_APL_DOMAIN, 0},
      {MakeHet(), 4, 0, 1},
  };
  for (const auto& row : rows) {
    SI4 value = -1;
    EXPECT_EQ(VAGetSI4(row.array.Get(), row.index, &value), row.code) << &row - rows;
    EXPECT_EQ(value, row.value) << &row - rows;
  }
  const UI4 n = 100;
  const VAHOLD progression(VANew(VAApvI4, 1, &n));
  const SI4 startAndStep[] = {10, -3};
  memcpy(VAData(progression.Get()), startAndStep, sizeof startAndStep);
  SI4 value = 0;
  EXPECT_EQ(VAGetSI4(progression.Get(), 99, &value), 0);
  EXPECT_EQ(value, -287);
}

TEST(Access, WritesNumbersAsPrintfDoesInTheCLocale) {
  setlocale(LC_ALL, "de_DE.UTF-8");  // where it exists, its comma must not show
  const std::pair<F8, PCH10> rows[] = {
      {7.5, "7.5"}, {-0.1, "-0.1"},  {1e10, "1E+10"},       {123456789, "1.23457E+08"},
      {3, "3"},     {1e-5, "1E-05"}, {1e300 * 1e10, "INF"},
  };
  for (const auto& [value, text] : rows) EXPECT_EQ(TextOf(MakeScalar(VAF8, value).Get()), text);
  EXPECT_EQ(TextOf(MakeScalar<SI4>(VAI4, INT32_MIN).Get()), "-2147483648");
  setlocale(LC_ALL, "C");
}

TEST(Access, TellsTheLengthOfATextBeforeItIsRead) {
  struct {
    VAHOLD array;
    UI4 index;
    SI2 type;
    SI4 code;
    UI4 length;
  } const rows[] = {
      {MakeScalar<SI4>(VAI4, 7), 0, VACHAR, 0, 2},
      {MakeScalar(VAF8, 7.5), 0, VACHAR, 0, 3},
      {MakeScalar<SI4>(VAI4, 7), 0, VABIN, ERR_APL_DOMAIN, 0},
      {MakeScalar<CH1>(VAC1, 'x'), 0, VABIN, 0, 1},
      {MakeScalar<CH1>(VAC1, 'x'), 0, VACHAR, 0, 2},
      {MakeText("abc"), 1, VACHAR, ERR_APL_DOMAIN, 0},
      {MakeNested(MakeText("abc"), MakeText("")), 1, VACHAR, 0, 1},
      {MakeNested(MakeVector<SI4>(VAI4, {1, 2})), 0, VACHAR, ERR_APL_LENGTH, 0},
      {MakeHet(), 0, VACHAR, 0, 30},
      {MakeHet(), 2, VACHAR, 0, 5},
      {MakeHet(), 3, VABIN, 0, 1},
      {MakeVector<UI2>(VAC2, {65}), 0, VACHAR, ERR_APL_DOMAIN, 0},
  };
  for (const auto& row : rows) {
    UI4 length = 0;
    EXPECT_EQ(VAGetLen(row.array.Get(), row.index, &length, row.type), row.code) << &row - rows;
    EXPECT_EQ(length, row.length) << &row - rows;
  }
}

TEST(Access, NeverWritesTextPastTheSizeGiven) {
  struct {
    VAHOLD array;
    UI4 needed;
  } const rows[] = {
      {MakeText("hello"), 6}, {MakeScalar<SI4>(VAI4, -123), 5}, {MakeScalar(VAF8, 7.5), 4}};
  for (const auto& row : rows) {
    CH1 text[8];
    memset(text, '#', sizeof text);
    for (UI4 size = 0; size < row.needed; ++size) {
      EXPECT_EQ(VAGetCH1(row.array.Get(), 0, text, size, VACHAR), ERR_APL_LENGTH);
    }
    EXPECT_EQ(std::string(text, sizeof text), "########");
    EXPECT_EQ(VAGetCH1(row.array.Get(), 0, text, row.needed, VACHAR), 0);
    EXPECT_EQ(text[row.needed - 1], 0);
    EXPECT_EQ(text[row.needed], '#');
  }
}

TEST(Access, RefusesACharacterMatrixAsOneString) {
  const UI4 shape[] = {2, 2};
  const VAHOLD matrix(VANew(VAC1, 2, shape));
  EXPECT_EQ(TextOf(matrix.Get()), "error 1082");
  EXPECT_EQ(VASetCH1(matrix.Get(), 0, "a", 1, VABIN), ERR_APL_RANK);
}

TEST(Access, GivesWholeArraysAsBytesWithinTheirRange) {
  UI1 bytes[4] = {};
  UI4 length = 0;
  const VAHOLD fits = MakeVector<SI2>(VAI2, {200, -1});
  EXPECT_EQ(VAGetBytes(fits.Get(), nullptr, &length), 0);
  EXPECT_EQ(length, 2u);
  EXPECT_EQ(VAGetBytes(fits.Get(), bytes, &length), 0);
  EXPECT_EQ(bytes[0], 200);
  EXPECT_EQ(bytes[1], 255);
  EXPECT_EQ(VAGetBytes(MakeVector<SI2>(VAI2, {256}).Get(), bytes, &length), ERR_DOMAIN);
  EXPECT_EQ(VAGetBytes(MakeText("abc").Get(), bytes, &length), ERR_LENGTH);
  EXPECT_EQ(VAGetBytes(MakeScalar<SI4>(VAI4, 1).Get(), bytes, &length), ERR_DOMAIN);
}

TEST(Access, HandsOutElementsAsSharesOrNewScalars) {
  const VAHOLD nested = MakeNested(MakeText("abc"));
  VAHOLD element;
  ASSERT_EQ(VAGetpAA(nested.Get(), 0, element.Out()), 0);
  EXPECT_EQ(element.Get(), VAOwned(nested.Get(), 0));
  EXPECT_EQ(VARefCount(element.Get()), 2u);

  const VATYPES types[] = {VAI4, VAF8, VAC1, VAC1, VAI4};
  const VAHOLD het = MakeHet();
  for (UI4 i = 0; i < 5; ++i) {
    ASSERT_EQ(VAGetpAA(het.Get(), i, element.Out()), 0);
    EXPECT_EQ(VAType(element.Get()), types[i]) << i;
  }
  EXPECT_EQ(VAGetpAA(MakeText("abc").Get(), 0, element.Out()), ERR_APL_DOMAIN);
  EXPECT_FALSE(element);
}

TEST(Access, StoresIntoEachTypeThatCanHoldTheValue) {
  for (const VATYPES type : {VAI4, VAF8, VA2F8, VAPntr, VAHet}) {
    const UI4 n = 2;
    const VAHOLD a(VANew(type, 1, &n));
    SI4 value = 0;
    EXPECT_EQ(VASetSI4(a.Get(), 1, 42), 0) << type;
    EXPECT_EQ(VAGetSI4(a.Get(), 1, &value), 0) << type;
    EXPECT_EQ(value, 42) << type;
    EXPECT_EQ(VASetSI4(a.Get(), 2, 42), ERR_APL_LENGTH) << type;
  }
  EXPECT_EQ(VASetF8(MakeScalar<SI4>(VAI4, 0).Get(), 0, 1.0), ERR_APL_DOMAIN);
  EXPECT_EQ(VASetSI4(VAHOLD(VANew(VADpd, 0, nullptr)).Get(), 0, 1), ERR_APL_DOMAIN);

  const VAHOLD five = MakeText("-----");
  EXPECT_EQ(VASetCH1(five.Get(), 0, "abc", 3, VABIN), 0);
  EXPECT_EQ(TextOf(five.Get()), "abc  ");
  EXPECT_EQ(VASetCH1(five.Get(), 0, "abcdef", 6, VABIN), ERR_APL_LENGTH);
}

TEST(Access, CarriesTextThroughEveryEncoding) {
  const UI4 one = 1;
  const VAHOLD nested(VANew(VAPntr, 1, &one));
  const PCH10 text = "gr\xC3\xBC\xC3\x9F \xE2\x8D\x8E \xF0\x9F\x98\x80";
  ASSERT_EQ(VASetUnicode(nested.Get(), 0, text, VAZEROTERM, UTF8), 0);
  EXPECT_EQ(VAType(VAOwned(nested.Get(), 0)), VAC4);
  EXPECT_EQ(VACount(VAOwned(nested.Get(), 0)), 8u);

  UI4 length = 0;
  ASSERT_EQ(VAGetUnicodeLen(nested.Get(), 0, &length, UTF8, VABIN), 0);
  std::string back(length, '\0');
  ASSERT_EQ(VAGetUnicode(nested.Get(), 0, back.data(), length, UTF8, VABIN), 0);
  EXPECT_EQ(back, text);
  EXPECT_EQ(VAGetUnicodeLen(nested.Get(), 0, &length, UCS1, VABIN), ERR_APL_DOMAIN);
  EXPECT_EQ(length, 0u);

  CH1 digits[8] = {};
  EXPECT_EQ(VAGetUnicode(MakeScalar<SI4>(VAI4, 12).Get(), 0, digits, 8, UTF16, VACHAR), 0);
  EXPECT_EQ(memcmp(digits, "1\0002\0\0\0", 6), 0);
}

TEST(Access, ReadsOneByteTextThroughTheSetThatTheInterpreterSpeaks) {
  const VAHOLD a = MakeText("\x11");
  CH1 text[4] = {};
  SetUnicode(false);
  EXPECT_EQ(VAGetUnicode(a.Get(), 0, text, 4, UTF8, VACHAR), 0);
  SetUnicode(true);
  EXPECT_STREQ(text, "a");
}

}  // namespace
