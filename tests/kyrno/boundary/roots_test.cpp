// roots_test.cpp - roots and waits, with real work threads and no sockets of their own.
#include "kyrno/boundary/roots.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <string>
#include <thread>
#include <vector>

#include "Apl/vapl.h"
#include "Apl/zblock.h"
#include "kyrno/base/error.h"
#include "kyrno/boundary/wait.h"

namespace {

constexpr SI4 kLong = 60000;  // ms; only bounds a failure

struct WAITED {
  SI4 code = 0;
  std::string name, event;
  SI4 data = 0;
};

WAITED Wait(ROOTSHARE& share, PCH10 path, SI4 timeout) {
  WAITED w;
  CH1 name[kFullNameSize + 1] = {0};
  CH1 event[kEventSize] = {0};
  PUI4 z = nullptr;
  F8 times[3] = {};
  w.code = WaitZ1(share, path, timeout, name, event, &z, times);
  w.name = name;
  w.event = event;
  if (z) {
    const VAHOLD value(UnpackZ(z));
    if (value) w.data = *reinterpret_cast<const SI4*>(VAData(value.Get()));
    free(z);
  }
  return w;
}

/// One call's wait, from finding the root on.
WAITED Wait(PCH10 root, PCH10 path, SI4 timeout) {
  ROOTSHARE share;
  if (share.Open(root)) return Wait(share, path, timeout);
  WAITED w;
  w.code = ERR_ROOT_NOT_FOUND;
  return w;
}

SI4 Unload(PCH10 root) {
  ROOTSHARE share;
  return share.Open(root) ? RPCUnload(&share) : ERR_ROOT_NOT_FOUND;
}

/// A unit whose data is good or bad.
class UNIT : public RPCOBJS {
 public:
  explicit UNIT(SI4 c) : RPCOBJS(TMessage), code(c) {}
  SI4 GetWaitReturns(PHIERAKI item, PCH1 objname, PCH1 event, OBJSTATE*, PUI4* ppZ) override {
    item->FullName(objname, kFullNameSize);
    strcpy(event, "Block");
    *ppZ = ScalarZ(7);
    return code;
  }

 private:
  const SI4 code;
};

/// A connection that fails with what its units found wrong.
class OWNER : public RPCOBJS {
 public:
  OWNER() : RPCOBJS(TClient) { SetState(SConnected); }
  void ChildFailed(PHIERAKI item, SI4 code) override {
    lErrorObj = code;
    MakeReady(item, SError);
  }
};

class Roots : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(CreateRoot("R", "/somewhere/library.so"), 0); }
  void TearDown() override { UnloadRoots(); }
};

TEST_F(Roots, ASecondRootOfTheNameIsRefusedUntilTheFirstHasGone) {
  EXPECT_EQ(CreateRoot("R", ""), ERR_ALREADY_INITIALIZED);
  EXPECT_EQ(CreateRoot("S", ""), 0);
  EXPECT_EQ(Unload("R"), 0);
  EXPECT_EQ(Unload("R"), ERR_ROOT_NOT_FOUND);
  EXPECT_EQ(CreateRoot("R", ""), 0);
}

TEST_F(Roots, UnloadingEndsTheWaitsOfOthers) {
  std::barrier begin(5);
  std::atomic<int> ended{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      ROOTSHARE share;
      ASSERT_TRUE(share.Open("R"));
      begin.arrive_and_wait();
      if (Wait(share, "", kLong).code == ERR_OBJECT_NOT_FOUND) ++ended;
    });
  }
  begin.arrive_and_wait();
  EXPECT_EQ(Unload("R"), 0);
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(ended, 4);
}

TEST_F(Roots, OfTwoUnloadsOneDoesIt) {
  for (int i = 0; i < 20; ++i) {
    std::barrier begin(2);
    SI4 codes[2];
    auto work = [&](SI4* code) {
      ROOTSHARE share;
      ASSERT_TRUE(share.Open("R"));
      begin.arrive_and_wait();
      *code = RPCUnload(&share);
    };
    std::thread other(work, &codes[1]);
    work(&codes[0]);
    other.join();
    EXPECT_EQ(codes[0] + codes[1], ERR_ROOT_NOT_FOUND);
    ASSERT_EQ(CreateRoot("R", ""), 0);
  }
}

TEST_F(Roots, ComeAndGoWhileOtherThreadsUseThem) {
  auto work = [] {
    for (int i = 0; i < 30; ++i) {
      const SI4 made = CreateRoot("R", "");
      EXPECT_TRUE(made == 0 || made == ERR_ALREADY_INITIALIZED);
      const SI4 waited = Wait("R", "", 0).code;
      EXPECT_TRUE(waited == TIMEOUT || waited == ERR_OBJECT_NOT_FOUND ||
                  waited == ERR_ROOT_NOT_FOUND)
          << waited;
      const SI4 gone = Unload("R");
      EXPECT_TRUE(gone == 0 || gone == ERR_ROOT_NOT_FOUND);
    }
  };
  std::thread threads[] = {std::thread(work), std::thread(work), std::thread(work)};
  for (std::thread& t : threads) t.join();
}

TEST_F(Roots, AForkedChildTimesOutAndLeavesWithoutItsParent) {
  std::thread waiter([] { EXPECT_EQ(Wait("R", "", kLong).event, "Block"); });
  const pid_t child = fork();
  if (child == 0) {
    const bool good =
        Wait("R", "", 20).code == TIMEOUT && Unload("R") == 0 && Unload("R") == ERR_ROOT_NOT_FOUND;
    _exit(good ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);

  // The parent's own work thread and waiters go on.
  {
    ROOTSHARE share;
    ASSERT_TRUE(share.Open("R"));
    PHIERAKI const unit = share.Root()->AddNew("U", new UNIT(0));
    unit->Obj()->MakeReady(unit, SAPL);
  }
  waiter.join();
  EXPECT_EQ(Unload("R"), 0);
}

TEST_F(Roots, AWaitEndsWithWhatBecomesReadyMeanwhile) {
  std::barrier begin(2);
  std::thread waiter([&] {
    begin.arrive_and_wait();
    const WAITED w = Wait("R", "A", kLong);
    EXPECT_EQ(w.code, 0);
    EXPECT_EQ(w.name, "A.1");
    EXPECT_EQ(w.data, 7);
  });
  {
    ROOTSHARE share;
    ASSERT_TRUE(share.Open("R"));
    ASSERT_TRUE(share.Root()->AddNew("A", new OWNER));
    begin.arrive_and_wait();
    PHIERAKI const unit = share.Root()->AddNew("A.1", new UNIT(0));
    unit->Obj()->MakeReady(unit, SAPL);
  }
  waiter.join();
}

TEST_F(Roots, AWaitForAnObjectThatGoesEnds) {
  std::barrier begin(2);
  std::thread waiter([&] {
    begin.arrive_and_wait();
    EXPECT_EQ(Wait("R", "A", kLong).code, ERR_OBJECT_NOT_FOUND);
  });
  {
    ROOTSHARE share;
    ASSERT_TRUE(share.Open("R"));
    PHIERAKI const node = share.Root()->AddNew("A", new OWNER);
    begin.arrive_and_wait();
    EXPECT_EQ(node->Obj()->Close(node), 0);
  }
  waiter.join();
}

TEST_F(Roots, BadDataFailsItsConnectionWithinTheSameWait) {
  ROOTSHARE share;
  ASSERT_TRUE(share.Open("R"));
  ASSERT_TRUE(share.Root()->AddNew("A", new OWNER));
  PHIERAKI const unit = share.Root()->AddNew("A.1", new UNIT(ERR_RECV));
  unit->Obj()->SetState(SAPL);

  const WAITED w = Wait(share, "", kLong);
  EXPECT_EQ(w.code, 0);
  EXPECT_EQ(w.name, "A");
  EXPECT_EQ(w.event, "Error");
  EXPECT_EQ(w.data, ERR_RECV);
}

TEST_F(Roots, ATimeoutIsACodeOrAnEvent) {
  ROOTSHARE share;
  ASSERT_TRUE(share.Open("R"));
  ASSERT_TRUE(share.Root()->AddNew("A", new OWNER));
  EXPECT_EQ(Wait(share, "A", 0).code, TIMEOUT);
  EXPECT_EQ(Wait(share, "B", 0).code, ERR_OBJECT_NOT_FOUND);

  share.Object()->EventMode = 1;
  const WAITED w = Wait(share, "A", 5);
  EXPECT_EQ(w.code, 0);
  EXPECT_EQ(w.name, "A");
  EXPECT_EQ(w.event, "Timeout");
  EXPECT_EQ(w.data, TIMEOUT);
}

}  // namespace
