// churn_test.cpp - many threads on one root while connections come and go, and roots that are
// closed under their users. KYRNO_STRESS_SECONDS says for how long; five if it is not set.
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>

#include "tests/support/session.h"

namespace support {
namespace {

using Clock = std::chrono::steady_clock;

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
  void ExpectEachOnce() {
    EXPECT_GT(issued, 0);
    EXPECT_EQ(delivered.size(), static_cast<std::size_t>(issued.load()));
    for (int number = 0; number < issued; ++number) EXPECT_EQ(delivered[number], 1) << number;
  }

 private:
  std::atomic<int> issued{0};
  std::mutex lock;
  std::map<std::int64_t, int> delivered;
};

void ExpectOneOf(const std::set<int>& codes, int code) { EXPECT_EQ(codes.count(code), 1U) << code; }

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
        const auto number = static_cast<std::int32_t>(event.value.Integer());
        commands.Deliver(number);
        EXPECT_EQ(root.Code("ARespondZ", Args({event.name, 1}), -number), 0) << event.name;
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
    const std::string half = Ipm{kIpmCommand, "half", ZBytes(std::string(100, 'x'))}.Bytes();
    for (std::size_t size = 0; !stopSending; size = (size + 13) % half.size()) try {
        RawPeer peer(commandPort);
        const bool nonsense = size <= kIpmHeaderSize && size % 3 == 0;
        peer.Send(half.substr(0, size) + std::string(nonsense ? 200 : 0, '!'));
        size % 2 == 0 ? peer.Reset() : peer.EndSending();
        if (size % 2 != 0) peer.ReceiveAll();
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
          for (const char* property : {"LocalAddr", "PeerAddr", "PropList", "CompLevel"})
            ExpectOneOf({0, 1010, 1132, 1134}, root.Code("AGetProp", Args({name, property})));
          ExpectOneOf({0, 1010}, root.Code("ASetProp", Args({name, "CompLevel", 6})));
        }
      }
  }

  TestRoot root;
  const int commandPort;
  const int blockPort;
  Ledger commands;
  Ledger blocks;
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
};

TEST(Churn, DeliversEveryMessageExactlyOnceWhileConnectionsComeAndGo) {
  Churn churn;
  std::vector<std::jthread> servers;
  for (const char* name : {"CMD", "CMD", "BLK"}) servers.emplace_back(&Churn::Serve, &churn, name);
  std::vector<std::jthread> others;
  for (const auto work :
       {&Churn::Call, &Churn::Call, &Churn::SendBlocks, &Churn::Disturb, &Churn::Look})
    others.emplace_back(work, &churn);

  std::this_thread::sleep_for(Duration());
  churn.stopSending = true;
  others.clear();
  // Whatever was sent arrives: all connections end, and with them what they carry.
  EXPECT_TRUE(Eventually(
      [&] { return churn.root.Children("CMD").empty() && churn.root.Children("BLK").empty(); }));
  churn.stopServing = true;
  servers.clear();

  churn.blocks.ExpectEachOnce();
  churn.commands.ExpectEachOnce();
}

TEST(Churn, ClosingARootUnderItsUsersGivesEachOfThemACode) {
  const auto end = Clock::now() + Duration();
  do {
    const Paired t("command");
    const TestRoot& root = t.root;
    std::atomic<int> turns{0};
    std::vector<std::jthread> users;
    for (const char* name : {"", "S", "S.CON00000000", "C"})
      users.emplace_back([&, name] {
        int code = 0;
        for (; code == 0 || code == host::kTimeout; ++turns) {
          const Event event = root.Wait(name, kBoundMillis);
          code = event.event == "Error" ? host::kClosed : event.code;
        }
        ExpectOneOf({1006, 1010, 1119, 1138}, code);
      });
    for (int i = 0; i < 2; ++i)
      users.emplace_back([&] {
        int code = 0;
        for (; code == 0; ++turns) code = root.Code("ASendZ", Args({"C", 0}), "some data");
        ExpectOneOf({1006, 1007, 1008, 1119, 1138}, code);
      });
    users.emplace_back([&] {
      while (root.Code("ATree", ".") == 0) ++turns;
    });
    EXPECT_TRUE(Eventually([&] { return turns > 100; }));
    const auto before = Clock::now();
    EXPECT_EQ(root.Code("AClose", "."), 0);
    users.clear();
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(10));
    EXPECT_EQ(root.Code("ATree", "."), 1006);
  } while (Clock::now() < end);
}

}  // namespace
}  // namespace support
