// websocket_test.cpp - how long a WebSocket that is closing waits for its peer, by a clock that the
// test sets.
#include "kyrno/modes/websocket.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kyrno/base/error.h"
#include "kyrno/boundary/roots.h"
#include "sys/linux/qlnplat.h"

namespace {

constexpr F8 kSecond = 1e6;
std::atomic<F8> clockMicros{0};

class FROMSOCKET : public WEBSOCKET {
 public:
  FROMSOCKET(UI4 features, int end) : WEBSOCKET(1000, TConnection, features, nullptr) {
    pCon = new RPCSOCK(end);
  }
};

/// A server's connection whose peer does not read.
class WebSocket : public testing::Test {
 public:
  WebSocket() {
    clockMicros.store(Micros());
    SetMicrosSource([] { return clockMicros.load(); });
    EXPECT_EQ(CreateRoot("WEBSOCKET", "/"), 0);
    EXPECT_TRUE(share.Open("WEBSOCKET"));
  }
  ~WebSocket() override {
    EXPECT_EQ(RPCUnload(&share), 0);
    SetMicrosSource(nullptr);
    close(peer);
  }

  void Begin(UI4 features) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    peer = ends[1];
    socket = new FROMSOCKET(features, ends[0]);
    node = share.Root()->AddNew("C", socket);
    EXPECT_EQ(share.Object()->Changed(node), 0);
  }
  void After(F8 seconds) {
    clockMicros.store(clockMicros.load() + seconds * kSecond);
    EXPECT_EQ(share.Object()->Changed(node), 0);
  }
  /// Whether it comes to this state, in which the object stays as long as this thread looks at it.
  bool Becomes(OBJSTATE state) const {
    for (UI4 i = 0; i < 1000000 && socket->GetState() != state; ++i) sched_yield();
    return socket->GetState() == state;
  }

  ROOTSHARE share;
  FROMSOCKET* socket = nullptr;  // the node's
  PHIERAKI node = nullptr;
  int peer = -1;
};

TEST_F(WebSocket, WaitsAMinuteForTheAnswerToItsCloseWhenItIsStrict) {
  Begin(WSStrict);
  ASSERT_EQ(socket->Close(node), 0);
  After(59);
  EXPECT_EQ(socket->GetState(), SConnected);
  After(2);
  EXPECT_TRUE(Becomes(SMarkedForDeletion));
}

TEST_F(WebSocket, WaitsWithoutALimitOtherwise) {
  Begin(0);
  ASSERT_EQ(socket->Close(node), 0);
  After(3600);
  EXPECT_EQ(socket->GetState(), SConnected);
}

TEST_F(WebSocket, TellsAPeersMistakeThoughItsCloseFrameCannotLeave) {
  Begin(WSStrict);
  PBUFFER const large = BUFFER::NewWhole(4u << 20);
  ASSERT_EQ(socket->SendBuffer(node, nullptr, large, 0), 0);
  ASSERT_EQ(write(peer, "\x81\0", 2), 2);  // without a mask
  while (socket->SendBuffer(node, nullptr, BUFFER::NewWhole(1), 0) == 0) sched_yield();
  After(59);
  EXPECT_EQ(socket->GetState(), SConnected);
  After(2);
  ASSERT_TRUE(Becomes(SError));
  EXPECT_EQ(socket->lErrorObj, ERR_WRONG_MAGIC);
}

TEST_F(WebSocket, IsGoneAtOnceWhenTheApplicationHasClosedAndThePeerMakesAMistake) {
  Begin(WSStrict);
  ASSERT_EQ(socket->Close(node), 0);
  char frame[22];
  for (ssize_t n = 0; n <= 0; n = read(peer, frame, sizeof frame)) sched_yield();
  ASSERT_EQ(write(peer, "\x81\0", 2), 2);  // without a mask
  EXPECT_TRUE(Becomes(SMarkedForDeletion));
}

}  // namespace
