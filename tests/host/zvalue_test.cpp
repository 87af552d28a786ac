// zvalue_test.cpp - block images byte by byte, round trips, and blocks that are none.
#include "host/zvalue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "host/demo.h"

namespace {

using host::ZArray;
using host::ZError;
using host::ZType;
using host::ZValue;

std::string Image(const ZValue& value) {
  const std::vector<std::uint32_t> z = value.Encode();
  return std::string(reinterpret_cast<const char*>(z.data()), z.size() * sizeof z[0]);
}

/// "0F10 05" and the like as bytes.
std::string Hex(const std::string& digits) {
  std::string bytes;
  std::string pair;
  for (const char c : digits) {
    if (c == ' ') continue;
    pair += c;
    if (pair.size() < 2) continue;
    bytes += static_cast<char>(std::stoi(pair, nullptr, 16));
    pair.clear();
  }
  return bytes;
}

TEST(ZValue, LaysOutArraysByteForByte) {
  const struct {
    const char* what;
    ZValue value;
    std::string image;
  } cases[] = {
      {"integer scalar", 7,
       Hex("00000020 000000A4"
           "0400000000000000 0F04000000000000"
           "07000000 00000000")},
      {"three characters", "abc",
       Hex("00000028 000000A4"
           "0500000000000000 1F07000000000000 0300000000000000"
           "616263 0000000000")},
      {"empty character vector", "",
       Hex("00000020 000000A4"
           "0400000000000000 1F07000000000000 0000000000000000")},
      {"nested vector of two scalars", ZValue::List({1, -1}),
       Hex("00000050 000000A4"
           "0600000000000000 1706000000000000 0200000000000000"
           "0400000000000000 0F04000000000000 01000000 00000000"
           "0400000000000000 0F04000000000000 FFFFFFFF 00000000")},
      {"empty nested vector", ZValue::List({}),
       Hex("00000020 000000A4"
           "0400000000000000 1706000000000000 0000000000000000")},
      {"nine bits, the first one high", ZValue(ZType::Bit, {9}, {0x80, 0xFF}),
       Hex("00000028 000000A4"
           "0500000000000000 1F01000000000000 0900000000000000"
           "8080 000000000000")},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Image(c.value), c.image) << c.what;
    EXPECT_EQ(ZValue::Decode(c.image.data(), c.image.size()), c.value) << c.what;
  }
}

TEST(ZValue, EveryTypeRankAndNestingComesBackTheSame) {
  for (const ZValue& value : host::SampleArrays()) {
    const std::string image = Image(value);
    EXPECT_EQ(ZValue::Decode(image.data(), image.size()), value);
  }
}

TEST(ZValue, ReadsEveryHeaderThatIsAllowedAndNoOther) {
  std::string image = Image("text");
  for (const int header : {0xA0, 0xA2, 0xA4, 0xB0, 0xB6}) {
    image[7] = static_cast<char>(header);
    EXPECT_EQ(ZValue::Decode(image.data(), image.size()).Text(), "text") << header;
  }
  for (const int header : {0x00, 0x80, 0xA1, 0xA8, 0xE0, 0x24}) {
    image[7] = static_cast<char>(header);
    EXPECT_THROW(ZValue::Decode(image.data(), image.size()), ZError) << header;
  }
  image[7] = static_cast<char>(0xA4);
  image[6] = 1;
  EXPECT_THROW(ZValue::Decode(image.data(), image.size()), ZError);
}

TEST(ZValue, ReadsClassicCharactersAsOneByteCharacters) {
  std::string image = Image("abc");
  image[17] = 0;
  EXPECT_EQ(ZValue::Decode(image.data(), image.size()), ZValue("abc"));
}

TEST(ZValue, RefusesABlockCutAtAnyLength) {
  const ZValue value = ZValue::List({"text", ZValue::List({2.5, ""}), ZValue::List({})});
  const std::string whole = Image(value);
  for (std::size_t n = 0; n < whole.size(); ++n) {
    // In memory of exactly that size, so that a sanitizer sees a read behind it.
    std::vector<unsigned char> cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n));
    if (n >= 4) {
      const std::uint32_t length = __builtin_bswap32(static_cast<std::uint32_t>(n));
      std::memcpy(cut.data(), &length, sizeof length);
    }
    EXPECT_THROW(ZValue::Decode(cut.data(), cut.size()), ZError) << n;
  }
}

TEST(ZValue, RefusesWrongFields) {
  const std::string good = Image(ZValue::List({"text", 1}));
  constexpr int kTop = 8;
  constexpr int kItem = kTop + 24;
  const struct {
    const char* what;
    std::size_t at;
    int byte;
  } cases[] = {
      {"block length", 3, 0x50},          {"one item too many", kTop + 16, 3},
      {"one item too few", kTop + 16, 1}, {"items without end", kTop + 23, 0x7F},
      {"unknown type", kItem + 9, 11},    {"kind against type", kItem + 8, 0x17},
      {"rank too high", kItem + 8, 0xFF}, {"shape too long", kItem + 16, 0x70},
      {"length too long", kItem, 0x70},   {"length too short", kItem, 1},
  };
  for (const auto& c : cases) {
    std::string bad = good;
    bad[c.at] = static_cast<char>(c.byte);
    EXPECT_THROW(ZValue::Decode(bad.data(), bad.size()), ZError) << c.what;
  }
}

TEST(ZValue, BoundsTheDepthBothWays) {
  ZValue deep = 1;
  for (int level = 1; level < ZValue::kMaxDepth; ++level) deep = ZValue::List({deep});
  std::string image = Image(deep);
  EXPECT_EQ(ZValue::Decode(image.data(), image.size()), deep);

  EXPECT_THROW(ZValue::List({deep}).Encode(), ZError);
  image.insert(8, Hex("0500000000000000 1706000000000000 0100000000000000"));
  const std::uint32_t length = __builtin_bswap32(static_cast<std::uint32_t>(image.size()));
  std::memcpy(image.data(), &length, sizeof length);
  EXPECT_THROW(ZValue::Decode(image.data(), image.size()), ZError);
}

TEST(ZValue, RefusesDataThatDoNotFitTheShape) {
  EXPECT_THROW(ZValue(ZType::I2, {2}, {1, 2, 3}), ZError);
  EXPECT_THROW(ZValue({3}, std::vector<ZValue>{1, 2}), ZError);
  EXPECT_THROW(ZValue(ZType::I1, std::vector<std::uint32_t>(16, 1), {0}), ZError);
  EXPECT_THROW(ZValue(ZType::I1, {0x10000, 0x10000}, {}), ZError);
}

TEST(ZValue, GivesElementsOfEveryIntegerType) {
  EXPECT_EQ(ZValue(ZType::Bit, {9}, {0x40, 0x80}).Integer(1), 1);
  EXPECT_EQ(ZValue(ZType::Bit, {9}, {0x40, 0x80}).At(8).Integer(), 1);
  EXPECT_EQ(ZValue(ZType::I1, {2}, {1, 0xFF}).Integer(1), -1);
  EXPECT_EQ(ZValue(ZType::I2, {1}, {0xC8, 0}).Integer(), 200);
  EXPECT_EQ(ZValue(3.0).Integer(), 3);
  EXPECT_EQ(ZValue::List({"a", 5}).Integer(1), 5);
  EXPECT_THROW(ZValue(2.5).Integer(), ZError);
  EXPECT_THROW(ZValue("a").Integer(), ZError);
  EXPECT_THROW(ZValue(1).Integer(1), ZError);
}

}  // namespace
