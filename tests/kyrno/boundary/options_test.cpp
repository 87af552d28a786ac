// options_test.cpp - positional and named arguments.
#include "kyrno/boundary/options.h"

#include <memory>

#include "tests/support/arrays.h"

namespace {

constexpr PCH10 kNames[] = {"Name", "Port", "Mode"};
constexpr SI4 kCount = 3;

VAHOLD Int(SI4 value) { return MakeScalar<SI4>(VAI4, value); }
VAHOLD Pair(PCH10 name, VAHOLD value) { return MakeNested(MakeText(name), std::move(value)); }

// The option as text, or its code.
std::string Option(const VAHOLD& arg, SI4 index) {
  VAHOLD value;
  const SI4 code = GetOptionpAA(arg.Get(), index, kCount, kNames, value.Out());
  return code == 0 ? TextOf(value.Get()) : "code " + std::to_string(code);
}

TEST(Options, AreFoundByPlaceOrByName) {
  const VAHOLD mixed = MakeNested(MakeText("abc"), Pair("MODE", MakeText("raw")));
  EXPECT_EQ(Option(mixed, 0), "abc");
  EXPECT_EQ(Option(mixed, 1), "code 1046");
  EXPECT_EQ(Option(mixed, 2), "raw");

  const VAHOLD simple = MakeText("abc");
  EXPECT_EQ(Option(simple, 0), "abc");
  EXPECT_EQ(Option(simple, 1), "code 1046");

  const UI4 none = 0;
  EXPECT_EQ(Option(VAHOLD(VANew(VAPntr, 1, &none)), 0), "code 1046");
}

TEST(Options, AreRefusedForANameThatNobodyKnows) {
  const VAHOLD pairs = MakeNested(Pair("Port", Int(5)), Pair("Prot", Int(6)), Pair("Mode", Int(7)));
  EXPECT_EQ(Option(pairs, 1), "5");
  EXPECT_EQ(Option(pairs, 2), "code 1045");

  struct {
    VAHOLD arg;
    SI4 code;
  } const rows[] = {
      {MakeNested(MakeText("abc"), Pair("port", Int(1))), 0},
      {MakeNested(Pair("prot", Int(1))), ERR_ARG_INVALID},
      {MakeNested(Pair("port", Int(1)), MakeText("loose")), ERR_ARG_INVALID},
      {MakeNested(MakeNested(MakeVector<SI4>(VAI4, {1, 2}), Int(1))), ERR_APL_LENGTH},
      {MakeNested(Pair(std::string(2000, 'x').c_str(), Int(1))), ERR_APL_LENGTH},
      {MakeNested(MakeText("abc"), VAHOLD()), ERR_ARG_INVALID},
      {MakeText("abc"), 0},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(CheckArgList(row.arg.Get(), kCount, kNames), row.code) << &row - rows;
  }
  EXPECT_EQ(CheckArgList(rows[1].arg.Get(), 0, nullptr), ERR_ARG_INVALID);
}

TEST(Options, ReadATruthFromItsFirstLetter) {
  struct {
    VAHOLD value;
    SI4 code;
    SI1 truth;
  } rows[] = {
      {MakeText("  yes"), 0, 1},
      {MakeText("True"), 0, 1},
      {Int(1), 0, 1},
      {MakeText("0"), 0, 0},
      {MakeText("No"), 0, 0},
      {MakeText(""), 0, 0},
      {MakeText(std::string(60, 'y')), ERR_ARG_INVALID, 9},
      {MakeVector<UI2>(VAC2, {'y'}), ERR_ARG_INVALID, 9},
  };
  for (auto& row : rows) {
    SI1 truth = 5;
    const VAHOLD arg = MakeNested(Pair("Port", std::move(row.value)));
    EXPECT_EQ(GetBool(arg.Get(), 1, kCount, kNames, 9, &truth), row.code) << &row - rows;
    EXPECT_EQ(truth, row.truth) << &row - rows;
  }
  SI1 truth = 5;
  EXPECT_EQ(GetBool(MakeText("x").Get(), 1, kCount, kNames, 9, &truth), 0);
  EXPECT_EQ(truth, 9);
}

TEST(Options, ReadNumbersTextsAndWordsOrGiveTheDefault) {
  const VAHOLD arg = MakeNested(MakeText("host"), Int(443), MakeText("RAW"));
  SI4 number = 0;
  EXPECT_EQ(GetSI4(arg.Get(), 1, kCount, kNames, 7, &number), 0);
  EXPECT_EQ(number, 443);
  EXPECT_EQ(GetSI4(arg.Get(), 0, kCount, kNames, 7, &number), ERR_ARG_INVALID);
  EXPECT_EQ(number, 7);

  CH1 buffer[5];
  EXPECT_STREQ(GetPCH10(arg.Get(), 0, kCount, kNames, buffer, 5), "host");
  EXPECT_EQ(GetPCH10(arg.Get(), 0, kCount, kNames, buffer, 4), nullptr);
  const std::unique_ptr<CH1, decltype(&free)> text(
      GetPCH10(arg.Get(), 1, kCount, kNames, nullptr, 0), free);
  EXPECT_STREQ(text.get(), "443");

  const PCH10 words[] = {"command", "raw"};
  UI4 code = 1;
  EXPECT_EQ(GetEnum(arg.Get(), 2, kCount, kNames, 2, words, 5, &code), 1);
  EXPECT_EQ(code, 0u);
  EXPECT_EQ(GetEnum(arg.Get(), 0, kCount, kNames, 2, words, 5, &code), 5);
  EXPECT_EQ(code, static_cast<UI4>(ERR_ARG_INVALID));
}

TEST(Options, ReadListsOfTexts) {
  const UI4 none = 0;
  struct {
    VAHOLD value;
    SI4 translate;
    std::vector<std::string> items;
  } rows[] = {
      {MakeText("\r\n"), VABIN, {"\r\n"}},
      {MakeNested(MakeText("ab"), MakeText(""), MakeScalar<CH1>(VAC1, 'c')),
       VACHAR,
       {"ab", "", "c"}},
      {MakeNested(Int(12), MakeText("x")), VACHAR, {"12", "x"}},
      {VAHOLD(VANew(VAPntr, 1, &none)), VABIN, {}},
  };
  for (auto& row : rows) {
    const VAHOLD arg = MakeNested(Pair("Mode", std::move(row.value)));
    PLIST list = nullptr;
    ASSERT_EQ(GetList(arg.Get(), 2, kCount, kNames, row.translate, &list), 0) << &row - rows;
    ASSERT_EQ(list->Count, static_cast<SI4>(row.items.size()));
    EXPECT_EQ(list->Translate, row.translate);
    for (size_t i = 0; i < row.items.size(); ++i) {
      EXPECT_EQ(std::string(list->items[i]->pc, static_cast<size_t>(list->items[i]->len)),
                row.items[i]);
    }
    FreeList(list);
  }
  PLIST list = nullptr;
  EXPECT_EQ(GetList(MakeText("x").Get(), 2, kCount, kNames, VABIN, &list), 0);
  EXPECT_EQ(list, nullptr);
  const VAHOLD bad =
      MakeNested(Pair("Mode", MakeNested(MakeText("x"), MakeVector<SI4>(VAI4, {1, 2}))));
  EXPECT_EQ(GetList(bad.Get(), 2, kCount, kNames, VACHAR, &list), ERR_ARG_STOPLIST);
  EXPECT_EQ(list, nullptr);
}

}  // namespace
