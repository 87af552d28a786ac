// error_test.cpp - the table of codes and the search in it.

#include "kyrno/base/error.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

TEST(Errors, StandInRisingOrder) {
#define NUMBER(no, define, text) no,
  const std::vector<SI4> codes = {ERROR_ROWS(NUMBER)};
#undef NUMBER
  EXPECT_EQ(codes.size(), 124u);
  EXPECT_EQ(std::adjacent_find(codes.begin(), codes.end(), std::greater_equal<>()), codes.end());
}

TEST(Errors, AreCutToTheLimitsWithoutATerminator) {
  const struct {
    size_t textLen, nameLen;
    PCH10 text, name;
  } cases[] = {{20, 20, "Timeout", "TIMEOUT"}, {7, 3, "Timeout##", "TIM##"}, {0, 0, "##", "##"}};
  for (const auto& c : cases) {
    std::string text(30, '#'), name(30, '#');
    EXPECT_EQ(strerror_own(TIMEOUT, text.data(), c.textLen, name.data(), c.nameLen), 0);
    EXPECT_TRUE(text.starts_with(c.text));
    EXPECT_TRUE(name.starts_with(c.name));
  }
}

TEST(Errors, WithoutARowLeaveTheBuffersAlone) {
  for (const SI4 code : {0, -1, 111, 1033, 1049, 1504, -1001}) {
    CH1 text[] = "text", name[] = "name";
    EXPECT_EQ(strerror_own(code, text, sizeof text, name, sizeof name), 1) << code;
    EXPECT_STREQ(text, "text");
    EXPECT_STREQ(name, "name");
  }
}

}  // namespace
