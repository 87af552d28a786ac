// utf8check_test.cpp - the UTF-8 check against the definition, however the text is cut.

#include "Apl/utf8check.h"

#include <gtest/gtest.h>

#include <string>

namespace {

/// Feeds pieces of the size; true if the text is UTF-8 as a whole.
bool IsUtf8(const std::string& text, size_t piece) {
  UTF8CHECK check;
  bool good = true;
  for (size_t at = 0; at < text.size(); at += piece) {
    const std::string part = text.substr(at, piece);  // of its own, so that reading on shows
    good = check.Feed(reinterpret_cast<const UI1*>(part.data()), part.size());
  }
  return good && check.IsWhole();
}

/// The code point in the form that has `length` bytes, which may be too many.
std::string Encode(UI4 codepoint, UI4 length) {
  static constexpr UI4 kLeads[] = {0, 0, 0xC0, 0xE0, 0xF0, 0xF8};
  if (length == 1) return {static_cast<char>(codepoint)};
  std::string out(length, '\0');
  for (UI4 i = length - 1; i > 0; --i, codepoint >>= 6)
    out[i] = static_cast<char>(0x80 | (codepoint & 0x3F));
  out[0] = static_cast<char>(kLeads[length] | codepoint);
  return out;
}

TEST(Utf8Check, TakesEveryCharacterInItsShortestFormAndNoOther) {
  for (UI4 codepoint = 0; codepoint < 0x120000; ++codepoint) {
    const UI4 shortest = codepoint < 0x80 ? 1 : codepoint < 0x800 ? 2 : codepoint < 0x10000 ? 3 : 4;
    const bool good = codepoint <= 0x10FFFF && (codepoint < 0xD800 || codepoint > 0xDFFF);
    ASSERT_EQ(IsUtf8(Encode(codepoint, shortest), 4), good) << codepoint;
    if (shortest < 4) {
      ASSERT_FALSE(IsUtf8(Encode(codepoint, shortest + 1), 5)) << codepoint;
    }
  }
  for (UI4 lead = 0x80; lead < 0x100; ++lead) {
    EXPECT_FALSE(IsUtf8({static_cast<char>(lead)}, 1)) << lead;
    EXPECT_FALSE(IsUtf8({static_cast<char>(lead), 'a'}, 2)) << lead;
  }
}

TEST(Utf8Check, FindsOneBadByteAnywhereHoweverTheTextIsCut) {
  std::string text(40, 'a');
  text += "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80" + std::string(70, 'b') + "\xE2\x82\xAC";
  for (const size_t piece : {size_t{1}, size_t{3}, size_t{8}, size_t{33}, text.size()}) {
    EXPECT_TRUE(IsUtf8(text, piece)) << piece;
    EXPECT_FALSE(IsUtf8(text.substr(0, text.size() - 1), piece)) << piece;
    for (size_t at = 0; at < text.size(); ++at) {
      std::string spoilt = text;
      spoilt[at] = '\xFF';
      EXPECT_FALSE(IsUtf8(spoilt, piece)) << at << " by " << piece;
    }
  }
}

}  // namespace
