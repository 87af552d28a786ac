// gate_test.cpp - what is retired is freed exactly when nobody can look at it any more.
#include "kyrno/tree/gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

std::atomic<int> freed{0};

struct THING : RETIRED {
  explicit THING(int v) : value(v) {}
  ~THING() override {
    value = -1;
    ++freed;
  }
  int value;
};

class Gate : public testing::Test {
 protected:
  void SetUp() override {
    AssumeWorkThread();
    freed = 0;
  }
  void TearDown() override {
    gate->FreeAll();
    gate->Release();
  }
  GATE* gate = new GATE;
};

TEST_F(Gate, KeepsWhatSomebodyInsideMayHaveFound) {
  AssumeWorkThread();
  UI4 before = 0, after = 0;
  ASSERT_TRUE(gate->Enter(&before));
  gate->Retire(new THING(1));
  EXPECT_TRUE(gate->Collect());

  // One who comes later can't have found it, and doesn't keep it.
  ASSERT_TRUE(gate->Enter(&after));
  gate->Collect();
  EXPECT_EQ(freed, 0);
  gate->Leave(before);
  gate->Collect();
  EXPECT_EQ(freed, 1);
  gate->Leave(after);
}

TEST_F(Gate, IsClosedOnceAndUnloadingWaitsForThoseInsideAndParked) {
  UI4 ticket = 0;
  ASSERT_TRUE(gate->Enter(&ticket));
  gate->Park();
  std::atomic<bool> left{false};
  EXPECT_TRUE(gate->Close());
  EXPECT_FALSE(gate->Close());
  UI4 late = 0;
  EXPECT_FALSE(gate->Enter(&late));
  std::thread other([&] {
    gate->Leave(ticket);
    left = true;
    gate->Unpark();
  });
  gate->WaitEmpty();
  EXPECT_TRUE(left);
  other.join();
}

TEST_F(Gate, ReadersNeverMeetFreedMemory) {
  AssumeWorkThread();
  constexpr int kRounds = 20000;
  std::atomic<THING*> shown{new THING(0)};
  std::atomic<bool> stop{false};
  const auto read = [&] {
    for (UI4 ticket = 0; !stop && gate->Enter(&ticket); gate->Leave(ticket))
      EXPECT_GE(shown.load()->value, 0);
  };
  std::thread readers[] = {std::thread(read), std::thread(read), std::thread(read)};
  for (int i = 1; i <= kRounds; ++i) {
    gate->Retire(shown.exchange(new THING(i)));
    gate->Collect();
  }
  stop = true;
  for (std::thread& t : readers) t.join();
  EXPECT_FALSE(gate->Collect());  // at once: nobody is inside
  EXPECT_EQ(freed, kRounds);
  delete shown.load();
}

}  // namespace
