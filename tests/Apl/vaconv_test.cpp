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
      {MakeNested(Int(1), MakeScalar(VAF8, 2.5)), 0, VAF8},
      {MakeNested(Int(1), MakeNested(Int(1))), 0, VAPntr},
      {MakeNested(MakeScalar<CH1>(VAC1, 'a'), MakeScalar<CH1>(VAC1, 'b')), ERR_APL_CONVERSION,
       VAPntr},
      {MakeVector<SI4>(VAApvI4, {5, 1}), 0, VAI4},
      {MakeVector<F8>(VA2F8, {1, 0}), 0, VAF8},
      {MakeVector<F8>(VA2F8, {1, 1}), ERR_APL_CONVERSION, VA2F8},
      {VAHOLD(VANew(VAPntr, 0, nullptr)), 0, VAPntr},
      {MakeHet(), 0, VAPntr},
  };
  for (auto& row : rows) {
    EXPECT_EQ(Norm(&row.array), row.code) << &row - rows;
    EXPECT_EQ(VAType(row.array.Get()), row.type) << &row - rows;
  }
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
