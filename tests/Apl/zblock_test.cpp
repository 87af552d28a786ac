// zblock_test.cpp - Z blocks read and written, and the bad ones refused.
#include "Apl/zblock.h"

#include <pthread.h>

#include "Apl/vaconv.h"
#include "tests/support/arrays.h"
#include "tests/support/zcode.h"

namespace {

using zcode::Bytes;

// An exact copy of the bytes on the heap, so that a sanitizer sees every byte read behind them.
SI4 Read(const Bytes& block, VAHOLD* array) {
  const std::unique_ptr<UI1[]> exact(new UI1[block.size()]);
  memcpy(exact.get(), block.data(), block.size());
  return ReadZ(exact.get(), static_cast<UI4>(block.size()), array->Out());
}

SI4 Read(const Bytes& block) {
  VAHOLD array;
  const SI4 code = Read(block, &array);
  EXPECT_EQ(!array, code != 0);
  return code;
}

Bytes Pack(VAHOLD array) {
  UI4* const z = PackZ(array.Release());
  if (!z) return {};
  const UI1* const bytes = reinterpret_cast<const UI1*>(z);
  const Bytes result(bytes, bytes + ZLength(z));
  free(z);
  return result;
}

Bytes Deep(UI4 levels) {
  Bytes inner = zcode::Int(1);
  Bytes heads;
  for (UI4 i = 0; i < levels; ++i) {
    const Bytes head = zcode::Head(4, 7, zcode::PNTR, {});
    heads.insert(heads.end(), head.begin(), head.end());
  }
  heads.insert(heads.end(), inner.begin(), inner.end());
  return zcode::Block(heads);
}

TEST(ZBlock, SurvivesReadingAndWritingByteForByte) {
  const Bytes rows[] = {
      zcode::Int(7),
      zcode::Text("abc"),
      zcode::Text(""),
      zcode::Simple(zcode::BOOL, {9}, {0xA5, 0x80}),
      zcode::Simple(zcode::SINT, {2, 3}, {1, 2, 3, 4, 5, 6}),
      zcode::Simple(zcode::INTG, {1}, {1, 2}),
      zcode::Simple(zcode::DOUB, {1}, Bytes(8, 1)),
      zcode::Simple(zcode::WC16, {2}, {1, 2, 3, 4}),
      zcode::Simple(zcode::WC32, {}, {1, 2, 3, 4}),
      zcode::Simple(zcode::DPD, std::vector<uint64_t>(15, 1), Bytes(16, 7)),
      zcode::Simple(zcode::BID, {2}, Bytes(32, 7)),
      zcode::Simple(zcode::DOUB, {0xFFFFFFFF, 0, 0xFFFFFFFF}, {}),
      zcode::Nested({0}, {}),
      zcode::Nested({3, 0}, {}),
      zcode::Nested({}, {zcode::Text("enclosed")}),
      zcode::Vector({zcode::Int(1), zcode::Vector({zcode::Text("x"), zcode::Nested({0}, {})}),
                     zcode::Int(2)}),
  };
  for (const Bytes& row : rows) {
    VAHOLD array;
    ASSERT_EQ(Read(zcode::Block(row), &array), 0) << &row - rows;
    EXPECT_EQ(Pack(std::move(array)), zcode::Block(row)) << &row - rows;
  }
}

TEST(ZBlock, WritesCharactersInTheTypeOfTheInterpreter) {
  VAHOLD array;
  ASSERT_EQ(Read(zcode::Block(zcode::Simple(zcode::CHAR, {1}, {'x'}), 0xA0), &array), 0);
  SetUnicode(false);
  const Bytes classic = Pack(VAHOLD::Share(array.Get()));
  SetUnicode(true);
  EXPECT_EQ(classic, zcode::Block(zcode::Simple(zcode::CHAR, {1}, {'x'})));
  EXPECT_EQ(Pack(std::move(array)), zcode::Block(zcode::Text("x")));
}

TEST(ZBlock, MakesAScalarOfExactlyTheseBytes) {
  UI4* const z = ScalarZ(7);
  EXPECT_EQ(memcmp(z, zcode::Block(zcode::Int(7), 0xA0).data(), 32), 0);
  VAHOLD array(UnpackZ(z));
  EXPECT_EQ(VARank(array.Get()), 0);
  EXPECT_EQ(TextOf(array.Get()), "7");
  free(z);
}

TEST(ZBlock, AcceptsTheHeadersOfLittleEndianSixtyFourBitInterpreters) {
  for (const UI4 header : {0xA0u, 0xA2u, 0xA4u, 0xB0u, 0xB6u}) {
    EXPECT_EQ(Read(zcode::Block(zcode::Int(1), header)), 0) << header;
  }
  for (const UI4 header : {0u, 0xA1u, 0xA8u, 0xE0u, 0x80u, 0x20u, 0x1A0u, 0xA4000000u}) {
    EXPECT_EQ(Read(zcode::Block(zcode::Int(1), header)), ERR_ARCHITECTURE) << header;
  }
}

TEST(ZBlock, RefusesABlockThatDoesNotHoldWhatItSays) {
  const std::vector<uint64_t> one = {1};
  Bytes noHead = zcode::Int(1);
  noHead[8] = 0xFF;  // rank 15, without the room for it
  Bytes longer = zcode::Int(1);
  longer.resize(longer.size() + 8);
  const Bytes rows[] = {
      {},
      Bytes(15),
      noHead,
      longer,                            // bytes behind the top array
      zcode::Simple(11, one, Bytes(8)),  // element types that nobody carries
      zcode::Simple(13, one, Bytes(8)),
      zcode::Simple(15, one, Bytes(8)),
      zcode::Simple(zcode::LONG, {3}, Bytes(8)),  // data short of the shape
      zcode::Simple(zcode::BOOL, {65}, Bytes(8)),
      zcode::Simple(zcode::LONG, {0x80000000, 2}, {}),  // products that wrap
      zcode::Simple(zcode::SINT, {0x10000, 0x10000}, {}),
      zcode::Simple(zcode::SINT, {0xFFFFFFFF}, {}),
      zcode::Head(0, 0xF, zcode::LONG, {0}),  // size words
      zcode::Head(3, 0xF, zcode::LONG, {0}),
      zcode::Head(1000, 0xF, zcode::LONG, {0}),
      zcode::Head(0x2000000000000004, 0xF, zcode::LONG, {0}),
      zcode::Head(4, 7, zcode::PNTR, {0xFFFFFFFF}),  // children that are not there
      zcode::Nested({2}, {zcode::Int(1)}),
      zcode::Nested({0x10000, 0x10000}, {zcode::Int(1)}),
      zcode::Nested({1}, {zcode::Int(1), zcode::Int(2)}),  // and one too many
  };
  for (const Bytes& row : rows) EXPECT_EQ(Read(zcode::Block(row)), ERR_ARCHITECTURE) << &row - rows;

  Bytes wrongLength = zcode::Block(zcode::Int(1));
  wrongLength[3] = static_cast<UI1>(wrongLength[3] + 1);
  EXPECT_EQ(Read(wrongLength), ERR_ARCHITECTURE);
  EXPECT_EQ(UnpackZ(nullptr), nullptr);
}

TEST(ZBlock, IsRefusedWhenCutAnywhere) {
  const Bytes whole =
      zcode::Vector({zcode::Text("one"), zcode::Vector({zcode::Int(2), zcode::Text("three")})});
  for (size_t n = 0; n < whole.size(); ++n) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_EQ(Read(zcode::Block(cut)), ERR_ARCHITECTURE) << n;
  }
}

TEST(ZBlock, IsViewedInPlaceExactlyWhenItIsSimpleAndWhole) {
  const Bytes text = zcode::Block(zcode::Text("abc"));
  ZVIEW view;
  ASSERT_TRUE(ViewZ(text.data(), static_cast<UI4>(text.size()), &view));
  EXPECT_EQ(view.type, VAC1);
  EXPECT_EQ(view.rank, 1);
  EXPECT_EQ(std::string(view.data, view.count), "abc");

  const Bytes nested = zcode::Block(zcode::Vector({zcode::Int(1)}));
  EXPECT_FALSE(ViewZ(nested.data(), static_cast<UI4>(nested.size()), &view));
  for (size_t n = 0; n < text.size(); ++n) {
    EXPECT_FALSE(ViewZ(text.data(), static_cast<UI4>(n), &view)) << n;
  }
  const Bytes longer = zcode::Block(zcode::Simple(zcode::CHAR, {99}, Bytes(8, 'x')));
  EXPECT_FALSE(ViewZ(longer.data(), static_cast<UI4>(longer.size()), &view));
}

TEST(ZBlock, IsWrittenInPlaceAsPackWritesIt) {
  for (const char* text : {"", "a", "abcdefgh"}) {
    PCH1 data = nullptr;
    UI4 const n = static_cast<UI4>(strlen(text));
    PUI4 const z = VectorZ(VAC1, n, &data);
    memcpy(data, text, n);
    const Bytes want = zcode::Block(zcode::Text(text));
    ASSERT_EQ(ZLength(z), want.size());
    EXPECT_EQ(memcmp(z, want.data(), want.size()), 0) << text;
    free(z);
  }
  PCH1 data = nullptr;
  EXPECT_EQ(VectorZ(VAI2, 0x80000000, &data), nullptr);
}

TEST(ZBlock, PacksNothingThatHasNoImage) {
  EXPECT_TRUE(Pack(VAHOLD()).empty());
  EXPECT_TRUE(Pack(VAHOLD(VANew(VAHet, 0, nullptr))).empty());
  EXPECT_TRUE(Pack(MakeNested(VAHOLD(VANew(VA2F8, 0, nullptr)))).empty());
  EXPECT_TRUE(Pack(MakeNested(MakeText("abc"), VAHOLD())).empty());
  const std::vector<UI4> ones(16, 1);
  EXPECT_TRUE(Pack(VAHOLD(VANew(VAI4, 16, ones.data()))).empty());
}

// The whole way of the deepest value on the smallest stack that a thread may have.
void* WalkDeepest(void*) {
  VAHOLD array;
  EXPECT_EQ(Read(Deep(kMaxDepth), &array), 0);
  PAA raw = array.Release();
  EXPECT_EQ(VANorm(&raw, Tes2VA, VA2Tes), 0);
  EXPECT_NE(VAType(raw), VANoType);
  VAFree(raw);
  EXPECT_EQ(Read(Deep(kMaxDepth), &array), 0);
  EXPECT_EQ(Pack(std::move(array)), Deep(kMaxDepth));
  EXPECT_EQ(Read(Deep(kMaxDepth + 1)), ERR_ARCHITECTURE);
  return nullptr;
}

TEST(ZBlock, CarriesNestingToItsLimitOnASmallStack) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, 256 * 1024), 0);
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, &attributes, WalkDeepest, nullptr), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

}  // namespace
