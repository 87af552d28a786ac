// vapl_test.cpp - making, counting and releasing arrays.
#include "Apl/vapl.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

VAHOLD Make(VATYPES type, std::vector<UI4> shape) {
  return VAHOLD(VANew(type, static_cast<UI2>(shape.size()), shape.data()));
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
  EXPECT_FALSE(Make(VAI4, {0x08000000}));
  EXPECT_FALSE(Make(VAC1, {0x10000, 0x10000}));  // 2^32 wraps to 0
  EXPECT_FALSE(Make(VAC1, {0x10000, 0x10000, 0x10000, 0x10000, 3}));
  EXPECT_FALSE(Make(VAPntr, {0x80000001, 2}));
}

TEST(Varray, GivesBackOneCountOfEachElementWhenItDies) {
  VAHOLD shared = Make(VAI4, {});
  for (const VATYPES type : {VAPntr, VAHet}) {
    VAHOLD nested = Make(type, {3});  // the last slot stays empty
    VASetOwned(nested.Get(), 0, VAHOLD::Share(shared.Get()).Release());
    VASetOwned(nested.Get(), 1, VANew(VAF8, 0, nullptr));
    EXPECT_EQ(VARefCount(shared.Get()), 2u);
    nested.Reset();
    EXPECT_EQ(VARefCount(shared.Get()), 1u) << type;
  }
}

}  // namespace
