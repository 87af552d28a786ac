// vaconv_test.cpp - conversion of whole arrays and the normal form of results.
#include "Apl/vaconv.h"

#include "Apl/zblock.h"
#include "tests/support/arrays.h"

namespace {

SI4 Norm(VAHOLD* a) {
  PAA raw = a->Release();
  const SI4 code = VANorm(&raw, Tes2VA, VA2Tes);
  a->Reset(raw);
  return code;
}

TEST(Vaconv, FindsTheTypeOfNormalForm) {
  struct {
    VAHOLD array;
    SI4 code;
    VATYPES type;
  } rows[] = {
      {MakeNested(MakeScalar<SI4>(VAI4, 1), MakeScalar(VAF8, 2.5)), 0, VAF8},
      {MakeNested(MakeScalar<SI4>(VAI4, 1), MakeNested(MakeScalar<SI4>(VAI4, 1))), 0, VAPntr},
      {MakeNested(MakeText("abc"), MakeText("d")), 0, VAPntr},
      {MakeNested(MakeScalar<SI4>(VAI4, 1), MakeText("abc")), 0, VAPntr},
      {MakeNested(MakeScalar<CH1>(VAC1, 'a'), MakeScalar<CH1>(VAC1, 'b')), ERR_APL_CONVERSION,
       VAPntr},
      {MakeVector<SI4>(VAApvI4, {5, 1}), 0, VAI4},
      {MakeVector<F8>(VA2F8, {1, 0}), 0, VAF8},
      {MakeVector<F8>(VA2F8, {1, 1}), ERR_APL_CONVERSION, VA2F8},
      {VAHOLD(VANew(VABoxd, 0, nullptr)), ERR_APL_CONVERSION, VABoxd},
      {MakeText("abc"), 0, VAC1},
      {VAHOLD(VANew(VAPntr, 0, nullptr)), 0, VAPntr},
      {VAHOLD(VANew(VADpd, 0, nullptr)), 0, VADpd},
  };
  for (auto& row : rows) {
    EXPECT_EQ(Norm(&row.array), row.code) << &row - rows;
    EXPECT_EQ(VAType(row.array.Get()), row.type) << &row - rows;
  }
}

TEST(Vaconv, MakesAHeterogeneousResultFitForAZBlock) {
  const UI4 n = 3;
  VAHOLD het(VANew(VAHet, 1, &n));
  ASSERT_EQ(VASetSI4(het.Get(), 0, 1), 0);
  ASSERT_EQ(VASetCH1(het.Get(), 1, "abc", 3, VABIN), 0);
  ASSERT_EQ(VASetF8(het.Get(), 2, 0.5), 0);
  EXPECT_EQ(SizeAA(het.Get()), 0u);
  ASSERT_EQ(Norm(&het), 0);
  EXPECT_EQ(VAType(het.Get()), VAPntr);
  EXPECT_EQ(TextOf(het.Get(), 1), "abc");
  EXPECT_NE(SizeAA(het.Get()), 0u);
}

TEST(Vaconv, LeavesEachSlotOfANestedTargetACountOfItsOwn) {
  const UI4 n = 1;
  VAHOLD het(VANew(VAHet, 1, &n));
  VAHOLD text = MakeText("abc");
  ASSERT_EQ(VASetpAA(het.Get(), 0, VAHOLD::Share(text.Get()).Release()), 0);
  VAHOLD nested;
  ASSERT_EQ(VAConv(het.Get(), VAPntr, nested.Out()), 0);
  EXPECT_EQ(VARefCount(text.Get()), 3u);

  VAHOLD back;
  ASSERT_EQ(VAConv(nested.Get(), VAHet, back.Out()), 0);
  EXPECT_EQ(VARefCount(text.Get()), 4u);
  het.Reset();
  nested.Reset();
  back.Reset();
  EXPECT_EQ(VARefCount(text.Get()), 1u);
}

TEST(Vaconv, SharesWhatHasTheTypeAlreadyAndRefusesWhatCannotBe) {
  const VAHOLD text = MakeText("abc");
  VAHOLD result;
  ASSERT_EQ(VAConv(text.Get(), VAC1, result.Out()), 0);
  EXPECT_EQ(result.Get(), text.Get());
  ASSERT_EQ(VAConv(text.Get(), VAI1, result.Out()), 0);
  EXPECT_EQ(memcmp(VAData(result.Get()), "abc", 3), 0);
  EXPECT_EQ(VAConv(text.Get(), VAHet, result.Out()), ERR_APL_CONVERSION);
  EXPECT_EQ(VAConv(text.Get(), VAC4, result.Out()), ERR_APL_CONVERSION);
  EXPECT_FALSE(result);
}

TEST(Vaconv, LeavesASharedArrayAsItWas) {
  const VAHOLD inner = MakeNested(MakeVector<SI4>(VAApvI4, {5, 1}));
  const VARRAY* const before = VAOwned(inner.Get(), 0);
  VAHOLD outer = MakeNested(VAHOLD::Share(inner.Get()), MakeText("abc"));
  ASSERT_EQ(Norm(&outer), 0);
  EXPECT_EQ(VAOwned(inner.Get(), 0), before);
  EXPECT_EQ(VAType(VAOwned(VAOwned(outer.Get(), 0), 0)), VAI4);
}

TEST(Vaconv, StopsAtAnElementThatCannotBeCarriedAndAtABottomlessOne) {
  VAHOLD bad = MakeNested(MakeText("abc"), MakeNested(MakeVector<F8>(VA2F8, {1, 1})));
  EXPECT_EQ(Norm(&bad), ERR_APL_CONVERSION);

  VAHOLD deep = MakeText("bottom");
  for (UI4 i = 0; i <= kMaxDepth; ++i) deep = MakeNested(std::move(deep));
  EXPECT_EQ(Norm(&deep), ERR_APL_CONVERSION);
}

}  // namespace
