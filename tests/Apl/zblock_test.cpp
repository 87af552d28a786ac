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
  const Bytes exact(block);
  return ReadZ(exact.data(), static_cast<UI4>(exact.size()), array->Out());
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
  const Bytes inner = zcode::Int(1), head = zcode::Head(4, 7, zcode::PNTR, {});
  Bytes all;
  for (UI4 i = 0; i < levels; ++i) all.insert(all.end(), head.begin(), head.end());
  all.insert(all.end(), inner.begin(), inner.end());
  return zcode::Block(all);
}

TEST(ZBlock, SurvivesReadingAndWritingByteForByte) {
  const Bytes rows[] = {
      zcode::Int(7),
      zcode::Text(""),
      zcode::Simple(zcode::BOOL, {9}, {0xA5, 0x80}),
      zcode::Simple(zcode::WC16, {2}, {1, 2, 3, 4}),
      zcode::Simple(zcode::DPD, std::vector<uint64_t>(15, 1), Bytes(16, 7)),
      zcode::Simple(zcode::DOUB, {0xFFFFFFFF, 0, 0xFFFFFFFF}, {}),
      zcode::Nested({3, 0}, {}),
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

TEST(ZBlock, RefusesABlockThatDoesNotHoldWhatItSays) {
  Bytes noHead = zcode::Int(1);
  noHead[8] = 0xFF;  // rank 15, without the room for it
  Bytes longer = zcode::Int(1);
  longer.resize(longer.size() + 8);
  const Bytes rows[] = {
      {},
      Bytes(15),
      noHead,
      longer,                                     // bytes behind the top array
      zcode::Simple(11, {1}, Bytes(8)),           // element types that nobody carries
      zcode::Simple(zcode::LONG, {3}, Bytes(8)),  // data short of the shape
      zcode::Simple(zcode::BOOL, {65}, Bytes(8)),
      zcode::Simple(zcode::LONG, {0x80000000, 2}, {}),  // products that wrap
      zcode::Head(3, 0xF, zcode::LONG, {0}),            // size words
      zcode::Head(0x2000000000000004, 0xF, zcode::LONG, {0}),
      zcode::Head(4, 7, zcode::PNTR, {0xFFFFFFFF}),  // children that are not there
      zcode::Nested({2}, {zcode::Int(1)}),
      zcode::Nested({0x10000, 0x10000}, {zcode::Int(1)}),
      zcode::Nested({1}, {zcode::Int(1), zcode::Int(2)}),  // and one too many
  };
  for (const Bytes& row : rows) EXPECT_EQ(Read(zcode::Block(row)), ERR_ARCHITECTURE) << &row - rows;
}

TEST(ZBlock, IsRefusedWhenCutAnywhere) {
  const Bytes whole =
      zcode::Vector({zcode::Text("one"), zcode::Vector({zcode::Int(2), zcode::Text("three")})});
  for (size_t n = 0; n < whole.size(); ++n) {
    const Bytes cut(whole.data(), whole.data() + n);
    EXPECT_EQ(Read(zcode::Block(cut)), ERR_ARCHITECTURE) << n;
  }
  Bytes wrongLength = zcode::Block(whole);
  ++wrongLength[3];
  EXPECT_EQ(Read(wrongLength), ERR_ARCHITECTURE);
}

TEST(ZBlock, IsViewedInPlaceExactlyWhenItIsSimpleAndWhole) {
  const Bytes text = zcode::Block(zcode::Text("abc"));
  ZVIEW view;
  ASSERT_TRUE(ViewZ(text.data(), static_cast<UI4>(text.size()), &view));
  EXPECT_EQ(std::string(view.data, view.count), "abc");
  const Bytes nested = zcode::Block(zcode::Vector({zcode::Int(1)}));
  EXPECT_FALSE(ViewZ(nested.data(), static_cast<UI4>(nested.size()), &view));
  for (size_t n = 0; n < text.size(); ++n) {
    EXPECT_FALSE(ViewZ(text.data(), static_cast<UI4>(n), &view)) << n;
  }
  const Bytes longer = zcode::Block(zcode::Simple(zcode::CHAR, {99}, Bytes(8, 'x')));
  EXPECT_FALSE(ViewZ(longer.data(), static_cast<UI4>(longer.size()), &view));
}

TEST(ZBlock, PacksNothingThatHasNoImage) {
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
