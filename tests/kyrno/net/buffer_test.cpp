// buffer_test.cpp - the byte container.
#include "kyrno/net/buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "tests/kyrno/net/stoptexts.h"
#include "util/blockstore.h"

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

TEST(Buffer, AWholeOneKeepsItsBytesWhenItOutgrowsItsPiece) {
  for (const UI4 n : {0u, 100u, 1000u, 5000u}) {
    const std::unique_ptr<BUFFER> b(BUFFER::NewWhole(n));
    ASSERT_TRUE(b);
    EXPECT_FALSE(b->Complete() && n > 0);
    if (n > 0) memset(b->Start(), 'w', n);
    b->Resize(n + 2000);
    b->NextProcessed(n);
    b->Append(std::string(2000, 'x').data(), 2000);
    EXPECT_EQ(Processed(*b), std::string(n, 'w') + std::string(2000, 'x'));
  }
}

TEST(Buffer, ALazyOneHasNoMemoryBeforeItsFirstByte) {
  static_assert(sizeof(BUFFER) <= 64);  // each idle connection keeps one
  BUFFER b(BUFFER::LAZY, 115);
  EXPECT_EQ(b.Block(), nullptr);
  EXPECT_EQ(b.Remaining(), 115u);
  EXPECT_EQ(b.FindAsc("x", false, false), -1);
  EXPECT_EQ(std::unique_ptr<BUFFER>(b.Take(9))->TotalSize(), 0u);
  b.Drop(1);

  EXPECT_EQ(Receive(b, 100), 0);
  b.Append("0123456789abcdef", 16);
  EXPECT_TRUE(b.Complete());
  EXPECT_EQ(Processed(b).substr(100), "0123456789abcde");
}

// A block with a length in front and padding behind, such as an application is given.
TEST(Buffer, APlacedOneReceivesIntoTheBlockThatIsHandedOut) {
  const BLOCKPLACE place = {115, 32, 7};
  for (const UI4 payload : {0u, 1u, kMiB, 20 * kMiB}) {
    BUFFER b(place, place.lead + payload);
    ASSERT_EQ(b.lError, 0);
    EXPECT_EQ(b.SizeProcessed(), place.lead);
    EXPECT_EQ(b.Remaining(), payload);
    EXPECT_EQ(b.Complete(), payload == 0);
    if (payload > 0) {
      EXPECT_EQ(b.ReleaseBlock(), nullptr);  // not before all of it has come
    }

    PCH1 at;
    UI4 room;
    ASSERT_EQ(b.Room(&at, &room), 0);
    EXPECT_EQ(room, std::min(payload, BUFFER::kEagerBytes));
    EXPECT_EQ(at, b.Block() + place.front);
    ASSERT_EQ(Receive(b, payload), 0);
    EXPECT_TRUE(b.Complete());
    b.Rewind();
    EXPECT_EQ(b.Next(), b.Block() + place.front);
    EXPECT_TRUE(b.NextProcessed(payload));

    const std::unique_ptr<CH1, decltype(&BlockFree)> released(b.ReleaseBlock(), BlockFree);
    ASSERT_NE(released, nullptr);
    EXPECT_EQ(b.Block(), nullptr);
    EXPECT_EQ(b.TotalSize(), place.lead + payload);
    EXPECT_TRUE(b.Complete());
    memset(released.get(), 'f', place.front);
    memset(released.get() + place.front + payload, 't', place.tail);
    for (UI4 i = 0; i < payload; ++i)
      ASSERT_EQ(released.get()[place.front + i], static_cast<CH1>((place.lead + i) % 251));
  }
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
