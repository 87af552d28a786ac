// threadsem_test.cpp - waits: who is woken, who shares, what the pool keeps.
#include "kyrno/tree/threadsem.h"

#include <gtest/gtest.h>

#include "kyrno/base/error.h"
#include "kyrno/tree/hieraki.h"
#include "kyrno/tree/rpcobjs.h"

namespace {

class Waits : public testing::Test {
 protected:
  WAITPOOL pool;
  HIERAKI root{"ROOT", new RPCOBJS(TRoot)};
  PHIERAKI const server = root.AddNew("S", new RPCOBJS(TServer));
  PHIERAKI const connection = root.AddNew("S.C", new RPCOBJS(TConnection));
};

TEST_F(Waits, TheNearestWaiterIsWokenAndPassesOnWhatItDidNotUse) {
  WAITER high(pool), low(pool);
  ASSERT_EQ(high.AplWaitInit(&root), 0);
  ASSERT_EQ(low.AplWaitInit(server), 0);
  EXPECT_TRUE(pool.WakeNearest(connection));
  EXPECT_EQ(low.AplWait(0), 0);
  EXPECT_EQ(high.AplWait(0), TIMEOUT);
  pool.WakeNearest(connection);
  low.AplWaitClear();
  EXPECT_EQ(high.AplWait(0), 0);
}

TEST_F(Waits, ShareOneEntryPerObjectAndThePoolKeepsItsEntries) {
  WAITER one(pool), two(pool);
  ASSERT_EQ(one.AplWaitInit(server), 0);
  ASSERT_EQ(two.AplWaitInit(server), 0);
  EXPECT_EQ(pool.Count(), 1);
  one.AplWaitClear();
  pool.WakeNearest(server);
  EXPECT_EQ(two.AplWait(0), 0);

  ASSERT_EQ(one.AplWaitInit(connection), 0);
  two.AplWaitClear();
  pool.RemoveOld();
  EXPECT_EQ(pool.Count(), 2);
}

}  // namespace
