// blockstore_test.cpp - large blocks that are used again.
#include "util/blockstore.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace {

constexpr size_t kMiB = 1 << 20;
constexpr UI8 kMark = 0x6b79726e6f5f6d6b;

// A block that was marked and freed comes again with its mark; a new one has other bytes there.
PVOID Marked(size_t n) {
  const PVOID block = BlockAlloc(n);
  if (block) memcpy(block, &kMark, sizeof kMark);
  return block;
}

bool TakesMarked(size_t n) {
  const PVOID block = BlockAlloc(n);
  const bool marked = block && memcmp(block, &kMark, sizeof kMark) == 0;
  if (block) memset(block, 0, sizeof kMark);
  free(block);  // which is as good as BlockFree, but for the store
  return marked;
}

class BlockStore : public testing::Test {
 protected:
  void SetUp() override {
    BlockPurge();
    BlockPurge();
    ASSERT_TRUE(BlockStoreIsEmpty());
  }
  void TearDown() override { SetUp(); }
};

TEST_F(BlockStore, GivesALargeBlockToTheNextOfAboutItsSize) {
  const struct {
    size_t freed, asked;
    bool again;
  } rows[] = {
      {kMiB, kMiB, true},
      {kMiB, kMiB - kMiB / 8, true},
      {kMiB, kMiB / 2, false},
      {kMiB, 2 * kMiB, false},
      {kLargeBlockBytes / 2, kLargeBlockBytes / 2, false},
      {kBlockStoreBytes + 1, kBlockStoreBytes + 1, false},
  };
  for (const auto& row : rows) {
    SetUp();
    BlockFree(Marked(row.freed));
    EXPECT_EQ(BlockStoreIsEmpty(), row.freed < kLargeBlockBytes || row.freed > kBlockStoreBytes);
    if (!BlockStoreIsEmpty()) {
      EXPECT_EQ(TakesMarked(row.asked), row.again) << row.freed << ' ' << row.asked;
    }
  }
}

TEST_F(BlockStore, KeepsNoMoreThanItsBound) {
  constexpr size_t kSize = 100 * kMiB;
  std::vector<PVOID> blocks;
  for (int i = 0; i < 3; ++i) blocks.push_back(Marked(kSize));
  for (const PVOID block : blocks) BlockFree(block);
  EXPECT_TRUE(TakesMarked(kSize));
  EXPECT_TRUE(TakesMarked(kSize));
  EXPECT_TRUE(BlockStoreIsEmpty());
}

TEST_F(BlockStore, APurgeFreesWhatHasWaitedSinceTheCallBeforeTheLast) {
  const PVOID used = Marked(kMiB);
  BlockFree(Marked(8 * kMiB));
  BlockFree(used);
  BlockPurge();
  BlockFree(BlockAlloc(kMiB));
  BlockPurge();
  EXPECT_TRUE(TakesMarked(kMiB));
  EXPECT_TRUE(BlockStoreIsEmpty());
}

TEST_F(BlockStore, NoTwoThreadsHaveTheSameBlock) {
  std::vector<std::thread> threads;
  for (UI4 id = 1; id <= 8; ++id) {
    threads.emplace_back([id] {
      PVOID blocks[3] = {};
      for (UI4 turn = 0; turn < 3000; ++turn) {
        PVOID& block = blocks[turn % 3];
        const UI4 mine = id << 16 | (turn - 3);
        EXPECT_TRUE(!block || memcmp(block, &mine, sizeof mine) == 0);
        BlockFree(block);
        block = BlockAlloc(kLargeBlockBytes + (turn * id % 7) * 40000);
        const UI4 next = id << 16 | turn;
        memcpy(block, &next, sizeof next);
        if (turn % 50 == id) BlockPurge();
      }
      for (const PVOID block : blocks) BlockFree(block);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
