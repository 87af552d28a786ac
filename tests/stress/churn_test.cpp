// churn_test.cpp - many threads on one root while connections come and go, and roots that are
// closed under their users. KYRNO_STRESS_SECONDS says for how long; five if it is not set.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>

#include "tests/support/rawpeer.h"
#include "tests/support/session.h"

namespace support {
namespace {

using Clock = std::chrono::steady_clock;
using host::Event;

constexpr int kPerConnection = 20;

std::chrono::seconds Duration() {
  const char* seconds = std::getenv("KYRNO_STRESS_SECONDS");
  return std::chrono::seconds(seconds ? std::atoi(seconds) : 5);
}

/// Messages by their number: how often each was delivered. Only delivered ones take room.
class Ledger {
 public:
  int Issue() { return issued.fetch_add(1); }
  void Deliver(std::int64_t number) {
    const std::lock_guard hold(lock);
    ++delivered[number];
  }
  std::size_t Count() {
    const std::lock_guard hold(lock);
    return delivered.size();
  }
  void ExpectEachOnce() {
    const std::lock_guard hold(lock);
    EXPECT_EQ(delivered.size(), static_cast<std::size_t>(issued.load()));
    for (int number = 0; number < issued; ++number) EXPECT_EQ(delivered[number], 1) << number;
  }

 private:
  std::atomic<int> issued{0};
  std::mutex lock;
  std::map<std::int64_t, int> delivered;
};

/// The server's side and the client's side of a flood of messages on one root.
class Churn {
 public:
  Churn()
      : commandPort(root.Serve("command", {}, "CMD")),
        blockPort(root.Serve("blktext", {}, "BLK")) {}

  /// Answers commands and takes note of blocks until it is told to stop.
  void Serve(const char* name) {
    while (!stopServing) {
      const Event event = root.Wait(name, 50);
      if (event.event == "Receive") {
        commands.Deliver(event.value.Integer());
        Respond(event);
      } else if (event.event == "Block") {
        blocks.Deliver(std::stoll(event.value.Text()));
      } else if (event.code != 0 && event.code != host::kTimeout) {
        ADD_FAILURE() << "wait on " << name << ": " << event.code;
      }
    }
  }

  /// One connection after the other, each with a few commands and their answers.
  void Call() {
    while (!stopSending) {
      const std::string client = Dial("command", commandPort);
      if (client.empty()) return;
      std::map<std::string, int> waiting;
      for (int i = 0; i < kPerConnection; ++i) {
        const int number = commands.Issue();
        waiting[root.Send(client, number, i % 2 ? host::kSendReport : host::kSendPlain)] = number;
      }
      while (!waiting.empty()) {
        const Event event = root.Next(client);
        if (event.event == "Sent") continue;
        ASSERT_EQ(event.event, "Receive") << Tell(event);
        ASSERT_EQ(waiting.count(event.name), 1U) << event.name;
        ASSERT_EQ(event.value.Integer(), -waiting[event.name]);
        waiting.erase(event.name);
        answers.fetch_add(1);
      }
      root.Close(client);
      ASSERT_EQ(root.Told(client), "code 1010");
    }
  }

  /// One connection after the other, closed with its last block.
  void SendBlocks() {
    while (!stopSending) {
      const std::string client = Dial("blktext", blockPort);
      if (client.empty()) return;
      for (int i = 0; i < kPerConnection; ++i)
        root.Send(client, std::to_string(blocks.Issue()),
                  i == kPerConnection - 1 ? host::kSendAndClose : host::kSendPlain);
      ASSERT_EQ(root.Told(client), "code 1010");
    }
  }

  /// Peers that break off in the middle, and such that send nonsense.
  void Disturb() {
    const std::string half = Ipm{kIpmCommand, "half", ZBytes(std::string(100, 'x')), ""}.Bytes();
    for (std::size_t size = 0; !stopSending; size = (size + 13) % half.size()) try {
        RawPeer peer(commandPort);
        const bool nonsense = size <= kIpmHeaderSize && size % 3 == 0;
        peer.Send(half.substr(0, size) + std::string(nonsense ? 200 : 0, '!'));
        if (size % 2 == 0) {
          peer.Reset();
        } else {
          peer.EndSending();
          peer.ReceiveAll();
        }
      } catch (const std::system_error& e) {
        if (e.code().value() != EADDRNOTAVAIL) throw;
      }
  }

  /// Looks at everything, whatever becomes of it meanwhile.
  void Look() {
    while (!stopSending)
      for (const std::string server : {"CMD", "BLK"}) {
        root.Tree();
        for (const std::string& child : root.Children(server)) {
          const std::string name = server + "." + child;
          for (const char* property : {"LocalAddr", "PeerAddr", "PropList", "CompLevel"}) {
            const int code = root.Code("AGetProp", Args({name, property}));
            EXPECT_TRUE(code == 0 || code == 1010 || code == 1132 || code == 1134) << code;
          }
          const int code = root.Code("ASetProp", Args({name, "CompLevel", 6}));
          EXPECT_TRUE(code == 0 || code == 1010) << code;
        }
      }
  }

  TestRoot root;
  const int commandPort;
  const int blockPort;
  Ledger commands;
  Ledger blocks;
  std::atomic<int> answers{0};
  std::atomic<bool> stopSending{false};
  std::atomic<bool> stopServing{false};

 private:
  /// A new client. Long runs use up the ports of the machine, which come back after a minute.
  std::string Dial(const char* mode, int port) {
    while (!stopSending) try {
        return root.Dial(mode, port, {}, "");
      } catch (const host::LibraryError& e) {
        if (e.code != EADDRNOTAVAIL) throw;
      }
    return "";
  }
  void Respond(const Event& event) {
    const auto number = static_cast<std::int32_t>(event.value.Integer());
    const int code = root.Code("ARespondZ", Args({event.name, 1}), -number);
    EXPECT_EQ(code, 0) << event.name;
  }
};

TEST(Churn, DeliversEveryMessageExactlyOnceWhileConnectionsComeAndGo) {
  Churn churn;
  std::vector<std::thread> servers;
  servers.emplace_back([&] { churn.Serve("CMD"); });
  servers.emplace_back([&] { churn.Serve("CMD"); });
  servers.emplace_back([&] { churn.Serve("BLK"); });
  std::vector<std::thread> others;
  others.emplace_back([&] { churn.Call(); });
  others.emplace_back([&] { churn.Call(); });
  others.emplace_back([&] { churn.SendBlocks(); });
  others.emplace_back([&] { churn.Disturb(); });
  others.emplace_back([&] { churn.Look(); });

  std::this_thread::sleep_for(Duration());
  churn.stopSending = true;
  for (std::thread& t : others) t.join();
  // Whatever was sent arrives: all connections end, and with them what they carry.
  EXPECT_TRUE(Eventually(
      [&] { return churn.root.Children("CMD").empty() && churn.root.Children("BLK").empty(); }));
  churn.stopServing = true;
  for (std::thread& t : servers) t.join();

  EXPECT_GT(churn.answers, 0);
  churn.blocks.ExpectEachOnce();
  churn.commands.ExpectEachOnce();
}

TEST(Churn, ClosingARootUnderItsUsersGivesEachOfThemACode) {
  const auto end = Clock::now() + Duration();
  do {
    const TestRoot root;
    root.Dial("command", root.Serve("command"));
    EXPECT_EQ(root.Next("S").event, "Connect");
    std::atomic<int> turns{0};
    std::vector<std::thread> users;
    for (const char* name : {"", "S", "S.CON00000000", "C"})
      users.emplace_back([&, name] {
        int code = 0;
        while (code == 0 || code == host::kTimeout) {
          const Event event = root.Wait(name, kBoundMillis);
          code = event.code;
          if (event.event == "Error") code = host::kClosed;
          ++turns;
        }
        EXPECT_TRUE(code == 1006 || code == 1010 || code == 1119 || code == 1138) << code;
      });
    for (int i = 0; i < 2; ++i)
      users.emplace_back([&] {
        int code = 0;
        while (code == 0) {
          code = root.Code("ASendZ", Args({"C", 0}), "some data");
          ++turns;
        }
        EXPECT_TRUE(code == 1006 || code == 1007 || code == 1008 || code == 1119 || code == 1138)
            << code;
      });
    users.emplace_back([&] {
      while (root.Code("ATree", ".") == 0) ++turns;
    });
    EXPECT_TRUE(Eventually([&] { return turns > 100; }));
    const auto before = Clock::now();
    EXPECT_EQ(root.Code("AClose", "."), 0);
    for (std::thread& user : users) user.join();
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(10));
    EXPECT_EQ(root.Code("ATree", "."), 1006);
  } while (Clock::now() < end);
}

}  // namespace
}  // namespace support
