// notation_test.cpp - arrays written and read as JSON.
#include "host/notation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "host/demo.h"

namespace {

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
      {R"("a😀")", ZValue::Vector<std::uint32_t>(ZType::C4, {'a', 0x1F600})},
      {"[true, false, true]", ZValue(ZType::Bit, {3}, {0xA0})},
      {"[1, 300]", ZValue::Vector<std::int16_t>(ZType::I2, {1, 300})},
      {R"({"type": "bid", "shape": [], "data": ["0f000000000000000000000000000001"]})",
       ZValue(ZType::Bid, {}, {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x0F})},
  };
  for (const auto& c : cases) EXPECT_EQ(FromJson(Json::parse(c.json)), c.value) << c.json;
}

TEST(Notation, WhatIsPrintedReadsBackAsTheSameArray) {
  std::vector<ZValue> values = host::SampleArrays();
  values.push_back(ZValue::List({1, 2}));                             // no list of numbers
  values.push_back(ZValue::List({ZValue(ZType::Bit, {}, {0x80})}));   // no bit vector
  values.push_back(ZValue::Vector<std::int32_t>(ZType::I4, {1, 2}));  // wider than needed
  values.push_back(ZValue::Vector<std::uint16_t>(ZType::C2, {0xD800, 0x20AC}));  // no character
  const double inf = std::numeric_limits<double>::infinity();
  values.push_back(
      ZValue::Vector<double>(ZType::F8, {7, -0.0, 0.1, 1e300, inf, -inf, std::nan("")}));
  for (const ZValue& value : values) {
    const std::string line = host::Print(ToJson(value));
    EXPECT_EQ(FromJson(Json::parse(line)), value) << line;
  }
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

}  // namespace
