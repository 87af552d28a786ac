// threadsem_test.cpp - waits: who is woken, who shares, what the pool keeps.
#include "kyrno/tree/threadsem.h"

#include <gtest/gtest.h>

#include <thread>

#include "kyrno/base/error.h"
#include "kyrno/tree/hieraki.h"
#include "kyrno/tree/rpcobjs.h"

namespace {

constexpr UI4 kSoon = 10000;  // ms; bounds a failure

class Waits : public testing::Test {
 protected:
  WAITPOOL pool;
  HIERAKI root{"ROOT", new RPCOBJS(TRoot)};
  PHIERAKI const server = root.AddNew("S", new RPCOBJS(TServer));
  PHIERAKI const connection = root.AddNew("S.C", new RPCOBJS(TConnection));
};

TEST_F(Waits, TheNearestWaiterIsWoken) {
  WAITER high(pool);
  WAITER low(pool);
  ASSERT_EQ(high.AplWaitInit(&root), 0);
  ASSERT_EQ(low.AplWaitInit(server), 0);
  EXPECT_TRUE(pool.WakeNearest(connection));
  EXPECT_EQ(low.AplWait(0), 0);
  EXPECT_EQ(high.AplWait(0), TIMEOUT);
  low.AplWaitClear();
  EXPECT_TRUE(pool.WakeNearest(connection));
  EXPECT_EQ(high.AplWait(0), 0);
  high.AplWaitClear();
  EXPECT_FALSE(pool.WakeNearest(connection));
}

TEST_F(Waits, AWakeUpThatWasNotUsedIsPassedOn) {
  WAITER high(pool);
  WAITER low(pool);
  ASSERT_EQ(high.AplWaitInit(&root), 0);
  ASSERT_EQ(low.AplWaitInit(connection), 0);
  pool.WakeNearest(connection);
  low.AplWaitClear();
  EXPECT_EQ(high.AplWait(0), 0);
}

TEST_F(Waits, TwoWaitersOnOneObjectShareItsEntry) {
  WAITER one(pool);
  WAITER two(pool);
  ASSERT_EQ(one.AplWaitInit(server), 0);
  ASSERT_EQ(two.AplWaitInit(server), 0);
  EXPECT_EQ(pool.Count(), 1);
  one.AplWaitClear();
  pool.WakeNearest(server);
  EXPECT_EQ(two.AplWait(0), 0);
}

TEST_F(Waits, AWaitFollowsItsNameToAnotherNode) {
  WAITER w(pool);
  ASSERT_EQ(w.AplWaitInit(connection), 0);
  ASSERT_EQ(w.AplWaitInit(server), 0);
  EXPECT_FALSE(w.AplWait(0) == 0);
  pool.WakeNearest(connection);
  EXPECT_EQ(w.AplWait(0), 0);
  EXPECT_EQ(pool.Count(), 1);
}

TEST_F(Waits, WhoWaitsOnANodeThatGoesIsWoken) {
  WAITER w(pool);
  ASSERT_EQ(w.AplWaitInit(connection), 0);
  std::thread sleeper([&] { EXPECT_EQ(w.AplWait(kSoon), 0); });
  pool.Detach(connection);
  sleeper.join();
  w.AplWaitClear();
  EXPECT_FALSE(pool.WakeNearest(connection));
}

TEST_F(Waits, ThePoolGrowsOnDemandAndKeepsItsEntries) {
  {
    WAITER one(pool);
    WAITER two(pool);
    ASSERT_EQ(one.AplWaitInit(server), 0);
    ASSERT_EQ(two.AplWaitInit(connection), 0);
    EXPECT_EQ(pool.Count(), 2);
  }
  WAITER again(pool);
  ASSERT_EQ(again.AplWaitInit(&root), 0);
  pool.RemoveOld();
  EXPECT_EQ(pool.Count(), 2);
}

}  // namespace
