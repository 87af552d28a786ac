// zblock_test.cpp - Z blocks read and written, and the bad ones refused.
#include "Apl/zblock.h"

#include <pthread.h>

#include <cmath>

#include "Apl/vaconv.h"
#include "Apl/vatrans.h"
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

// An event of a wait: (0, name, word, times).
Bytes WriteEvent(const std::string& name, const std::string& word, const std::vector<F8>& times) {
  const UI4 counts[] = {static_cast<UI4>(name.size()), static_cast<UI4>(word.size()),
                        static_cast<UI4>(times.size())};
  ZWRITER z(ZWRITER::kNestedBytes + ZWRITER::kIntBytes + ZWRITER::VectorBytes(VAC1, counts[0]) +
            ZWRITER::VectorBytes(VAC1, counts[1]) + ZWRITER::VectorBytes(VAF8, counts[2]));
  EXPECT_TRUE(z);
  z.Nested(4);
  z.Int(0);
  z.Text(name.data(), counts[0]);
  z.Text(word.data(), counts[1]);
  z.Floats(times.data(), counts[2]);
  UI4* const block = z.Finish();
  const UI1* const bytes = reinterpret_cast<const UI1*>(block);
  const Bytes result(bytes, bytes + ZLength(block));
  free(block);
  return result;
}

Bytes PackEvent(const std::string& name, const std::string& word, const std::vector<F8>& times) {
  const UI4 four = 4;
  VAHOLD array(VANew(VAPntr, 1, &four));
  const auto setText = [&](UI4 at, const std::string& text) {
    const UI4 n = static_cast<UI4>(text.size());
    EXPECT_EQ(VASetCH1(array.Get(), at, text.data(), n, VACHAR), 0);
  };
  EXPECT_EQ(VASetSI4(array.Get(), 0, 0), 0);
  setText(1, name);
  setText(2, word);
  EXPECT_EQ(VASetpAA(array.Get(), 3, MakeVector<F8>(VAF8, times).Release()), 0);
  PAA normal = array.Release();
  EXPECT_EQ(VANorm(&normal, Tes2VA, VA2Tes), 0);
  return Pack(VAHOLD(normal));
}

TEST(ZWriter, WritesWhatPackingTheNormalArrayWould) {
  CH1 table[MAXTRANSSIZE];
  for (const bool translated : {false, true}) {
    for (UI4 i = 0; i < MAXTRANSSIZE; ++i) table[i] = static_cast<CH1>(i ^ (translated ? 1 : 0));
    SetChar2av(table);
    for (const bool unicode : {true, false}) {
      SetUnicode(unicode);
      for (size_t length = 0; length < 20; ++length) {
        const std::string name(length, static_cast<char>('a' + length));
        for (const std::string word : {"", "Receive", "Block\xE4xy"}) {
          for (const std::vector<F8>& times :
               {std::vector<F8>{0, 1, -0.0, 1.7e15}, {NAN, INFINITY, 4, 5}, {}})
            EXPECT_EQ(WriteEvent(name, word, times), PackEvent(name, word, times)) << length;
        }
      }
    }
  }
  for (UI4 i = 0; i < MAXTRANSSIZE; ++i) table[i] = static_cast<CH1>(i);
  SetChar2av(table);
  SetUnicode(true);
}

TEST(ZBlock, ShowsItsItemsInPlaceExactlyWhenAllAreSimple) {
  const Bytes text = zcode::Text("abc"), number = zcode::Int(7);
  const struct {
    Bytes top;
    UI4 items;
  } rows[] = {
      {text, 1},
      {zcode::Vector({text, number}), 2},
      {zcode::Vector({text, number, number}), 0},
      {zcode::Vector({text, zcode::Vector({number})}), 0},
      {zcode::Nested({}, {text}), 0},
      {zcode::Nested({0}, {}), 0},
  };
  for (const auto& row : rows) {
    const Bytes whole = zcode::Block(row.top);
    ZVIEW items[2];
    EXPECT_EQ(ViewItems(whole.data(), static_cast<UI4>(whole.size()), items, 2), row.items);
    for (size_t n = 0; n < row.top.size(); ++n) {
      const Bytes cut = zcode::Block(Bytes(row.top.data(), row.top.data() + n));
      EXPECT_EQ(ViewItems(cut.data(), static_cast<UI4>(cut.size()), items, 2), 0u) << n;
    }
  }
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
