// vaunicod_test.cpp - conversion between encodings.
#include "Apl/vaunicod.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kyrno/base/error.h"

namespace {

const UI1* Bytes(const std::string& text) { return reinterpret_cast<const UI1*>(text.data()); }

template <typename T>
std::string Units(const std::vector<T>& units) {
  return std::string(reinterpret_cast<const CH1*>(units.data()), units.size() * sizeof(T));
}

// Measures and converts; both must agree.
SI4 Convert(UNICODETYPES to, UNICODETYPES from, const std::string& source, std::string* out,
            SI2 terminate = 0) {
  UI4 size = 0;
  const UI4 n = static_cast<UI4>(source.size());
  const SI4 code = ConvUnicodeM(to, nullptr, &size, from, Bytes(source), n, terminate);
  out->assign(size, '#');
  PUI1 const destination = reinterpret_cast<PUI1>(out->data());
  if (code == 0) {
    EXPECT_EQ(ConvUnicode(to, destination, size, from, Bytes(source), n, terminate), 0);
  }
  return code;
}

TEST(Unicode, ConvertsTheSameTextBetweenAllEncodings) {
  const std::pair<UNICODETYPES, std::string> forms[] = {
      {UTF8, "a\xC3\xA9\xE2\x8D\x8E\xF0\x9F\x98\x80 plain text of many bytes"},
      {UTF16, Units<UI2>({'a', 0xE9, 0x234E, 0xD83D, 0xDE00})},
      {UCS4, Units<UI4>({'a', 0xE9, 0x234E, 0x1F600})},
  };
  std::string tail4, tail16;
  for (const CH1 c : std::string(" plain text of many bytes")) {
    tail4 += Units<UI4>({static_cast<UI4>(c)});
    tail16 += Units<UI2>({static_cast<UI2>(c)});
  }
  const std::string texts[] = {forms[0].second, forms[1].second + tail16, forms[2].second + tail4};
  for (size_t from = 0; from < 3; ++from) {
    for (size_t to = 0; to < 3; ++to) {
      std::string out;
      EXPECT_EQ(Convert(forms[to].first, forms[from].first, texts[from], &out), 0);
      EXPECT_EQ(out, texts[to]) << from << " to " << to;
    }
  }
}

TEST(Unicode, ReportsWhatTheTargetCannotHoldAndEndsWhereTheSourceIsMalformed) {
  struct {
    UNICODETYPES to;
    UNICODETYPES from;
    std::string source;
    SI4 code;
    std::string result;
  } const rows[] = {
      {C1AV, UCS1, "a0\n", 0, "\x11\x30\x02"},
      {UCS1, C1AV, "\x11\x30\x02", 0, "a0\n"},
      {C1AV, UCS4, Units<UI4>({0x1F600}), ERR_APL_DOMAIN, ""},
      {UCS1, UTF8, "\xC4\x80", ERR_APL_DOMAIN, ""},
      {UCS2, UTF8, "\xF0\x9F\x98\x80", ERR_APL_DOMAIN, ""},
      {UTF8, UCS4, Units<UI4>({0x110000}), ERR_UTF8, ""},
      {UCS4, UTF8, "\xF4\x90\x80\x80", ERR_UTF8, ""},
      {UCS1, UTF8, "a\xC0\x80z", 0, "a"},
      {UCS1, UTF8, "a\xE2\x8D", 0, "a"},
      {UCS1, UTF8, "a\x80z", 0, "a"},
      {UCS1, UTF8, "a\xFFz", 0, "a"},
      {UCS1, UCS1, std::string("a\0z", 3), 0, "a"},
      {UCS4, UTF16, Units<UI2>({0xD83D, 'a'}), 0, Units<UI4>({0xD83D, 'a'})},
      {UCS1, UCS2, Units<UI2>({'a'}) + "b", 0, "a"},
  };
  for (const auto& row : rows) {
    std::string out;
    EXPECT_EQ(Convert(row.to, row.from, row.source, &out), row.code) << &row - rows;
    EXPECT_EQ(out, row.result) << &row - rows;
  }
  std::string out;
  EXPECT_EQ(Convert(UTF16, UTF8, "ab", &out, 1), 0);
  EXPECT_EQ(out, Units<UI2>({'a', 'b', 0}));
}

TEST(Unicode, NeverWritesPartOfACharacterOrPastTheEnd) {
  const std::string source = Units<UI4>({'a', 0x1F600});
  for (const UNICODETYPES to : {UTF8, UTF16, UCS4}) {
    const UI4 first = MinUSize[to];
    for (UI4 size = first + 1; size < first + 4; ++size) {
      std::string out(16, '#');
      EXPECT_EQ(
          ConvUnicode(to, reinterpret_cast<PUI1>(out.data()), size, UCS4, Bytes(source), 8, 0),
          ERR_APL_LENGTH);
      EXPECT_EQ(out.substr(first), std::string(16 - first, '#')) << to << " " << size;
    }
  }
  UI1 full[2] = {};
  EXPECT_EQ(ConvUnicode(UCS1, full, 2, UCS1, Bytes("abc"), 3, 0), 0);  // cut
  EXPECT_EQ(ConvUnicode(UCS1, full, 2, UCS1, Bytes("ab"), 2, 1), ERR_APL_LENGTH);
}

TEST(Unicode, CountsOnlyTextThatConvertsWhole) {
  constexpr size_t kBad = static_cast<size_t>(-1);
  struct {
    std::string text;
    size_t count;
    UI1 width;
  } const rows[] = {
      {"", 0, 1},
      {"twelve bytes", 12, 1},
      {"\xC3\xBF", 1, 1},
      {"a\xC4\x80", 2, 2},
      {"\xE2\x8D\x8E\xC4\x80", 2, 2},
      {"\xF0\x9F\x98\x80", 1, 4},
      {std::string("a\0\xFF", 3), 1, 1},
      {"\xC0\x80", kBad, 1},
      {"\xE0\x80\x80", kBad, 1},
      {"\xF4\x90\x80\x80", kBad, 1},
      {"\xF5\x80\x80\x80", kBad, 1},
      {"a\x80", kBad, 1},
      {"eight bytes, then \xE2\x8D", kBad, 1},
      {"\xE2\x41\x41", kBad, 1},
  };
  for (const auto& row : rows) {
    UI1 width = 0;
    EXPECT_EQ(utf8_lenStrict(Bytes(row.text), row.text.size(), &width), row.count) << row.text;
    if (row.count != kBad) {
      EXPECT_EQ(width, row.width) << row.text;
    }
  }
}

TEST(Unicode, SizesANewArrayForAText) {
  UI1 width = 0;
  EXPECT_EQ(ToVAPL(Bytes("a\xE2\x8D\x8E"), 4, UTF8, &width), 2u);
  EXPECT_EQ(width, 2);
  EXPECT_EQ(ToVAPL(Bytes(Units<UI2>({'a', 0xD83D, 0xDE00, 0, 'b'})), 10, UTF16, &width), 2u);
  EXPECT_EQ(width, 4);
  EXPECT_EQ(ToVAPL(Bytes("abcdefgh"), 8, UCS4, &width), 8u);
  EXPECT_EQ(ZeroLength(Bytes(Units<UI4>({'a', 'b', 0})), UCS4), 2);
}

}  // namespace
