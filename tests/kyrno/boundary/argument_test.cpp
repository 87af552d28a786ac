// argument_test.cpp - arguments read where they stand, against the array that they hold.
#include "kyrno/boundary/argument.h"

#include <gtest/gtest.h>

#include <random>

#include "Apl/vatrans.h"
#include "tests/support/argreads.h"

namespace {

using zcode::Bytes;

Bytes Scalar(int eltype, Bytes data) { return zcode::Simple(eltype, {}, std::move(data)); }

/// Top arrays of all forms in which an argument comes, good and bad.
std::vector<Bytes> Forms() {
  const Bytes path = zcode::Text("S.CON00000001.a");
  const Bytes one = zcode::Int(1);
  std::vector<Bytes> forms = {
      path,
      zcode::Vector({path}),
      zcode::Vector({path, zcode::Int(-1)}),
      zcode::Vector({path, one, one}),
      zcode::Vector({path, one, zcode::Vector({one})}),
      zcode::Vector({zcode::Text(""), one}),
      zcode::Vector({zcode::Text(std::string("a\0b", 3)), one}),
      zcode::Vector({zcode::Text("\xE4\xF6"), one}),
      zcode::Vector({zcode::Simple(zcode::CHAR, {1}, {'c'}), one}),
      zcode::Vector({zcode::Simple(zcode::WC16, {1}, {'c', 0}), one}),
      zcode::Vector({zcode::Simple(zcode::WC16, {2}, {'c', 0, 'd', 0}), one}),
      zcode::Vector({zcode::Simple(zcode::WC32, {2}, Bytes(8, 'c')), one}),
      zcode::Vector({Scalar(zcode::WC08, {'x'}), one}),
      zcode::Vector({zcode::Simple(zcode::WC08, {1, 2}, {'x', 'y'}), one}),
      zcode::Vector({one, one}),
      zcode::Vector({path, path}),
      zcode::Vector({path, zcode::Vector({one})}),
      zcode::Vector({zcode::Vector({path}), one}),
      zcode::Nested({}, {path}),
      zcode::Nested({1, 2}, {path, one}),
      zcode::Nested({0}, {}),
      one,
      zcode::Simple(zcode::LONG, {5}, Bytes(20)),
      zcode::Vector({path, zcode::Simple(zcode::LONG, {1, 1, 1}, {7, 0, 0, 0})}),
      zcode::Vector({path, zcode::Simple(zcode::LONG, {0}, {})}),
      zcode::Vector({path, zcode::Simple(zcode::LONG, {2}, Bytes(8, 1))}),
      zcode::Vector({path, Scalar(zcode::BOOL, {0x80})}),
      zcode::Vector({path, Scalar(zcode::BOOL, {0x7F})}),
      zcode::Vector({path, Scalar(zcode::SINT, {0xFF})}),
      zcode::Vector({path, Scalar(zcode::INTG, {0x88, 0x93})}),
      zcode::Vector({path, Scalar(zcode::DOUB, {0, 0, 0, 0, 0, 0x88, 0xB3, 0x40})}),  // 5000
      zcode::Vector({path, Scalar(zcode::DOUB, Bytes(8, 0x3F))}),
      zcode::Vector({path, Scalar(zcode::DPD, Bytes(16))}),
  };
  for (const size_t length : {96u, 97u, 198u, 199u, 5000u})
    forms.push_back(zcode::Vector({zcode::Text(std::string(length, 'p')), one}));
  Bytes longer = forms[2];
  longer.resize(longer.size() + 8);  // behind the array, which Call lets pass
  forms.push_back(longer);
  return forms;
}

TEST(Argument, ReadsInAnyFormAsItsArrayDoes) {
  const std::vector<Bytes> forms = Forms();
  for (size_t i = 0; i < forms.size(); ++i) {
    for (const uint32_t header : {0xA4u, 0xA0u, 0xB2u, 0xA1u, 0x1A4u}) {
      const Bytes block = zcode::Block(forms[i], header);
      EXPECT_TRUE(ReadByArgument(block) == ReadByArray(block)) << i << " " << header;
    }
  }
  SetUnicode(true);
}

TEST(Argument, ReadsTheSameWhenAnyBytesAreChanged) {
  std::mt19937 random(1);
  const auto below = [&](size_t n) { return random() % n; };
  const std::vector<Bytes> forms = Forms();
  for (int i = 0; i < 40000; ++i) {
    Bytes top = forms[below(forms.size())];
    // Nearly all that decides stands at the heads of the first arrays.
    for (size_t n = 1 + below(3); n > 0; --n) {
      static constexpr uint8_t values[] = {0, 1, 2, 3, 4, 6, 7, 0x0F, 0x1F, 0x17, 0x7F, 0x80, 0xFF};
      const size_t at = below(below(4) ? std::min<size_t>(top.size(), 128) : top.size());
      top[at] = values[below(std::size(values))];
    }
    if (below(8) == 0) top.resize(below(top.size()));
    const Bytes block = zcode::Block(top);
    ASSERT_TRUE(ReadByArgument(block) == ReadByArray(block)) << i;
  }
}

TEST(Argument, IsTranslatedAlikeInBothWays) {
  CH1 table[MAXTRANSSIZE];
  for (UI4 i = 0; i < MAXTRANSSIZE; ++i) table[i] = static_cast<CH1>(i ^ 1);
  SetChar2asc(table);
  const Bytes block = zcode::Block(zcode::Vector({zcode::Text("abc"), zcode::Int(3)}), 0xA0);
  const ARGREADS reads = ReadByArgument(block);
  EXPECT_EQ(reads.longPath, "`cb");
  EXPECT_TRUE(reads == ReadByArray(block));
  for (UI4 i = 0; i < MAXTRANSSIZE; ++i) table[i] = static_cast<CH1>(i);
  SetChar2asc(table);
  SetUnicode(true);
}

}  // namespace
