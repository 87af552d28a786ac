// options_test.cpp - positional and named arguments.
#include "kyrno/boundary/options.h"

#include "tests/support/arrays.h"

namespace {

constexpr PCH10 kNames[] = {"Name", "Port", "Mode"};
constexpr SI4 kCount = 3;

TEST(Options, ReadATruthFromItsFirstLetter) {
  struct {
    VAHOLD value;
    SI4 code;
    SI1 truth;
  } rows[] = {
      {MakeText("  yes"), 0, 1},
      {Int(1), 0, 1},
      {MakeText(""), 0, 0},
      {MakeText(std::string(60, 'y')), ERR_ARG_INVALID, 9},
  };
  for (auto& row : rows) {
    SI1 truth = 5;
    const VAHOLD arg = MakeNested(MakeNested(MakeText("Port"), std::move(row.value)));
    EXPECT_EQ(GetBool(arg.Get(), 1, kCount, kNames, 9, &truth), row.code) << &row - rows;
    EXPECT_EQ(truth, row.truth) << &row - rows;
  }
}

TEST(Options, ReadTextsThatFitAndListsOfTexts) {
  const VAHOLD arg =
      MakeNested(MakeText("host"), MakeNested(Int(12), MakeText(""), MakeScalar<CH1>(VAC1, 'c')),
                 MakeNested(MakeText("Mode"), MakeNested(Int(1), MakeVector<SI4>(VAI4, {1, 2}))));
  CH1 buffer[5];
  EXPECT_STREQ(GetPCH10(arg.Get(), 0, kCount, kNames, buffer, 5), "host");
  EXPECT_EQ(GetPCH10(arg.Get(), 0, kCount, kNames, buffer, 4), nullptr);

  PLIST list = nullptr;
  ASSERT_EQ(GetList(arg.Get(), 1, kCount, kNames, VACHAR, &list), 0);
  ASSERT_EQ(list->Count, 3);
  const std::string items[] = {"12", "", "c"};
  for (SI4 i = 0; i < 3; ++i) {
    EXPECT_EQ(std::string(list->items[i]->pc, static_cast<size_t>(list->items[i]->len)), items[i]);
  }
  FreeList(list);
  EXPECT_EQ(GetList(arg.Get(), 2, kCount, kNames, VACHAR, &list), ERR_ARG_STOPLIST);
  EXPECT_EQ(list, nullptr);
}

}  // namespace
