// httpdate.cpp - the time in the form of HTTP.

#include "util/httpdate.h"

#include <chrono>
#include <cstring>
#include <ctime>

namespace {

using std::chrono::days;
using std::chrono::floor;
using std::chrono::hh_mm_ss;
using std::chrono::sys_days;
using std::chrono::sys_seconds;
using std::chrono::weekday;
using std::chrono::year;
using std::chrono::year_month_day;

constexpr CH1 kForm[kHttpDateSize] = "Sun, 06 Nov 1994 08:49:37 GMT";
constexpr CH1 kDays[] = "SunMonTueWedThuFriSat";
constexpr CH1 kMonths[] = "JanFebMarAprMayJunJulAugSepOctNovDec";

// What four digits of a year can say.
constexpr sys_seconds kFirst = sys_days(year(0) / 1 / 1);
constexpr sys_seconds kBehind = sys_days(year(10000) / 1 / 1);

void PutTwo(PCH1 to, UI4 n) {
  to[0] = static_cast<CH1>('0' + n / 10);
  to[1] = static_cast<CH1>('0' + n % 10);
}

}  // namespace

UI4 HttpDate(PCH1 to, UI4 size) { return HttpDateOf(time(nullptr), to, size); }

UI4 HttpDateOf(int64_t seconds, PCH1 to, UI4 size) {
  const sys_seconds time{std::chrono::seconds(seconds)};
  if (size < kHttpDateSize || time < kFirst || time >= kBehind) return 0;

  const sys_days day = floor<days>(time);
  const year_month_day date(day);
  const hh_mm_ss clock(time - day);
  const UI4 years = static_cast<UI4>(static_cast<int>(date.year()));

  memcpy(to, kForm, kHttpDateSize);
  memcpy(to, kDays + 3 * weekday(day).c_encoding(), 3);
  PutTwo(to + 5, static_cast<unsigned>(date.day()));
  memcpy(to + 8, kMonths + 3 * (static_cast<unsigned>(date.month()) - 1), 3);
  PutTwo(to + 12, years / 100);
  PutTwo(to + 14, years % 100);
  PutTwo(to + 17, static_cast<UI4>(clock.hours().count()));
  PutTwo(to + 20, static_cast<UI4>(clock.minutes().count()));
  PutTwo(to + 23, static_cast<UI4>(clock.seconds().count()));
  return kHttpDateSize - 1;
}
