// pool_test.cpp - small pieces that are used again.
#include "util/pool.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace {

class Pool : public testing::Test {
 protected:
  void SetUp() override {
    PoolPurge();
    PoolPurge();
    ASSERT_TRUE(PoolsAreEmpty());
  }
  void TearDown() override { SetUp(); }
};

/// n pieces at the same time, written to in full.
std::vector<PVOID> Pieces(size_t n, size_t bytes, int fill = 1) {
  std::vector<PVOID> pieces(n);
  for (PVOID& piece : pieces) {
    piece = PoolAlloc(bytes);
    if (piece) memset(piece, fill, bytes);
  }
  return pieces;
}

void FreeAll(const std::vector<PVOID>& pieces) {
  for (const PVOID piece : pieces) PoolFree(piece);
}

TEST_F(Pool, GivesPiecesOfAnySizeThatAreMallocsOwn) {
  for (const size_t n : {0u, 1u, 56u, 57u, 120u, 121u, 500u, 1016u, 1017u, 1u << 20}) {
    FreeAll(Pieces(3, n));
    for (const PVOID piece : Pieces(3, n)) free(piece);
    PoolFree(memset(malloc(n + 8), 1, n + 8));
    FreeAll(Pieces(3, n));
  }
  PoolFree(nullptr);
}

TEST_F(Pool, GivesAPieceToTheNextOfItsSize) {
  const PVOID freed = PoolAlloc(200);
  PoolFree(freed);
  EXPECT_EQ(PoolsAreEmpty(), !kPooled);
  const PVOID larger = PoolAlloc(300);
  EXPECT_NE(larger, freed);
  const PVOID next = PoolAlloc(200);
  EXPECT_EQ(next == freed, kPooled);
  EXPECT_TRUE(PoolsAreEmpty());
  free(larger);
  free(next);
}

TEST_F(Pool, KeepsABoundedNumberAndGivesBackWhatIsNotNeeded) {
  for (const size_t n : {size_t{40}, kPoolPieceBytes}) {
    const size_t before = mallinfo2().uordblks;
    FreeAll(Pieces(2 * kPoolPieces, n));
    constexpr size_t kMallocsOwn = 8 * kPoolPieceBytes;  // what it keeps for the thread
    EXPECT_LE(mallinfo2().uordblks, before + kPoolBytes + kMallocsOwn);
  }
  std::vector<PVOID> busy = Pieces(10, 40);
  PoolPurge();  // looked at for the first time: any of them may have been needed
  FreeAll(busy);
  PoolPurge();  // ten were
  const std::vector<PVOID> again = Pieces(10, 40);
  EXPECT_TRUE(PoolsAreEmpty());
  FreeAll(again);
}

class POINT : public POOLED {
 public:
  virtual ~POINT() = default;
  UI8 x = 1, y = 2;
};
class SOLID : public POINT {
 public:
  UI8 more[40] = {};
};

TEST_F(Pool, TakesObjectsOfDerivedClassesBackByTheirSize) {
  POINT* const solid = new (std::nothrow) SOLID;
  delete solid;
  EXPECT_EQ(PoolsAreEmpty(), !kPooled);
  POINT* const point = new POINT;
  EXPECT_NE(static_cast<PVOID>(point), static_cast<PVOID>(solid));
  EXPECT_EQ(PoolsAreEmpty(), !kPooled);
  delete point;
  POINT* const same = new (std::nothrow) SOLID;
  EXPECT_EQ(same == solid, kPooled);
  delete same;
}

TEST_F(Pool, GivesEachPieceToOneThreadAlone) {
  std::vector<std::thread> threads;
  for (int id = 1; id <= 4; ++id) {
    threads.emplace_back([id] {
      for (int turn = 0; turn < 500; ++turn) {
        const std::vector<PVOID> mine = Pieces(20, 100, id);
        for (const PVOID piece : mine) {
          const std::vector<CH1> expected(100, static_cast<CH1>(id));
          ASSERT_EQ(memcmp(piece, expected.data(), expected.size()), 0);
        }
        FreeAll(mine);
        if (turn % 50 == id) PoolPurge();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
