// notation_test.cpp - arrays written and read as JSON.
#include "host/notation.h"

#include <gtest/gtest.h>

#include <limits>

#include "host/demo.h"

namespace {

using host::FromArgument;
using host::FromJson;
using host::Json;
using host::ToJson;
using host::ZError;
using host::ZType;
using host::ZValue;

TEST(Notation, ReadsEachFormAsTheNarrowestArray) {
  const struct {
    const char* json;
    ZValue value;
  } cases[] = {
      {R"("abc")", "abc"},
      {R"("é")", "\xE9"},
      {R"("€")", ZValue::Vector<std::uint16_t>(ZType::C2, {0x20AC})},
      {R"("a😀")", ZValue::Vector<std::uint32_t>(ZType::C4, {'a', 0x1F600})},
      {"-128", ZValue(ZType::I1, {}, {0x80})},
      {"128", ZValue(ZType::I2, {}, {0x80, 0})},
      {"-2147483648", std::numeric_limits<std::int32_t>::min()},
      {"2147483648", 2147483648.0},
      {"18446744073709551615", 18446744073709551615.0},
      {"7.0", 7.0},
      {"true", ZValue(ZType::Bit, {}, {0x80})},
      {"[true, false, true]", ZValue(ZType::Bit, {3}, {0xA0})},
      {"[1, 300]", ZValue::Vector<std::int16_t>(ZType::I2, {1, 300})},
      {"[1, 2.5]", ZValue::Vector<double>(ZType::F8, {1, 2.5})},
      {"[]", ZValue(ZType::I1, {0}, {})},
      {R"(["a", [], 2.5])", ZValue::List({"a", ZValue(ZType::I1, {0}, {}), 2.5})},
      {R"({"type": "i4", "shape": [2, 1], "data": [5, -1]})",
       ZValue(ZType::I4, {2, 1}, {5, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF})},
      {R"({"type": "c2", "shape": [2, 2], "data": "abcd"})",
       ZValue(ZType::C2, {2, 2}, {'a', 0, 'b', 0, 'c', 0, 'd', 0})},
      {R"({"type": "c1", "data": [0, 255]})", ZValue(ZType::C1, {2}, {0, 0xFF})},
      {R"({"type": "complex", "shape": [], "data": [[1, -2]]})",
       ZValue(ZType::Complex, {}, ZValue::Vector<double>(ZType::F8, {1, -2}).Data())},
      {R"({"type": "bid", "shape": [], "data": ["0f000000000000000000000000000001"]})",
       ZValue(ZType::Bid, {}, {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x0F})},
      {R"({"type": "nested", "shape": [], "data": [["a"]]})",
       ZValue({}, std::vector<ZValue>{ZValue::List({"a"})})},
  };
  for (const auto& c : cases) EXPECT_EQ(FromJson(Json::parse(c.json)), c.value) << c.json;
}

TEST(Notation, WhatIsPrintedReadsBackAsTheSameArray) {
  std::vector<ZValue> values = host::SampleArrays();
  values.push_back(ZValue::List({1, 2}));                             // no list of numbers
  values.push_back(ZValue::List({ZValue(ZType::Bit, {}, {0x80})}));   // no bit vector
  values.push_back(ZValue::Vector<std::int32_t>(ZType::I4, {1, 2}));  // wider than needed
  values.push_back(ZValue::Vector<std::uint16_t>(ZType::C2, {'a'}));  // wider than needed
  values.push_back(ZValue::Vector<std::uint16_t>(ZType::C2, {0xD800, 0x20AC}));  // no character
  values.push_back(ZValue::Vector<double>(
      ZType::F8,
      {7, -0.0, 0.1, 1e300, std::numeric_limits<double>::infinity(),
       -std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN()}));
  for (const ZValue& value : values) {
    const std::string line = host::Print(ToJson(value));
    EXPECT_EQ(FromJson(Json::parse(line)), value) << line;
  }
}

TEST(Notation, PrintsTheShortFormWhereItIsExact) {
  for (const char* line :
       {R"("é€")", "7", "2.5", "[1,300]", "[true,false]", "[]", R"(["a",[1,2],[]])"})
    EXPECT_EQ(host::Print(ToJson(FromJson(Json::parse(line)))), line);
}

TEST(Notation, SaysWhatIsWrong) {
  for (const char* json :
       {"null", "[null]", "{}", R"({"type": "i1"})", R"({"type": "i9", "data": []})",
        R"({"type": "i1", "data": [128]})", R"({"type": "i1", "data": [1.5]})",
        R"({"type": "i1", "data": "a"})", R"({"type": "c1", "data": "€"})",
        R"({"type": "bit", "data": [2]})", R"({"type": "i4", "shape": [2], "data": [1]})",
        R"({"type": "i4", "shape": [-1], "data": []})", R"({"type": "dpd", "data": ["12"]})",
        R"({"type": "complex", "data": [1]})", R"({"type": "i4", "data": [], "size": 1})"})
    EXPECT_THROW(FromJson(Json::parse(json)), ZError) << json;
}

TEST(Notation, TakesAWordOfTheCommandLineAsText) {
  EXPECT_EQ(FromArgument("hello"), ZValue("hello"));
  EXPECT_EQ(FromArgument(""), ZValue(""));
  EXPECT_EQ(FromArgument("\"5\""), ZValue("5"));
  EXPECT_EQ(FromArgument("5"), ZValue(ZType::I1, {}, {5}));
  EXPECT_THROW(FromArgument("[1, 2"), ZError);
  EXPECT_THROW(FromArgument("\xFF"), ZError);
}

}  // namespace
