// buffer_test.cpp - the byte container.
#include "kyrno/net/buffer.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <fstream>
#include <memory>
#include <string>

#include "kyrno/base/error.h"
#include "tests/kyrno/net/stoptexts.h"

namespace {

constexpr UI4 kMiB = 1 << 20;

std::string Processed(BUFFER& b) { return {b.Start(), b.SizeProcessed()}; }

// A buffer that has received the text.
std::unique_ptr<BUFFER> Received(std::string_view text, UI4 size = 64) {
  auto b = std::make_unique<BUFFER>(size);
  b->Append(text.data(), static_cast<UI4>(text.size()));
  return b;
}

// Receives n bytes as a reader does, each byte told by its place.
SI4 Receive(BUFFER& b, UI4 n) {
  while (n > 0) {
    PCH1 at;
    UI4 room;
    if (const SI4 error = b.Room(&at, &room)) return error;
    if (room > n) room = n;
    for (UI4 i = 0; i < room; ++i) at[i] = static_cast<CH1>((b.SizeProcessed() + i) % 251);
    b.NextProcessed(room);
    n -= room;
  }
  return 0;
}

TEST(Buffer, TakeThenDropCutsTheFirstMessageOff) {
  const auto b = Received("onetwo", 8);

  std::unique_ptr<BUFFER> first(b->Take(3));
  b->Drop(3);

  EXPECT_EQ(Processed(*first), "one");
  EXPECT_TRUE(first->Complete());
  EXPECT_EQ(Processed(*b), "two");
  EXPECT_EQ(b->TotalSize(), 8u);

  b->Rewind();  // what was received moves down wherever the position is
  b->Drop(1);
  b->NextProcessed(2);
  EXPECT_EQ(Processed(*b), "wo");
}

TEST(Buffer, CountsOutOfRangeAreCutToWhatIsThere) {
  BUFFER b(4);
  EXPECT_TRUE(b.Append("abcdefgh", 8));
  EXPECT_EQ(Processed(b), "abcd");
  EXPECT_TRUE(b.NextProcessed(100));
  EXPECT_EQ(b.SizeProcessed(), 4u);

  std::unique_ptr<BUFFER> all(b.Take(100));
  EXPECT_EQ(Processed(*all), "abcd");
  EXPECT_EQ(std::unique_ptr<BUFFER>(b.Take(1, 100))->TotalSize(), 0u);

  b.Resize(6);
  b.Append("efgh", 4);
  EXPECT_EQ(Processed(b), "abcdef");
  b.Resize(2);  // the position is left behind the end
  EXPECT_EQ(b.Remaining(), 0u);
  EXPECT_EQ(b.NextSize(), 0u);
  b.Drop(100);
  EXPECT_EQ(b.SizeProcessed(), 0u);
}

TEST(Buffer, AClaimedSizeGetsMemoryOnlyAsBytesArrive) {
  BUFFER b(0xffffffff);
  ASSERT_EQ(b.lError, 0);
  PCH1 at;
  UI4 room;
  ASSERT_EQ(b.Room(&at, &room), 0);
  EXPECT_EQ(room, BUFFER::kEagerBytes);

  constexpr UI4 kArrived = 40 * kMiB;
  ASSERT_EQ(Receive(b, kArrived), 0);
  ASSERT_EQ(b.Room(&at, &room), 0);
  EXPECT_LE(room, 64 * kMiB - kArrived);
  UI4 wrong = 0;
  for (UI4 i = 0; i < kArrived; ++i) wrong += b.Start()[i] != static_cast<CH1>(i % 251);
  EXPECT_EQ(wrong, 0u);
}

#if !defined(__has_feature)
#define __has_feature(x) 0
#endif
// A sanitizer needs the address space itself.
#if !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer)
TEST(Buffer, RunningOutOfMemoryIsACode) {
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
  size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  rlimit tight = before;
  tight.rlim_cur = pages * 4096 + 24 * kMiB;
  ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
  BUFFER grows(64 * kMiB);
  const SI4 atBirth = grows.lError;
  const SI4 later = Receive(grows, 64 * kMiB);
  BUFFER none(64 * kMiB);
  setrlimit(RLIMIT_AS, &before);

  EXPECT_EQ(atBirth, 0);
  EXPECT_EQ(later, ERR_MEMORY_ALLOC);
  EXPECT_EQ(grows.SizeProcessed(), BUFFER::kEagerBytes);
  EXPECT_EQ(none.lError, ERR_MEMORY_ALLOC);
  EXPECT_EQ(none.Remaining(), 0u);
}
#endif

TEST(FindStop, TheEarliestStartWinsThenTheListsOrder) {
  const struct {
    const char* text;
    std::vector<std::string_view> stops;
    bool ignoreCase;
    SI4 end;
    SI4 item;
  } rows[] = {
      {"head\n\nbody\r\n\r\n", {"\r\n\r\n", "\n\n"}, false, 6, 1},
      {"abcdef", {"bc", "bcd"}, false, 3, 0},
      {"abcdef", {"bcd", "bc"}, false, 4, 0},
      {"xEnDx", {"end"}, false, -1, -1},
      {"xEnDx", {"end"}, true, 4, 0},
      {"x[{", {"{"}, true, 3, 0},  // brackets and braces are no letters
      {"x[", {"{"}, true, -1, -1},
      {"abc", {"", "abc"}, false, 0, 0},
      {"abc", {"abc", ""}, false, 3, 0},
      {"abc", {}, false, -1, -1},
      {"", {""}, false, -1, -1},
      {"ab\xff", {"\xff"}, true, 3, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    const STOPTEXTS stops(row.stops);
    PITEM found = nullptr;
    EXPECT_EQ(Received(row.text)->FindStop(stops.Get(), row.ignoreCase, &found), row.end);
    EXPECT_EQ(found, row.item < 0 ? nullptr : stops.Get()->items[row.item]);
  }
}

TEST(FindStop, AStopThatTricklesInIsFoundFromWhereTheSearchLeftOff) {
  const STOPTEXTS stops({"\r\n\r\n", "!"});
  const std::string_view text = "a\r\n\r\r\n\r\nrest";
  BUFFER b(64);
  UI4 from = 0;
  for (const CH1 c : text.substr(0, 7)) {
    b.Append(&c, 1);
    ASSERT_EQ(b.FindStop(stops.Get(), false, nullptr, from), -1);
    from = b.SearchedTo(stops.Get());
  }
  EXPECT_EQ(from, 4u);
  b.Append(text.data() + 7, 1);
  EXPECT_EQ(b.FindStop(stops.Get(), false, nullptr, from), 8);
}

TEST(FindStop1, FindsNothingButAnEmptyItem) {
  BUFFER b(4, "a;b;");  // nothing received yet: FindStop finds nothing either
  EXPECT_EQ(b.FindStop(STOPTEXTS({";"}).Get(), false, nullptr), -1);
  EXPECT_EQ(b.FindStop1(STOPTEXTS({";"}).Get(), false, nullptr), -1);
  EXPECT_EQ(b.FindStop1(STOPTEXTS({";", ""}).Get(), false, nullptr), 0);
  b.NextProcessed(4);
  EXPECT_EQ(b.FindStop1(STOPTEXTS({""}).Get(), false, nullptr), -1);
}

TEST(FindAsc, FindsTextInTheProcessedBytes) {
  const struct {
    const char* text;
    const char* find;
    bool after, ignoreCase;
    SI4 at;
  } rows[] = {
      {"GET /", "GET", true, false, 3},
      {"GET /", "GET", false, false, -1},
      {"GET GET", "GET", false, true, 4},
      {"get GET", "GET", false, false, 4},
      {"a\r\nhost: x", "HOST:", true, true, 8},
      {"host", "host:", true, true, -1},
      {"abc", "", true, true, -1},
      {"xabab", "abab", false, false, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(Received(row.text)->FindAsc(row.find, row.after, row.ignoreCase), row.at);
  }
  BUFFER fresh(3, "abc");
  EXPECT_EQ(fresh.FindAsc("a", true, false), -1);
  EXPECT_EQ(fresh.FindAsc(nullptr, true, false), -1);
}

TEST(FindBin1, CountsFromThePosition) {
  BUFFER b(6, "a\nbc\nd");
  b.NextProcessed(2);
  EXPECT_EQ(b.FindBin1("\n", 1, false), 2);
  EXPECT_EQ(b.FindBin1("\n", 1, true), 3);
  EXPECT_EQ(b.FindBin1("d\0", 2, false), -1);
  EXPECT_EQ(b.FindBin1("", 0, false), -1);
  EXPECT_EQ(b.FindBin1("d", -1, false), -1);
}

}  // namespace
