// timers_test.cpp - the heap of time limits against a sorted list.
#include "kyrno/tree/timers.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

namespace {

TEST(Timers, FallDueInTheirOrderHoweverTheyAreSetAndCleared) {
  constexpr int kSteps = 200000, kTimes = 500;
  std::mt19937 random(42);
  const auto any = [&random](size_t n) {
    return std::uniform_int_distribution<size_t>(0, n - 1)(random);
  };
  std::vector<TIMER> all(300);
  std::multimap<F8, TIMER*> model;
  const auto forget = [&model](TIMER* timer) {
    auto [at, end] = model.equal_range(timer->Due());
    while (at != end && at->second != timer) ++at;
    if (at != end) model.erase(at);
  };
  TIMERS timers;
  for (int n = 0; n < kSteps; ++n) {
    // Phases in which they become more, and others in which they become less.
    const size_t what = any(10), sets = n / 5000 % 2 ? 2 : 6;
    if (what < 8) {
      TIMER* const timer = &all[any(all.size())];
      forget(timer);
      if (what < sets) {
        timers.Set(timer, static_cast<F8>(1 + any(kTimes)));
        model.emplace(timer->Due(), timer);
      } else {
        timers.Clear(timer);
      }
      ASSERT_EQ(timer->IsSet(), what < sets);
    } else {
      const F8 now = static_cast<F8>(any(kTimes));
      const bool isDue = !model.empty() && model.begin()->first <= now;
      const F8 earliest = timers.Next();
      TIMER* const timer = timers.PopDue(now);
      ASSERT_EQ(timer != nullptr, isDue);
      if (timer) {
        ASSERT_FALSE(timer->IsSet());
        auto [at, end] = model.equal_range(earliest);
        while (at != end && at->second != timer) ++at;
        ASSERT_NE(at, end);  // one of those that fall due first
        model.erase(at);
      }
    }
    ASSERT_EQ(timers.Next(), model.empty() ? 0 : model.begin()->first);
  }
}

TEST(Timers, AMillionInTheWorstOrderNeedNoDepth) {
  std::vector<TIMER> all(1000000);
  TIMERS timers;
  for (size_t n = all.size(); n > 0; --n) timers.Set(&all[n - 1], static_cast<F8>(n));
  for (TIMER& timer : all) ASSERT_EQ(timers.PopDue(1e9), &timer);
  EXPECT_FALSE(timers.PopDue(1e9));
}

}  // namespace
