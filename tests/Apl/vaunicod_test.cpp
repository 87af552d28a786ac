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
SI4 Convert(UNICODETYPES to, UNICODETYPES from, const std::string& source, std::string* out) {
  UI4 size = 0;
  const UI4 n = static_cast<UI4>(source.size());
  const SI4 code = ConvUnicodeM(to, nullptr, &size, from, Bytes(source), n, 0);
  out->assign(size, '#');
  PUI1 const destination = reinterpret_cast<PUI1>(out->data());
  return code ? code : ConvUnicode(to, destination, size, from, Bytes(source), n, 0);
}

TEST(Unicode, ConvertsTheSameTextBetweenAllEncodings) {
  const UNICODETYPES types[] = {UTF8, UTF16, UCS4};
  std::string texts[] = {"a\xC3\xA9\xE2\x8D\x8E\xF0\x9F\x98\x80",
                         Units<UI2>({'a', 0xE9, 0x234E, 0xD83D, 0xDE00}),
                         Units<UI4>({'a', 0xE9, 0x234E, 0x1F600})};
  for (const CH1 c : std::string(" plain text of many bytes")) {
    texts[0] += c;
    texts[1] += Units<UI2>({static_cast<UI2>(c)});
    texts[2] += Units<UI4>({static_cast<UI4>(c)});
  }
  for (size_t from = 0; from < 3; ++from) {
    for (size_t to = 0; to < 3; ++to) {
      std::string out;
      EXPECT_EQ(Convert(types[to], types[from], texts[from], &out), 0);
      EXPECT_EQ(out, texts[to]) << from << " to " << to;
    }
  }
}

TEST(Unicode, ReportsWhatTheTargetCannotHoldAndEndsWhereTheSourceIsMalformed) {
  struct {
    UNICODETYPES to, from;
    std::string source;
    SI4 code;
    std::string result;
  } const rows[] = {
      {UCS1, C1AV, "\x11\x30\x02", 0, "a0\n"},
      {C1AV, UCS4, Units<UI4>({0x1F600}), ERR_APL_DOMAIN, ""},
      {UCS4, UTF8, "\xF4\x90\x80\x80", ERR_UTF8, ""},
      {UCS1, UTF8, "a\xC0\x80z", 0, "a"},
      {UCS1, UCS1, std::string("a\0z", 3), 0, "a"},
      {UCS4, UTF16, Units<UI2>({0xD83D, 'a'}), 0, Units<UI4>({0xD83D, 'a'})},
      {UCS1, UCS2, Units<UI2>({'a'}) + "b", 0, "a"},
  };
  for (const auto& row : rows) {
    std::string out;
    EXPECT_EQ(Convert(row.to, row.from, row.source, &out), row.code) << &row - rows;
    EXPECT_EQ(out, row.result) << &row - rows;
  }
}

TEST(Unicode, NeverWritesPartOfACharacterOrPastTheEnd) {
  const std::string source = Units<UI4>({'a', 0x1F600});
  for (const UNICODETYPES to : {UTF8, UTF16, UCS4}) {
    const UI4 first = MinUSize[to];
    for (UI4 size = first + 1; size < first + 4; ++size) {
      std::string out(16, '#');
      PUI1 const at = reinterpret_cast<PUI1>(out.data());
      EXPECT_EQ(ConvUnicode(to, at, size, UCS4, Bytes(source), 8, 0), ERR_APL_LENGTH);
      EXPECT_EQ(out.substr(first), std::string(16 - first, '#')) << to << " " << size;
    }
  }
}

TEST(Unicode, CountsOnlyTextThatConvertsWhole) {
  const std::pair<std::string, SI4> rows[] = {{"\xE2\x8D\x8E\xC4\x80", 2},
                                              {std::string("a\0\xFF", 3), 1},
                                              {"\xE0\x80\x80", -1},
                                              {"\xF4\x90\x80\x80", -1},
                                              {"eight bytes, then \xE2\x8D", -1}};
  for (const auto& [text, count] : rows) {
    UI1 width = 0;
    EXPECT_EQ(static_cast<SI4>(utf8_lenStrict(Bytes(text), text.size(), &width)), count) << text;
  }
}

}  // namespace
