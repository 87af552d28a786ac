// socket_test.cpp - sockets over loopback, and the wait for them.
#include "kyrno/net/socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Apl/vaget.h"
#include "kyrno/base/error.h"
#include "kyrno/net/address.h"
#include "kyrno/net/bufferfile.h"

namespace {

constexpr UI4 kBound = 30;  // seconds; only a failure waits that long

using SOCKHOLD = std::unique_ptr<RPCSOCK>;

bool WaitReadable(RPCSOCK& sock) {
  SOCKETSETS sets;
  Clear(&sets);
  EXPECT_EQ(sock.Wait4R(&sets), 0);
  SI4 count;
  EXPECT_EQ(SfWait(&sets, kBound, &count), 0);
  return count == 1 && sock.Ready4R(&sets);
}

// A listener and both ends of one connection to it.
class Connected : public testing::Test {
 protected:
  void SetUp() override {
    listener = std::make_unique<RPCSOCK>("127.0.0.1", "0", true, PIPv4, SOCK_STREAM);
    ASSERT_EQ(listener->lError, 0);
    client = Client();
    server = Accepted();
    ASSERT_TRUE(server);
  }

  SOCKHOLD Client() {
    const std::string port = std::to_string(listener->Port());
    SOCKHOLD made(new RPCSOCK("127.0.0.1", port.c_str(), false, PIPv4, SOCK_STREAM));
    EXPECT_EQ(made->lError, 0);
    return made;
  }

  SOCKHOLD Accepted() {
    EXPECT_TRUE(WaitReadable(*listener));
    PRPCSOCK taken;
    bool mustRest;
    EXPECT_EQ(listener->Accept(&taken, &mustRest), 0);
    return SOCKHOLD(taken);
  }

  SOCKHOLD listener, client, server;
};

TEST_F(Connected, BytesWrittenAreReadAndTheCloseIsSeen) {
  BUFFER out(5, "hello"), in(64);
  EXPECT_EQ(server->Read(&in), 0);  // nothing there yet is no error
  EXPECT_EQ(in.SizeProcessed(), 0u);

  ASSERT_EQ(client->Write(&out), 0);
  EXPECT_TRUE(out.Complete());
  ASSERT_TRUE(WaitReadable(*server));
  ASSERT_EQ(server->Read(&in), 0);
  EXPECT_EQ(std::string(in.Start(), in.SizeProcessed()), "hello");

  EXPECT_EQ(client->Shutdown(), 0);
  ASSERT_TRUE(WaitReadable(*server));
  BUFFER full(0);
  EXPECT_EQ(server->Read(&full), 0);  // a full buffer asks for nothing
  EXPECT_EQ(server->Read(&in), ERR_CLOSED);
}

TEST_F(Connected, WritingToAClosedPeerIsACodeAndNoSignal) {
  server.reset();
  ASSERT_TRUE(WaitReadable(*client));
  SI4 error = 0;
  for (int i = 0; i < 1000 && !error; ++i) {
    BUFFER b(1, "x");
    error = client->Write(&b);
  }
  EXPECT_EQ(error, ERR_SEND);
}

TEST_F(Connected, AFileThatShrinksEndsTheWriteWithItsCode) {
  const int file = open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  ASSERT_EQ(ftruncate(file, 300000), 0);
  BUFFERFILE b(file);
  ASSERT_EQ(ftruncate(file, 0), 0);
  SI4 error = 0;
  for (int i = 0; i < 1000 && !error; ++i) error = client->Write(&b);
  EXPECT_EQ(error, ERR_FILE);
  EXPECT_EQ(client->Write(&b), ERR_FILE);
}

TEST_F(Connected, AddressesMayBeAskedForWhileTheWorkThreadCloses) {
  std::thread asker([this] {
    for (int i = 0; i < 200; ++i) {
      VAHOLD info;
      const SI4 error = server->Info(true, info.Out());
      EXPECT_EQ(error == 0, static_cast<bool>(info));
      QLNSOCKADDR addr;
      server->Addr(false, &addr);
      server->SetKeepalive(1000, 1000);
    }
  });
  VAHOLD info;
  EXPECT_EQ(server->Info(true, info.Out()), 0);
  server->CloseSocket();
  asker.join();
  EXPECT_EQ(server->Port(), 0);
  EXPECT_EQ(server->Info(true, info.Out()), 0);  // what it answered once, it goes on answering
  SI4 port = 0;
  EXPECT_EQ(VAGetSI4(info.Get(), 3, &port), 0);
  EXPECT_EQ(port, listener->Port());
}

TEST_F(Connected, AnAcceptWithoutDescriptorsAsksForARestAndLosesNobody) {
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const SOCKHOLD waiting = Client();
  ASSERT_TRUE(WaitReadable(*listener));
  rlimit tight = before;
  tight.rlim_cur = 100;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  std::vector<int> fill;
  for (int fd; (fd = dup(listener->RawSocket())) >= 0;) fill.push_back(fd);

  PRPCSOCK taken;
  bool mustRest = false;
  const SI4 error = listener->Accept(&taken, &mustRest);
  for (const int fd : fill) close(fd);
  setrlimit(RLIMIT_NOFILE, &before);

  EXPECT_EQ(error, ERR_ACCEPT);
  EXPECT_TRUE(mustRest);
  EXPECT_EQ(taken, nullptr);
  EXPECT_TRUE(Accepted());
  EXPECT_EQ(listener->Accept(&taken, &mustRest), 0);  // nobody left
  EXPECT_EQ(taken, nullptr);
  EXPECT_FALSE(mustRest);
}

TEST_F(Connected, ADescriptorBeyondTheSetsIsRefusedAndClosed) {
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit wide = before;
  wide.rlim_cur = before.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &wide), 0);
  const int high = fcntl(client->RawSocket(), F_DUPFD_CLOEXEC, FD_SETSIZE - 1);
  if (high < 0) GTEST_SKIP() << "the system allows no such descriptor";

  RPCSOCK refused(high);
  EXPECT_EQ(refused.lError, ERR_NEW_DATA_SOCKET);
  EXPECT_EQ(fcntl(high, F_GETFD), -1);
  SOCKETSETS sets;
  Clear(&sets);
  EXPECT_EQ(refused.Wait4R(&sets), ERR_NEW_DATA_SOCKET);
  EXPECT_EQ(refused.Wait4W(&sets), ERR_NEW_DATA_SOCKET);
  EXPECT_EQ(refused.Ready4R(&sets), 0);
  setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(Connected, TheWaitEndsAtTheEarliestDeadline) {
  SOCKETSETS sets;
  Clear(&sets);
  ASSERT_EQ(server->Wait4R(&sets), 0);
  const F8 start = Micros();
  sets.WakeAt(start + 200e6);
  sets.WakeAt(start + 20e3);
  sets.WakeAt(start + 100e6);
  SI4 count = -1;
  ASSERT_EQ(SfWait(&sets, 300, &count), 0);
  EXPECT_EQ(count, 0);
  EXPECT_GE(Micros() - start, 19e3);
  EXPECT_EQ(server->Ready4R(&sets), 0);

  Clear(&sets);
  sets.WakeAt(start);  // already over
  EXPECT_EQ(SfWait(&sets, 300, &count), 0);

  Clear(&sets);
  sets.cntBuffered = 1;  // ready already, though the kernel does not know
  EXPECT_EQ(SfWait(&sets, 300, &count), 0);
  EXPECT_EQ(count, 1);
}

TEST_F(Connected, ASignalEndsTheWaitWithoutAnErrorAndWithNothingReady) {
  struct sigaction quiet = {}, before;
  quiet.sa_handler = [](int) {};
  sigaction(SIGALRM, &quiet, &before);
  const itimerval often = {{0, 5000}, {0, 5000}}, never = {};
  setitimer(ITIMER_REAL, &often, nullptr);

  SOCKETSETS sets;
  Clear(&sets);
  const SI4 wanted = server->Wait4R(&sets);
  SI4 count = 0;
  const SI4 error = SfWait(&sets, kBound, &count);
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);

  EXPECT_EQ(wanted, 0);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(count, -1);
  EXPECT_EQ(server->Ready4R(&sets), 0);
}

TEST(Datagram, ArrivesWithItsSenderAndAnEmptyOneIsAClose) {
  RPCSOCK server("127.0.0.1", "0", true, PIPv4, SOCK_DGRAM);
  RPCSOCK client(nullptr, nullptr, false, PIPv4, SOCK_DGRAM);
  ASSERT_EQ(server.lError + client.lError, 0);
  const std::string port = std::to_string(server.Port());
  QLNSOCKADDR to, from;
  ASSERT_EQ(GetIPAddr("127.0.0.1", port.c_str(), SOCK_DGRAM, PIPv4, false, &to), 0);

  BUFFER in(64), ping(4, "ping"), empty(0);
  ASSERT_EQ(client.SendTo(&ping, &to), 0);
  ASSERT_TRUE(WaitReadable(server));
  EXPECT_EQ(server.RecvFrom(&in, &from), 0);
  EXPECT_EQ(std::string(in.Start(), in.SizeProcessed()), "ping");

  ASSERT_EQ(server.SendTo(&empty, &from), 0);
  ASSERT_TRUE(WaitReadable(client));
  EXPECT_EQ(client.RecvFrom(&in, &from), ERR_CLOSED);
}

}  // namespace
