// httpdate_test.cpp - HTTP's dates, by known ones and against the system's calendar.

#include "util/httpdate.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>

namespace {

std::string Date(int64_t seconds) {
  CH1 text[kHttpDateSize + 1];
  text[kHttpDateSize] = '#';
  const UI4 n = HttpDateOf(seconds, text, kHttpDateSize);
  EXPECT_EQ(text[kHttpDateSize], '#');
  return std::string(text, n);
}

TEST(HttpDate, GivesTheKnownDatesAndNothingOutsideTheYearsOfFourDigits) {
  EXPECT_EQ(Date(784111777), "Sun, 06 Nov 1994 08:49:37 GMT");
  EXPECT_EQ(Date(0), "Thu, 01 Jan 1970 00:00:00 GMT");
  EXPECT_EQ(Date(-1), "Wed, 31 Dec 1969 23:59:59 GMT");
  EXPECT_EQ(Date(951782400), "Tue, 29 Feb 2000 00:00:00 GMT");
  EXPECT_EQ(Date(253402300799), "Fri, 31 Dec 9999 23:59:59 GMT");
  for (const int64_t outside : {int64_t{253402300800}, int64_t{-62167219201}, INT64_MAX, INT64_MIN})
    EXPECT_EQ(Date(outside), "") << outside;
}

TEST(HttpDate, AgreesWithTheCalendarForEveryMonthOfFourCenturies) {
  for (int64_t seconds = 0; seconds < 12'622'780'800; seconds += 29 * 86400 + 3661) {
    tm parts;
    gmtime_r(&seconds, &parts);
    char expected[kHttpDateSize];
    strftime(expected, sizeof expected, "%a, %d %b %Y %H:%M:%S GMT", &parts);
    ASSERT_EQ(Date(seconds), expected);
  }
}

}  // namespace
