// socket_test.cpp - sockets, and the wait for them.
#include "kyrno/net/socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <csignal>
#include <memory>
#include <string>
#include <thread>

#include "kyrno/net/address.h"
#include "kyrno/net/bufferfile.h"
#include "tests/support/arrays.h"

namespace {

// Both ends of one connection.
class Connected : public testing::Test {
 protected:
  void SetUp() override {
    PRPCSOCK ends[2];
    ASSERT_EQ(RPCSockPair(&ends[0], &ends[1]), 0);
    server.reset(ends[0]);
    client.reset(ends[1]);
    Clear(&sets);
  }
  std::unique_ptr<RPCSOCK> server, client;
  SOCKETSETS sets;
};

TEST_F(Connected, WritingToAClosedPeerIsACodeAndNoSignal) {
  server.reset();
  BUFFER b(1, "x");
  EXPECT_EQ(client->Write(&b), ERR_SEND);
}

TEST_F(Connected, AFileThatShrinksEndsTheWriteWithItsCode) {
  const int file = open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  ASSERT_EQ(ftruncate(file, 300000), 0);
  BUFFERFILE b(file);
  ASSERT_EQ(ftruncate(file, 0), 0);
  SI4 error = 0;
  for (int i = 0; i < 1000 && !error; ++i) error = client->Write(&b);
  EXPECT_EQ(error, ERR_FILE);
}

TEST_F(Connected, AWakeUpArrivesAndOneTooManyNeitherFailsNorBlocks) {
  ASSERT_EQ(server->Wait4R(&sets), 0);
  BUFFER message(4, "wake"), got(4);
  ASSERT_EQ(client->Write(&message), 0);
  SI4 count;
  ASSERT_EQ(SfWait(&sets, 30, &count), 0);
  EXPECT_EQ(server->Read(&got), 0);
  EXPECT_TRUE(got.Complete());
  for (UI4 moved = 1; moved > 0; moved = message.SizeProcessed()) {
    message.Rewind();
    ASSERT_EQ(client->Write(&message), 0);
  }
}

TEST(Socket, MayBeAskedForItsAddressesWhileTheWorkThreadCloses) {
  RPCSOCK listener("127.0.0.1", "0", true, PIPv4, SOCK_STREAM);
  const std::string port = std::to_string(listener.Port());
  RPCSOCK client("127.0.0.1", port.c_str(), false, PIPv4, SOCK_STREAM);
  std::thread asker([&] {
    for (int i = 0; i < 200; ++i) {
      VAHOLD info;
      const SI4 error = client.Info(true, info.Out());
      EXPECT_EQ(error == 0, static_cast<bool>(info));
      QLNSOCKADDR addr;
      client.Addr(false, &addr);
      client.SetKeepalive(1000, 1000);
    }
  });
  VAHOLD info;
  EXPECT_EQ(client.Info(false, info.Out()), 0);
  client.CloseSocket();
  asker.join();
  ASSERT_EQ(client.Info(false, info.Out()), 0);  // what it answered once, it goes on answering
  EXPECT_EQ(TextOf(info.Get(), 0), "IPv4");
  EXPECT_EQ(TextOf(info.Get(), 1), "127.0.0.1:" + port);
}

TEST_F(Connected, ADescriptorBeyondTheSetsIsRefusedAndClosed) {
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit wide = before;
  wide.rlim_cur = before.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &wide), 0);
  const int high = fcntl(client->RawSocket(), F_DUPFD_CLOEXEC, FD_SETSIZE - 1);
  ASSERT_GE(high, FD_SETSIZE - 1);

  RPCSOCK refused(high);
  EXPECT_EQ(refused.lError, ERR_NEW_DATA_SOCKET);
  EXPECT_EQ(fcntl(high, F_GETFD), -1);
  EXPECT_EQ(refused.Wait4R(&sets), ERR_NEW_DATA_SOCKET);
  EXPECT_EQ(refused.Wait4W(&sets), ERR_NEW_DATA_SOCKET);
  setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(Connected, TheWaitEndsAtTheEarliestDeadline) {
  ASSERT_EQ(server->Wait4R(&sets), 0);
  const F8 start = Micros();
  sets.WakeAt(start + 20e3);
  sets.WakeAt(start + 100e6);
  SI4 count = -1;
  ASSERT_EQ(SfWait(&sets, 300, &count), 0);
  EXPECT_EQ(count, 0);
  EXPECT_GE(Micros() - start, 19e3);

  Clear(&sets);
  sets.cntBuffered = 1;  // ready already, though the kernel does not know
  EXPECT_EQ(SfWait(&sets, 300, &count), 0);
  EXPECT_EQ(count, 1);
}

TEST_F(Connected, ASignalEndsTheWaitWithoutAnErrorAndWithNothingReady) {
  struct sigaction quiet = {}, before;
  quiet.sa_handler = [](int) {};
  sigaction(SIGALRM, &quiet, &before);
  ASSERT_EQ(server->Wait4R(&sets), 0);
  const itimerval often = {{0, 5000}, {0, 5000}}, never = {};
  setitimer(ITIMER_REAL, &often, nullptr);
  SI4 count = 0;
  const SI4 error = SfWait(&sets, 30, &count);
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);

  EXPECT_EQ(error, 0);
  EXPECT_EQ(count, -1);
  EXPECT_EQ(server->Ready4R(&sets), 0);
}

}  // namespace
