// roots_test.cpp - roots and waits, with real work threads and no sockets of their own.
#include "kyrno/boundary/roots.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <string>
#include <thread>

#include "kyrno/base/error.h"
#include "kyrno/boundary/wait.h"
#include "kyrno/modes/server.h"

namespace {

SI4 Wait(ROOTSHARE& share, SI4 timeout, PCH10 path = "") {
  CH1 name[kFullNameSize + 1], event[kEventSize];
  PUI4 z = nullptr;
  F8 times[3];
  const SI4 code = WaitZ1(share, path, timeout, name, event, &z, times);
  free(z);
  return code;
}

/// One call's wait, from finding the root on.
SI4 Wait(SI4 timeout) {
  ROOTSHARE share;
  return share.Open("R") ? Wait(share, timeout) : ERR_ROOT_NOT_FOUND;
}

SI4 Unload() {
  ROOTSHARE share;
  return share.Open("R") ? RPCUnload(&share) : ERR_ROOT_NOT_FOUND;
}

class Roots : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(CreateRoot("R", "/somewhere/library.so"), 0); }
  void TearDown() override { UnloadRoots(); }
};

TEST_F(Roots, UnloadingEndsTheWaitsOfOthers) {
  std::barrier begin(4);
  std::atomic<int> ended{0};
  const auto wait = [&] {
    ROOTSHARE share;
    ASSERT_TRUE(share.Open("R"));
    begin.arrive_and_wait();
    if (Wait(share, 60000) == ERR_OBJECT_NOT_FOUND) ++ended;
  };
  std::thread threads[] = {std::thread(wait), std::thread(wait), std::thread(wait)};
  begin.arrive_and_wait();
  EXPECT_EQ(Unload(), 0);
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(ended, 3);
}

TEST_F(Roots, WakeUpsNeverFillTheirSockets) {
  ROOTSHARE share;
  ASSERT_TRUE(share.Open("R"));
  for (int i = 0; i < 200000; ++i) ASSERT_EQ(share.Object()->Dirty(), 0);
}

struct FIFOSERVER : SERVER {
  FIFOSERVER() : SERVER(MCommand) { FIFO = true; }
  RPCOBJS* NewConnection(PRPCSOCK) override { return nullptr; }
};

TEST_F(Roots, InFifoModeOnlyTheServerCanBeWaitedFor) {
  ROOTSHARE share;
  ASSERT_TRUE(share.Open("R"));
  share.Root()->AddNew("S", new FIFOSERVER);
  share.Root()->AddNew("S.C", new RPCOBJS(TConnection));
  EXPECT_EQ(Wait(share, 0, "S.C"), ERR_FIFOMODE);
  EXPECT_EQ(Wait(share, 0, "S"), TIMEOUT);
}

TEST_F(Roots, ComeAndGoOnceEachWhileOtherThreadsUseThem) {
  std::atomic<int> there{1};
  auto work = [&] {
    for (int i = 0; i < 30; ++i) {
      const SI4 made = CreateRoot("R", "");
      EXPECT_TRUE(made == 0 || made == ERR_ALREADY_INITIALIZED);
      if (made == 0) ++there;
      const SI4 waited = Wait(0);
      EXPECT_TRUE(waited == TIMEOUT || waited == ERR_OBJECT_NOT_FOUND ||
                  waited == ERR_ROOT_NOT_FOUND)
          << waited;
      const SI4 gone = Unload();
      EXPECT_TRUE(gone == 0 || gone == ERR_ROOT_NOT_FOUND);
      if (gone == 0) --there;
    }
  };
  std::thread threads[] = {std::thread(work), std::thread(work), std::thread(work)};
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(there, 0);
}

}  // namespace
