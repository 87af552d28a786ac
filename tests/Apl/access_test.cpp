// access_test.cpp - reading and storing single elements.
#include <clocale>
#include <limits>

#include "Apl/zblock.h"
#include "decimal/decimal128.h"
#include "tests/support/arrays.h"

namespace {

TEST(Access, ReadsNumbersOfEveryTypeAsAWholeNumberOrSaysWhyNot) {
  const F8 nan = std::numeric_limits<F8>::quiet_NaN();
  const UI4 n = 100;
  VAHOLD progression(VANew(VAApvI4, 1, &n));
  const SI4 startAndStep[] = {10, -3};
  memcpy(VAData(progression.Get()), startAndStep, sizeof startAndStep);
  struct {
    VAHOLD array;
    UI4 index;
    SI4 code, value;
  } const rows[] = {
      {MakeVector<UI1>(VABit, {0x40, 0x80}), 8, 0, 1},
      {MakeVector<SI4>(VAI4, {}), 0, ERR_APL_LENGTH, 0},
      {MakeScalar(VAF8, 0x1p40), 0, 0, INT32_MIN},
      {MakeScalar(VAF8, 0x1p64), 0, ERR_APL_DOMAIN, 0},
      {MakeVector<F8>(VA2F8, {1, 1, 4, nan}), 1, ERR_APL_DOMAIN, 0},
      {std::move(progression), 99, 0, -287},
      {VAHOLD(VANew(VAPntr, 0, nullptr)), 0, ERR_APL_DOMAIN, 0},  // an empty slot
      {MakeNested(MakeNested(Int(9))), 0, 0, 9},
      {MakeNested(MakeVector<SI4>(VAI4, {1, 2})), 0, ERR_APL_INDEX, 0},
      {MakeHet(), 1, ERR_APL_DOMAIN, 0},
      {MakeHet(), 4, 0, 1},
  };
  for (const auto& row : rows) {
    SI4 value = -1;
    EXPECT_EQ(VAGetSI4(row.array.Get(), row.index, &value), row.code) << &row - rows;
    EXPECT_EQ(value, row.value) << &row - rows;
  }
}

TEST(Access, WritesNumbersAsPrintfDoesInTheCLocale) {
  setlocale(LC_ALL, "de_DE.UTF-8");  // where it exists, its comma must not show
  const std::pair<F8, PCH10> rows[] = {
      {-0.1, "-0.1"}, {1e10, "1E+10"}, {123456789, "1.23457E+08"}, {3, "3"}, {1e300 * 1e10, "INF"}};
  for (const auto& [value, text] : rows) EXPECT_EQ(TextOf(MakeScalar(VAF8, value).Get()), text);
  EXPECT_EQ(TextOf(Int(INT32_MIN).Get()), "-2147483648");
  setlocale(LC_ALL, "C");
}

TEST(Access, GivesTextsOrSaysWhyNot) {
  const UI4 two[] = {2, 2};
  const std::pair<VAHOLD, std::string> rows[] = {
      {VAHOLD(VANew(VAC1, 2, two)), "error 1082"},
      {MakeNested(MakeVector<SI4>(VAI4, {1, 2})), "error 1081"},
      {MakeVector<UI2>(VAC2, {65}), "error 1084"},
  };
  for (const auto& [array, text] : rows) EXPECT_EQ(TextOf(array.Get()), text) << text;
  EXPECT_EQ(TextOf(MakeHet().Get(), 2), "text");
}

TEST(Access, NeverWritesTextPastTheSizeGiven) {
  const std::pair<VAHOLD, UI4> rows[] = {{MakeText("hello"), 6},
                                         {Int(-123), 5},
                                         {MakeScalar(VAF8, 7.5), 4},
                                         {MakeScalar(VADpd, F16{0x15, 0x2207c00000000000}), 7}};
  for (const auto& [array, needed] : rows) {
    std::string text(8, '#');
    for (UI4 size = 0; size < needed; ++size) {
      EXPECT_EQ(VAGetCH1(array.Get(), 0, text.data(), size, VACHAR), ERR_APL_LENGTH);
    }
    EXPECT_EQ(text, "########");
    EXPECT_EQ(VAGetCH1(array.Get(), 0, text.data(), needed, VACHAR), 0);
    EXPECT_EQ(text.substr(needed - 1, 2), std::string("\0#", 2));
  }
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
  const VAHOLD five = MakeText("-----");
  EXPECT_EQ(VASetCH1(five.Get(), 0, "abc", 3, VABIN), 0);
  EXPECT_EQ(TextOf(five.Get()), "abc  ");
  EXPECT_EQ(VASetCH1(five.Get(), 0, "abcdef", 6, VABIN), ERR_APL_LENGTH);
}

TEST(Access, ReadsAndStoresDecimalsInBothEncodings) {
  for (const VATYPES type : {VADpd, VABid}) {
    const UI4 n = 2;
    const VAHOLD a(VANew(type, 1, &n));
    const auto store = [&](F8 value) { return VASetF8(a.Get(), 1, value); };
    const auto whole = [&] {
      SI4 value = 0;
      const SI4 code = VAGetSI4(a.Get(), 1, &value);
      return code != 0 ? code : value;
    };
    EXPECT_EQ(VASetSI4(a.Get(), 1, -42), 0);
    EXPECT_EQ(TextOf(a.Get(), 1), "-42E+0");
    EXPECT_EQ(whole(), -42);
    EXPECT_EQ(store(0x1p40), 0);
    EXPECT_EQ(whole(), INT32_MIN);
    EXPECT_EQ(store(-1.5), 0);
    EXPECT_EQ(whole(), ERR_APL_DOMAIN);
    F8 real = 0;
    EXPECT_EQ(VAGetF8(a.Get(), 1, &real), 0);
    EXPECT_EQ(real, -1.5);

    UI4 length = 0;
    EXPECT_EQ(VAGetLen(a.Get(), 1, &length, VACHAR), 0);
    EXPECT_EQ(length, 42u);
    EXPECT_EQ(VAGetLen(a.Get(), 1, &length, VABIN), ERR_APL_DOMAIN);
    EXPECT_EQ(VAGetUnicodeLen(a.Get(), 1, &length, UCS2, VABIN), ERR_APL_DOMAIN);
    EXPECT_EQ(VAGetUnicodeLen(a.Get(), 1, &length, UCS2, VACHAR), 0);
    EXPECT_EQ(length, 2 * sizeof "-15E-1");
    PAA element = nullptr;
    EXPECT_EQ(VAGetpAA(a.Get(), 1, &element), ERR_APL_DOMAIN);
    EXPECT_EQ(VASetSI4(a.Get(), 2, 0), ERR_APL_LENGTH);
  }
  // The double next to it is 1, its own whole part 0.
  const F16 almostOne{0x378d8e63ffffffff, 0x2ffded09bead87c0};
  SI4 value = -1;
  EXPECT_EQ(VAGetSI4(MakeScalar(VABid, almostOne).Get(), 0, &value), 0);
  EXPECT_EQ(value, 0);
}

TEST(Access, CarriesTextThroughEveryEncoding) {
  const VAHOLD nested = MakeNested(VAHOLD());
  const std::string text = "gr\xC3\xBC\xC3\x9F \xE2\x8D\x8E \xF0\x9F\x98\x80";
  ASSERT_EQ(VASetUnicode(nested.Get(), 0, text.data(), VAZEROTERM, UTF8), 0);
  EXPECT_EQ(VACount(VAOwned(nested.Get(), 0)), 8u);

  UI4 length = 0;
  ASSERT_EQ(VAGetUnicodeLen(nested.Get(), 0, &length, UTF8, VABIN), 0);
  std::string back(length, '\0');
  ASSERT_EQ(VAGetUnicode(nested.Get(), 0, back.data(), length, UTF8, VABIN), 0);
  EXPECT_EQ(back, text);
  EXPECT_EQ(VAGetUnicodeLen(nested.Get(), 0, &length, UCS1, VABIN), ERR_APL_DOMAIN);

  CH1 classic[4] = {};
  SetUnicode(false);  // one-byte text goes through the set that the interpreter speaks
  EXPECT_EQ(VAGetUnicode(MakeText("\x11").Get(), 0, classic, 4, UTF8, VACHAR), 0);
  SetUnicode(true);
  EXPECT_STREQ(classic, "a");
}

}  // namespace
