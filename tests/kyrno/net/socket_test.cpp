// socket_test.cpp - sockets, and the wait for them.
#include "kyrno/net/socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

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
    ASSERT_EQ(sets.Open(), 0);
  }

  void WantsToRead(RPCSOCK& socket) {
    socket.Watch(&socket);
    socket.Want();
    ASSERT_EQ(socket.Wait4R(&sets), 0);
    ASSERT_EQ(socket.Settle(&sets), 0);
  }

  // What is ready, waiting for it if there should be something.
  SI4 Wait(bool expected) {
    Clear(&sets);
    SI4 count = -1;
    EXPECT_EQ(SfWait(&sets, expected ? 30 : 0, &count), 0);
    return count;
  }

  void Send(RPCSOCK& socket) {
    BUFFER message(4, "wake");
    ASSERT_EQ(socket.Write(&message), 0);
  }

  SOCKETSETS sets;
  std::unique_ptr<RPCSOCK> server, client;
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

TEST_F(Connected, WhatIsWantedStaysUntilItIsSaidAnew) {
  WantsToRead(*server);
  Send(*client);
  for (int turn = 0; turn < 2; ++turn) {
    ASSERT_EQ(Wait(true), 1);
    EXPECT_EQ(sets.Brought(0), server.get());
    EXPECT_EQ(sets.Brought(1), nullptr);
    EXPECT_EQ(server->Ready4R(&sets), 1);
    EXPECT_EQ(server->Ready4W(&sets), 0);
  }
  ASSERT_EQ(server->Wait4W(&sets), 0);
  ASSERT_EQ(server->Settle(&sets), 0);
  EXPECT_EQ(server->Ready4R(&sets), 0);  // that was the last wait's
  ASSERT_EQ(Wait(true), 1);
  EXPECT_EQ(sets.Brought(0), server.get());
  EXPECT_EQ(server->Ready4W(&sets), 1);

  server->CloseSocket();  // between the wait and the question what it has brought
  EXPECT_EQ(sets.Brought(0), nullptr);
  EXPECT_EQ(server->Ready4R(&sets), 0);
  EXPECT_EQ(server->Wait4R(&sets), ERR_NEW_DATA_SOCKET);
  EXPECT_EQ(server->Wait4W(&sets), ERR_NEW_DATA_SOCKET);
}

TEST_F(Connected, ThePeersEndDoesNotWakeASocketThatWantsNothing) {
  WantsToRead(*server);
  server->Want();
  ASSERT_EQ(server->Settle(&sets), 0);
  EXPECT_EQ(server->Watched(), 0u);
  ASSERT_EQ(server->Shutdown(), 0);
  client.reset();
  EXPECT_EQ(Wait(false), 0);

  WantsToRead(*server);
  EXPECT_EQ(Wait(true), 1);
}

// A secure socket has decrypted more than its reader took.
class BUFFERED : public RPCSOCK {
 public:
  using RPCSOCK::RPCSOCK;
  SI4 PendingRead() override { return 1; }
};

TEST_F(Connected, DataInUserSpaceIsReadableForWhoWantsToRead) {
  BUFFERED buffered(fcntl(server->RawSocket(), F_DUPFD_CLOEXEC, 0));
  EXPECT_EQ(buffered.Ready4R(&sets), 0);
  WantsToRead(buffered);
  EXPECT_EQ(buffered.Ready4R(&sets), 1);
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

TEST_F(Connected, ADescriptorOfAnyNumberIsWatchedAndBrought) {
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit wide = before;
  wide.rlim_cur = before.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &wide), 0);
  const int number =
      std::max(FD_SETSIZE, static_cast<int>(std::min<rlim_t>(before.rlim_max, 4096)) - 1);
  RPCSOCK high(fcntl(server->RawSocket(), F_DUPFD_CLOEXEC, number));
  ASSERT_EQ(high.lError, 0);
  ASSERT_GE(high.RawSocket(), number);

  WantsToRead(high);
  Send(*client);
  ASSERT_EQ(Wait(true), 1);
  EXPECT_EQ(sets.Brought(0), &high);
  high.CloseSocket();
  EXPECT_EQ(Wait(false), 0);  // although the data is still there, in the same open file
  setrlimit(RLIMIT_NOFILE, &before);

  EXPECT_EQ(RPCSOCK(INVALID_SOCKET).lError, ERR_NEW_DATA_SOCKET);
}

TEST_F(Connected, AForkedChildLeavesTheSetToItsParent) {
  WantsToRead(*server);
  WantsToRead(*client);
  int toChild[2], toParent[2];
  ASSERT_EQ(pipe2(toChild, O_CLOEXEC), 0);
  ASSERT_EQ(pipe2(toParent, O_CLOEXEC), 0);
  CH1 byte = 'x';

  const pid_t child = static_cast<pid_t>(syscall(SYS_fork));  // no handler sees this one
  if (child == 0) {
    close(toChild[1]);
    bool fine = !sets.IsOwnProcess();
    server->CloseSocket();
    client->Want();
    fine = fine && client->Settle(&sets) == 0;
    sets.CloseAfterFork();
    if (write(toParent[1], &byte, 1) != 1) fine = false;
    // Keeps its copy of the client until the parent has done.
    while (read(toChild[0], &byte, 1) < 0) continue;
    _exit(fine ? 0 : 1);
  }
  ASSERT_GT(child, 0);
  ASSERT_EQ(read(toParent[0], &byte, 1), 1);

  Send(*client);
  EXPECT_EQ(Wait(true), 1);
  EXPECT_EQ(sets.Brought(0), server.get());
  Send(*server);
  EXPECT_EQ(Wait(true), 2);
  server.reset();
  EXPECT_EQ(Wait(true), 1);
  client->CloseSocket();
  EXPECT_EQ(Wait(false), 0);

  int status = -1;
  for (const int end : {toChild[0], toChild[1], toParent[0], toParent[1]}) close(end);
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(Connected, TheWaitEndsAtTheEarliestDeadline) {
  WantsToRead(*server);
  const F8 start = Micros();
  sets.WakeAt(start + 20.5e3);
  sets.WakeAt(start + 100e6);
  SI4 count = -1;
  ASSERT_EQ(SfWait(&sets, 300, &count), 0);
  EXPECT_EQ(count, 0);
  EXPECT_GE(Micros() - start, 20.5e3);  // one that ends before would be followed by many more

  Clear(&sets);
  sets.cntBuffered = 1;  // ready already, though the kernel does not know
  EXPECT_EQ(SfWait(&sets, 300, &count), 0);
  EXPECT_EQ(count, 1);
}

TEST_F(Connected, ASignalEndsTheWaitWithoutAnErrorAndWithNothingReady) {
  struct sigaction quiet = {}, before;
  quiet.sa_handler = [](int) {};
  sigaction(SIGALRM, &quiet, &before);
  WantsToRead(*server);
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

TEST(Connecting, IsGivenUpWhenTheDescriptorBecomesReadable) {
  // Nobody accepts: when the queue of the listener is full, a connect gets no answer.
  RPCSOCK listener("127.0.0.1", "0", true, PIPv4, SOCK_STREAM);
  ASSERT_EQ(listener.lError, 0);
  ASSERT_EQ(listen(listener.RawSocket(), 0), 0);
  const std::string port = std::to_string(listener.Port());
  QLNSOCKADDR address;
  ASSERT_EQ(listener.Addr(true, &address), 0);
  std::vector<std::unique_ptr<RPCSOCK>> queued;
  for (int i = 0; i < 4; ++i) {
    queued.push_back(std::make_unique<RPCSOCK>(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)));
    (void)connect(queued.back()->RawSocket(), reinterpret_cast<sockaddr*>(&address),
                  sizeof(sockaddr_in));
  }

  const int soon = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  const itimerspec at = {{0, 0}, {0, 20000000}};
  ASSERT_EQ(timerfd_settime(soon, 0, &at, nullptr), 0);
  RPCSOCK client("127.0.0.1", port.c_str(), false, PIPv4, SOCK_STREAM, soon);
  EXPECT_EQ(client.lError, ECANCELED);
  EXPECT_FALSE(client.isValid());
  close(soon);
}

TEST(Connecting, ComesThroughThoughItCouldBeGivenUp) {
  RPCSOCK listener("127.0.0.1", "0", true, PIPv4, SOCK_STREAM);
  const std::string port = std::to_string(listener.Port());
  const int never = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  EXPECT_EQ(RPCSOCK("127.0.0.1", port.c_str(), false, PIPv4, SOCK_STREAM, never).lError, 0);
  listener.CloseSocket();
  EXPECT_EQ(RPCSOCK("127.0.0.1", port.c_str(), false, PIPv4, SOCK_STREAM, never).lError,
            ERR_CONNECT_DATA);
  close(never);
}

}  // namespace
