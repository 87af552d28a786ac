// intbig_test.cpp - big-endian numbers of any length as decimal text.
#include "util/intbig.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string Bytes(const std::string& hex) {
  std::string bytes;
  for (size_t i = 0; i < hex.size(); i += 2)
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return bytes;
}

/// The length and the text, which is written over the number itself.
std::string Format(std::string bytes, SI4 isSigned) {
  constexpr UI4 room = 200;
  const UI4 size = static_cast<UI4>(bytes.size());
  bytes.resize(size + room, '#');
  const PUI1 value = reinterpret_cast<PUI1>(bytes.data());
  const UI4 length = FmtIntBig(value, size, bytes.data(), room, isSigned);
  return std::to_string(length) + " " + std::string(bytes.c_str());
}

TEST(FmtIntBig, GivesTheDecimalTextOfANumberOfAnyLength) {
  const struct {
    const char* hex;
    SI4 isSigned;
    const char* text;
  } cases[] = {
      {"", 1, "1 0"},
      {"000000", 1, "1 0"},
      {"007f", 1, "3 127"},
      {"80", 1, "4 -128"},
      {"80", 0, "3 128"},
      {"ffffffffffff", 1, "2 -1"},
      {"ff00", 1, "4 -256"},
      {"3b9aca00", 0, "10 1000000000"},
      {"0de0b6b3a7640000", 0, "19 1000000000000000000"},
      {"ffffffffffffffffff", 0, "22 4722366482869645213695"},
      {"800000000000000000", 1, "23 -2361183241434822606848"},
      {"9cf3a2ccf2b1a2ffb7b9a0b1d1f0000000000001", 1,
       "49 -565465814068621696434210203265645798776515854335"},
  };
  for (const auto& c : cases) EXPECT_EQ(Format(Bytes(c.hex), c.isSigned), c.text) << c.hex;
}

TEST(FmtIntBig, WritesNoMoreThanThereIsRoomForAndTellsTheFullLength) {
  const std::string bytes = Bytes("ff00");
  CH1 text[] = "######";
  const UI1* const value = reinterpret_cast<const UI1*>(bytes.data());
  EXPECT_EQ(FmtIntBig(value, 2, text, 0, 1), 4u);
  EXPECT_STREQ(text, "######");
  EXPECT_EQ(FmtIntBig(value, 2, nullptr, 6, 1), 4u);
  EXPECT_EQ(FmtIntBig(value, 2, text, 3, 1), 4u);
  EXPECT_EQ(std::string(text, 6), std::string("-2\0###", 6));
}

}  // namespace
