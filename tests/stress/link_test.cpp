// link_test.cpp - the link turned on and off a thousand times while a session is busy in both
// directions and other peers break off.
#include "tests/support/link.h"

#include <filesystem>
#include <functional>
#include <semaphore>

namespace support {
namespace {

constexpr int kSenders = 2;
constexpr int kBrokenPerRound = 5;
constexpr int kSentPerEvent = 100;
constexpr int kBlocksPerRound = 5;
// After which a thread looks whether it is to go on.
constexpr auto kMoment = std::chrono::milliseconds(10);
// What memory may differ by between two moments; a sanitizer keeps what was freed for a while.
constexpr std::size_t kGrowth = kSanitized ? 1 << 30 : 64 << 20;

/// The remote environment: one session after the other, each busy until it ends.
void Flood(Remote remote) {
  // The interpreter's blocks may come before the answer to this.
  remote.Say("SupportedProtocols=2");
  remote.Say("UsingProtocol=2");
  std::atomic<bool> ended{false};
  std::thread hears([&] {
    try {
      while (true) remote.Hear();
    } catch (const std::exception&) {
      ended = true;
    }
  });
  try {
    for (std::size_t n = 0; !ended; ++n) remote.Say(std::string(n % 3000, 'b'));
  } catch (const std::exception&) {
  }
  remote.peer.EndSending();
  hears.join();
}

/// Peers of a link until they are told to stop.
class Crowd {
 public:
  ~Crowd() {
    stop = true;
    for (std::thread& thread : threads) thread.join();
  }
  /// Calls again and again, whatever the library does to the connection.
  void Repeat(std::function<void()> body) {
    threads.emplace_back([this, body = std::move(body)] {
      while (!stop) try {
          body();
        } catch (const std::exception&) {
          sched_yield();
        }
    });
  }

 private:
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
};

std::size_t Descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

/// The interpreter: on, some blocks from a peer, and off in the midst, while other threads of it
/// send a number of blocks with each event. `on` is called as soon as the link is.
class Interpreter {
 public:
  explicit Interpreter(Link& used) : link(used) {}

  void Rounds(int rounds, const std::function<void()>& on) {
    Crowd senders;
    for (int i = 0; i < kSenders; ++i) senders.Repeat([this] { Send(); });
    Memory before{};
    std::size_t open = 0;
    for (int i = 0; i < rounds && !testing::Test::HasFailure(); ++i) {
      Round(on);
      if (i != rounds / 4) continue;
      before = Memory::Now();
      open = Descriptors();
    }
    EXPECT_EQ(link.Late(), 0);
    EXPECT_LE(Descriptors(), open + 16);
    EXPECT_LE(Memory::Now().resident, before.resident + kGrowth);
  }

 private:
  void Round(const std::function<void()>& on) {
    ASSERT_EQ(link.Enable(1), 0) << link.table->pZeph2Config->lError;
    on();
    for (int blocks = 0; blocks < kBlocksPerRound;) {
      toSend.release(kSentPerEvent);
      const std::string told = link.Told();
      ASSERT_NE(told, "nothing");
      blocks += told != "gone";
    }
    ASSERT_EQ(link.Enable(0), 0);
    EXPECT_EQ(link.State(), Zeph2Idle);
    EXPECT_EQ(link.Send("x"), 1008);
    link.Forget();
  }

  void Send() {
    if (!toSend.try_acquire_for(kMoment)) return;
    const int code = link.Send(std::string(500, 's'));
    EXPECT_TRUE(code == 0 || code == 1008 || code == 1119) << code;
  }

  Link& link;
  std::counting_semaphore<> toSend{0};
};

/// A link that serves, while peers break at any moment and come second.
void Serve(const std::string& word, const char* server, int rounds, Remote connect(int port)) {
  Link link({{"ZEPH\\INIT", word + ":127.0.0.1:0"}}, "");
  std::atomic<int> port{1};
  std::size_t size = 0;
  std::counting_semaphore<> toBreak{0};
  const std::string begins = Block("SupportedProtocols=2", kZephMagic) + kWebSocketRequest;
  {
    Crowd peers;
    peers.Repeat([&] { Flood(connect(port)); });
    peers.Repeat([&] {
      if (!toBreak.try_acquire_for(kMoment)) return;
      RawPeer peer(port);
      peer.Send(begins.substr(0, ++size % begins.size()));
      size % 2 ? peer.Reset() : peer.Close();
    });
    Interpreter(link).Rounds(rounds, [&] {
      port = link.Port(server);
      toBreak.release(kBrokenPerRound);
    });
  }
}

TEST(LinkStress, ListeningEndsCleanlyWheneverItIsTurnedOff) {
  Serve("serve", "ZephServer", 500, [](int port) { return Remote(port); });
}

TEST(LinkStress, PagesAndTheirSessionEndCleanlyWheneverTheyAreTurnedOff) {
  Serve("http", "HttpServer", 300, Remote::OverWebSocket);
}

TEST(LinkStress, PollingEndsCleanlyWheneverItIsTurnedOff) {
  RawListener listener;
  Link link({{"ZEPH\\INIT", "poll:127.0.0.1:" + std::to_string(listener.Port())}}, "");
  std::atomic<bool> stop{false};
  std::thread remote([&] {
    while (!stop) try {
        Flood(Remote(listener.Accept()));
      } catch (const std::exception&) {
      }
  });
  Interpreter(link).Rounds(200, [] {});
  stop = true;
  RawPeer(listener.Port()).Close();
  remote.join();
}

}  // namespace
}  // namespace support
