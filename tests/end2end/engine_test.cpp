// engine_test.cpp - what the work of a root must bring whatever its inside: many connections at
// once, little memory for idle ones, long queues, and each event once and in order.
#include <malloc.h>

#include <future>
#include <random>
#include <thread>

#include "tests/support/session.h"

namespace support {
namespace {

std::string Con(int i) {
  const std::string digits = std::to_string(i);
  return "S.CON" + std::string(8 - digits.size(), '0') + digits;
}

/// A server "S" with many silent peers, whose "Connect" has been collected.
struct Crowded {
  TestRoot root;
  const int port;
  std::vector<RawPeer> peers;

  explicit Crowded(const std::string& mode, std::size_t most)
      : port((AllowDescriptors(), root.Serve(mode))) {
    peers.reserve(most);
  }
  void Add(int n) {
    Lines expected;
    while (n-- > 0) {
      expected.push_back("Connect " + Con(static_cast<int>(peers.size())) + " 0");
      peers.emplace_back(port);
    }
    Expect(expected);
  }
  /// These events, in any order. One that is missing ends the test at once.
  void Expect(const Lines& expected) {
    Lines told;
    for (std::size_t i = 0; i < expected.size(); ++i) {
      told.push_back(root.Told("S"));
      ASSERT_EQ(told.back().find("code"), std::string::npos) << "after " << i << " events";
    }
    ASSERT_EQ(Sorted(told), expected);
  }
};

TEST(Crowd, OfManyPeersAndClientsIsServedAtOnce) {
  constexpr int kPeers = 1500;
  constexpr int kClients = 50;
  Crowded t("blktext", kPeers);
  ASSERT_NO_FATAL_FAILURE(t.Add(kPeers));
  Lines clients;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(t.root.Dial("blktext", t.port, {}, ""));
    t.root.Send(clients.back(), clients.back());
  }
  for (int i = 0; i < kPeers; ++i) t.peers[static_cast<std::size_t>(i)].Send(Block(Con(i)));
  for (int blocks = 0; blocks < kPeers + kClients;) {
    const Event event = t.root.Next("S");
    if (event.event == "Connect") continue;
    ASSERT_EQ(event.event, "Block") << Tell(event);
    t.root.Respond(event.name, event.value, host::kSendPlain);
    ++blocks;
  }
  for (int i = 0; i < kPeers; ++i)
    ASSERT_EQ(t.peers[static_cast<std::size_t>(i)].Receive(17), Block(Con(i)));
  for (const std::string& client : clients)
    ASSERT_EQ(t.root.Told(client), "Block " + client + " " + client);
}

TEST(Crowd, ThatLeavesAtOnceIsToldOncePerConnection) {
  constexpr int kPeers = 1000;
  Crowded t("blktext", kPeers);
  ASSERT_NO_FATAL_FAILURE(t.Add(kPeers));
  t.peers.clear();
  Lines expected;
  for (int i = 0; i < kPeers; ++i) expected.push_back("Error " + Con(i) + " 1119");
  ASSERT_NO_FATAL_FAILURE(t.Expect(expected));
  EXPECT_TRUE(Eventually([&] { return t.root.Children("S").empty(); }));
  EXPECT_EQ(t.root.Wait("S", 0).code, 100);
}

TEST(Crowd, ThatCameWhileTheServerWasPausedIsNamedInOrderAndFiltered) {
  const ZValue denied = Args({Args({"ipv4", "127.0.0.2"})});
  for (const int eventMode : {0, 1}) {
    const TestRoot root;
    root.SetProp(".", "EventMode", eventMode);
    const int port = root.Serve("text", {{"DenyEndpoints", denied}});
    root.SetProp("S", "Pause", 1);
    std::vector<RawPeer> peers;
    Lines expected;
    for (int i = 0; i < 64; ++i) {
      const bool passes = i % 4 != 3;
      peers.emplace_back(port, passes ? "127.0.0.1" : "127.0.0.2");
      if (passes) expected.push_back("Connect " + Con(i) + " 0");  // refused ones leave gaps
    }
    root.SetProp("S", "Pause", 0);
    EXPECT_EQ(root.Told("S", 48), expected);
    for (std::size_t i = 3; i < peers.size(); i += 4) EXPECT_EQ(peers[i].ReceiveAll(), "");
    EXPECT_EQ(root.Wait("S", 0).IsTimeout(), true);
    EXPECT_EQ(root.Children("S").size(), 48U);
  }
}

class Idle : public testing::TestWithParam<std::string> {};
INSTANTIATE_TEST_SUITE_P(Crowd, Idle, testing::Values("command", "blktext", "raw", "text"),
                         [](const auto& test) { return test.param; });

TEST_P(Idle, ConnectionsCostLittleMemory) {
  constexpr int kPeers = 1000;
  const bool stream = GetParam() == "raw" || GetParam() == "text";
  Crowded t(GetParam(), kPeers + 1);
  ASSERT_NO_FATAL_FAILURE(t.Add(1));  // what the first one needs is not counted
  const auto heap = [] { return mallinfo2().uordblks + mallinfo2().hblkhd; };
  [[maybe_unused]] const std::size_t before = heap();
  [[maybe_unused]] const std::size_t resident = Memory::Now().resident;
  ASSERT_NO_FATAL_FAILURE(t.Add(kPeers));
  if constexpr (!kSanitized) {  // of the buffer that a stream has, the first page at most is
                                // touched
    EXPECT_LE(Memory::Now().resident, resident + kPeers * (1536 + 4096));
    EXPECT_TRUE(stream || heap() <= before + kPeers * 1536) << heap() - before;
  }
  t.peers.back().Send(GetParam() == "command" ? Ipm{kIpmCommand, "a", ZBytes(1)}.Bytes()
                                              : Block("x"));
  EXPECT_EQ(t.root.Next("S").name.substr(0, 13), Con(kPeers)) << "it is alive";
}

/// Closes a command that its peer has read, though the thread that sent it may not be done with it.
void CloseSent(const TestRoot& root, const std::string& name) {
  EXPECT_TRUE(Eventually([&] { return root.Code("AClose", name) == 0; }));
}

TEST(Finished, ObjectsGiveTheirNamesBackWithoutTraffic) {
  Dialled t("command");
  for (int i = 0; i < 100; ++i) {
    t.root.Send("C.a", i);
    Ipm::Read(t.peer);
    CloseSent(t.root, "C.a");
    ASSERT_TRUE(Eventually([&] { return t.root.Code("ATree", "C.a") == 1010; }));
    t.root.Serve("command");
    t.root.Close("S");
    ASSERT_TRUE(Eventually([&] { return t.root.Code("ATree", "S") == 1010; }));
  }
  t.peer.Close();
  EXPECT_EQ(t.root.Told("C", 2), (Lines{"Error C 1119", "code 1010"}));
  t.root.Dial("command", t.listener.Port());
}

TEST(Finished, ObjectsEndAWaitUnlessAnotherOfTheirNameIsThere) {
  Dialled t("command");
  for (int i = 0; i < 200; ++i) {
    const std::string name = "C.n" + std::to_string(i);
    t.root.Send(name, "first");
    Ipm::Read(t.peer);
    auto told = std::async(std::launch::async, [&] { return t.root.Told(name); });
    CloseSent(t.root, name);
    ASSERT_TRUE(Eventually([&] { return t.root.Code("ASendZ", Args({name, 0}), 2) == 0; }));
    Ipm::Read(t.peer);
    t.peer.Send(Ipm{kIpmAnswer, "n" + std::to_string(i), ZBytes("answer")}.Bytes());
    const std::string answer = "Receive " + name + " answer";
    if (const std::string first = told.get(); first != answer) {
      ASSERT_EQ(first, "code 1010");
      ASSERT_EQ(t.root.Told(name), answer);
    }
  }
}

TEST(Queue, OfAnyLengthArrivesWholeAndInLinearTime) {
  const auto pass = [](int messages) {
    const auto begin = std::chrono::steady_clock::now();
    Dialled t("blktext");
    std::string expected;
    for (int i = 0; i < messages; ++i) {
      const std::string payload = std::to_string(i) + std::string(200, 'q');
      expected += Block(payload);
      t.root.Send("C", payload);
    }
    EXPECT_TRUE(t.peer.Receive(expected.size()) == expected);
    return std::chrono::steady_clock::now() - begin;
  };
  const auto few = pass(10000);
  EXPECT_LT(pass(100000), 25 * few);
}

TEST(Queue, OfReportsIsToldOnceEachInOrderAndEndsWithTheMessageThatCloses) {
  Dialled t("blktext");
  std::string bytes;
  Lines sent;
  for (int i = 0; i < 50; ++i) {
    sent.push_back("Sent " + t.root.Send("C", std::to_string(i), host::kSendReport) + " 0");
    bytes += Block(std::to_string(i));
  }
  EXPECT_EQ(t.peer.Receive(bytes.size()), bytes);
  EXPECT_EQ(t.root.Told("C", 50), sent);
  EXPECT_EQ(t.root.Wait("C", 0).code, 100);

  const std::string large(16 << 20, 'x');  // more than the sockets hold: what follows is queued
  t.root.Send("C", large);
  t.root.Send("C", "last", host::kSendAndClose);
  for (int i = 0; i < 3; ++i) t.root.Send("C", "too late", host::kSendReport);
  EXPECT_TRUE(t.peer.ReceiveAll() == Block(large) + Block("last"));
  t.peer.Close();
  EXPECT_EQ(t.root.Told("C"), "code 1010");
}

TEST(Queue, SendsReportsOfProgressBeforeTheirAnswer) {
  Served t("command");
  for (const std::size_t size : {std::size_t{1}, std::size_t{16} << 20}) {
    t.peer.Send(Ipm{kIpmCommand, "a", ZBytes(0)}.Bytes());
    ASSERT_EQ(t.root.Told("S"), "Receive " + t.name + ".a 0");
    t.root.Respond(t.name + ".a", std::string(size, 'p'), 0);
    t.root.Respond(t.name + ".a", "most", 0);
    t.root.Respond(t.name + ".a", "done", 1);
    for (const IpmType type : {kIpmProgress, kIpmProgress, kIpmAnswer})
      EXPECT_EQ(Ipm::Read(t.peer).type, type);
  }
}

TEST(Stream, OfCommandsCutAnywhereTellsEachOnce) {
  std::mt19937 random(1);
  Served t("command");
  int number = 0;
  for (const std::size_t most : std::initializer_list<std::size_t>{1, 2, 150, 1000, 1 << 20}) {
    std::string bytes;
    Lines expected;
    for (int i = 0; i < 40; ++i, ++number) {
      const std::string value(random() % 200, 'v');
      bytes += Ipm{kIpmCommand, "n" + std::to_string(number), ZBytes(value)}.Bytes();
      expected.push_back("Receive " + t.name + ".n" + std::to_string(number) + " " + value);
    }
    for (std::size_t at = 0; at < bytes.size();) {
      const std::string piece = bytes.substr(at, most < bytes.size() ? 1 + random() % most : most);
      t.peer.Send(piece);
      at += piece.size();
    }
    ASSERT_EQ(t.root.Told("S", 40), expected) << most;
    ASSERT_EQ(t.root.Wait("S", 0).code, 100);
  }
}

TEST(Stream, ThatIsRelayedWhileItRunsGoesOnWithWhatWasReadAhead) {
  std::string bytes(300000, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 >> 4 | 128);
  for (std::size_t ahead = 1; ahead <= 100000; ahead *= 10) {
    Served t("text", {{"EOM", "\n"}, {"BufferSize", 1 << 20}});  // never a whole block
    RawListener listener;
    t.root.Dial("blktext", listener.Port());
    RawPeer far = listener.Accept();
    t.peer.SendApart(bytes.substr(0, ahead), ahead);
    const std::jthread sender([&] {
      for (std::size_t at = ahead; at < bytes.size(); at += 997) t.peer.Send(bytes.substr(at, 997));
    });
    t.root.Relay(t.name, "C");
    ASSERT_TRUE(far.Receive(bytes.size()) == bytes) << ahead;
    EXPECT_EQ(t.root.Wait("", 0).code, 100);
  }
}

}  // namespace
}  // namespace support
