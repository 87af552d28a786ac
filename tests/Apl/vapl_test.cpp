// vapl_test.cpp - making, counting and releasing arrays.
#include "Apl/vapl.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

VAHOLD Make(VATYPES type, std::vector<UI4> shape) {
  return VAHOLD(VANew(type, static_cast<UI2>(shape.size()), shape.data()));
}

TEST(Varray, HoldsAsManyElementsAndDataWordsAsItsShapeAsks) {
  struct {
    VATYPES type;
    std::vector<UI4> shape;
    UI4 elements;
    UI4 bytes;
  } const rows[] = {
      {VAI4, {0}, 0, 0},         {VAI4, {}, 1, 4},           {VABit, {9}, 9, 4},
      {VABit, {33}, 33, 8},      {VAApvI4, {1000}, 1000, 8}, {VAApvF8, {1000}, 1000, 16},
      {VAPntr, {0}, 1, 8},       {VAHet, {3}, 3, 32},        {VABoxd, {2, 0}, 1, 8},
      {VAC1, {5}, 5, 8},         {VA2F8, {2}, 2, 32},        {VAC2, {0xFFFFFFFF, 0}, 0, 0},
      {VABid, {1, 1, 1}, 1, 16},
  };
  for (const auto& row : rows) {
    const VAHOLD a = Make(row.type, row.shape);
    ASSERT_TRUE(a) << row.type;
    EXPECT_EQ(VAElems(a.Get()), row.elements) << row.type;
    EXPECT_EQ(VADataLength(a.Get()), row.bytes) << row.type;
    EXPECT_EQ(VALength(a.Get()), row.bytes + 12 + 4 * row.shape.size()) << row.type;
  }
}

TEST(Varray, PutsDoublesOnEightAndDecimalsOnSixteenBytesAtEveryRank) {
  const std::vector<UI4> ones(15, 1);
  for (UI2 rank = 0; rank <= 15; ++rank) {
    for (const VATYPES type : {VAF8, VA2F8, VAApvF8, VADpd, VABid}) {
      const VAHOLD a(VANew(type, rank, ones.data()));
      ASSERT_TRUE(a);
      const size_t boundary = type == VADpd || type == VABid ? 16 : 8;
      EXPECT_EQ(reinterpret_cast<uintptr_t>(VAData(a.Get())) % boundary, 0u) << type << " " << rank;
    }
  }
}

TEST(Varray, IsNotMadeWhenItsSizeCannotBe) {
  EXPECT_FALSE(Make(VANoType, {}));
  EXPECT_FALSE(Make(VAI4, {0x08000000}));
  EXPECT_FALSE(Make(VAC1, {0x10000, 0x10000}));  // 2^32 wraps to 0
  EXPECT_FALSE(Make(VAC1, {0x10000, 0x10000, 0x10000, 0x10000, 3}));
  EXPECT_FALSE(Make(VAPntr, {0x80000001, 2}));
}

TEST(Varray, GivesBackOneCountOfEachElementWhenItDies) {
  VAHOLD shared = Make(VAI4, {});
  for (const VATYPES type : {VAPntr, VAHet}) {
    VAHOLD nested = Make(type, {3});  // the last slot stays empty
    VAIncRef(shared.Get());
    VASetOwned(nested.Get(), 0, shared.Get());
    VASetOwned(nested.Get(), 1, VANew(VAF8, 0, nullptr));
    EXPECT_EQ(VARefCount(shared.Get()), 2u);
    nested.Reset();
    EXPECT_EQ(VARefCount(shared.Get()), 1u) << type;
  }
}

TEST(Varray, CountsRightWhenManyThreadsShareIt) {
  const VAHOLD a = Make(VAC1, {4});
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&a] {
      for (int i = 0; i < 1000; ++i) VAHOLD::Share(a.Get());
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(VARefCount(a.Get()), 1u);
}

TEST(Vahold, MovesItsOneCount) {
  VAHOLD a = Make(VAI4, {});
  VAHOLD b = VAHOLD::Share(a.Get());
  EXPECT_EQ(VARefCount(a.Get()), 2u);
  b = std::move(a);
  EXPECT_EQ(VARefCount(b.Get()), 1u);
  EXPECT_FALSE(a);
  PAA const raw = b.Release();
  EXPECT_EQ(VARefCount(raw), 1u);
  VAFree(raw);
}

TEST(VarrayDeath, RefusesACountThatWasGivenUpTwice) {
  EXPECT_DEATH(
      {
        PAA const a = VANew(VAI4, 0, nullptr);
        a->refcount.store(0, std::memory_order_relaxed);
        VAFree(a);
      },
      "before != 0");
}

}  // namespace
