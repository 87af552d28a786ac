// buffer_test.cpp - the byte container.
#include "kyrno/net/buffer.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

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
  EXPECT_EQ(Processed(*b), "two");
}

TEST(Buffer, CountsOutOfRangeAreCutToWhatIsThere) {
  BUFFER b(4);
  EXPECT_TRUE(b.Append("abcdefgh", 8));
  EXPECT_EQ(Processed(b), "abcd");
  EXPECT_TRUE(b.NextProcessed(100));
  EXPECT_EQ(Processed(*std::unique_ptr<BUFFER>(b.Take(100))), "abcd");
  EXPECT_EQ(std::unique_ptr<BUFFER>(b.Take(1, 100))->TotalSize(), 0u);

  b.Resize(6);
  b.Append("efgh", 4);
  EXPECT_EQ(Processed(b), "abcdef");
  b.Resize(2);  // the position is left behind the end
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
  for (UI4 i = 0; i < kArrived; ++i) ASSERT_EQ(b.Start()[i], static_cast<CH1>(i % 251));
}

TEST(FindStop, TheEarliestStartWinsThenTheListsOrder) {
  const struct {
    const char* text;
    std::vector<std::string_view> stops;
    bool ignoreCase;
    SI4 end, item;
  } rows[] = {
      {"head\n\nbody\r\n\r\n", {"\r\n\r\n", "\n\n"}, false, 6, 1},
      {"abcdef", {"bcd", "bc"}, false, 4, 0},
      {"xEnDx", {"end"}, false, -1, -1},
      {"xEnDx", {"end"}, true, 4, 0},
      {"x[{", {"{"}, true, 3, 0},  // brackets and braces are no letters
      {"abc", {"", "abc"}, false, 0, 0},
      {"abc", {"abc", ""}, false, 3, 0},
      {"", {""}, false, -1, -1},
      {"ab\xff", {"\xff"}, true, 3, 0},
  };
  for (const auto& row : rows) {
    const STOPTEXTS stops(row.stops);
    PITEM found = nullptr;
    EXPECT_EQ(Received(row.text)->FindStop(stops.Get(), row.ignoreCase, &found), row.end)
        << row.text;
    EXPECT_EQ(found, row.item < 0 ? nullptr : stops.Get()->items[row.item]);
  }
}

TEST(FindStop1, FindsNothingButAnEmptyItem) {
  BUFFER b(4, "a;b;");  // nothing received yet: FindStop finds nothing either
  EXPECT_EQ(b.FindStop(STOPTEXTS({";"}).Get(), false, nullptr), -1);
  EXPECT_EQ(b.FindStop1(STOPTEXTS({";"}).Get(), false, nullptr), -1);
  EXPECT_EQ(b.FindStop1(STOPTEXTS({";", ""}).Get(), false, nullptr), 0);
  b.NextProcessed(4);
  EXPECT_EQ(b.FindStop1(STOPTEXTS({""}).Get(), false, nullptr), -1);
}

}  // namespace
