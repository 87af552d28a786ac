// crowd_test.cpp - two thousand peers that come, talk and go under eight threads that wait, with
// every strategy. KYRNO_STRESS_SECONDS says for how long; fifteen if it is not set.
//
// Each message carries the number of its connection, its own number there, and when it was sent,
// and comes back as an echo. The load is far below what two processors carry, so what is late was
// not found in time.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iomanip>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "tests/support/session.h"

namespace support {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr std::size_t kPeers = 2000;
constexpr auto kPace = microseconds(500);
constexpr auto kLatest = milliseconds(100);

std::chrono::seconds Duration() {
  const char* seconds = std::getenv("KYRNO_STRESS_SECONDS");
  return std::chrono::seconds(seconds ? std::atoi(seconds) : 15);
}

/// What was delivered, with the time that the wait for it took.
class Ledger {
 public:
  void Deliver(const std::string& message, Clock::time_point begin, Clock::time_point end) {
    std::istringstream fields(message);
    int connection = -1;
    int number = -1;
    Clock::rep sent = 0;
    fields >> connection >> number >> sent;
    EXPECT_FALSE(fields.fail()) << message;
    const std::lock_guard hold(lock);
    latest = std::max(latest, end.time_since_epoch() - Clock::duration(sent));
    EXPECT_TRUE(delivered[connection].try_emplace(number, begin, end).second) << message;
  }
  /// "Connect", "Error" and "BlockLast" come once for each connection.
  void Tell(const std::string& event) {
    const std::lock_guard hold(lock);
    EXPECT_TRUE(told.insert(event).second) << event;
  }

  /// Every message once. Threads that pick at the same time may come back in any order, but none
  /// with a message before a wait has begun that brings an earlier one of the same connection.
  void ExpectEachOnce(const std::vector<int>& issued) const {
    EXPECT_EQ(told.size(), 2 * issued.size());
    for (std::size_t i = 0; i < issued.size(); ++i) {
      const auto messages = delivered.find(static_cast<int>(i));
      ASSERT_NE(messages, delivered.end()) << i;
      ASSERT_EQ(messages->second.size(), static_cast<std::size_t>(issued[i])) << i;
      Clock::time_point laterEnd = Clock::time_point::max();
      for (auto m = messages->second.rbegin(); m != messages->second.rend(); ++m) {
        EXPECT_LE(m->second.first, laterEnd) << "connection " << i << ", message " << m->first;
        laterEnd = std::min(laterEnd, m->second.second);
      }
    }
  }

  Clock::duration latest{};

 private:
  std::mutex lock;
  std::map<int, std::map<int, std::pair<Clock::time_point, Clock::time_point>>> delivered;
  std::set<std::string> told;
};

/// Waits on an object until told to stop; if `single`, on the connection that comes until it is
/// gone.
void Serve(const std::stop_token& stop, const TestRoot& root, const char* object, bool single,
           Ledger* ledger) {
  for (std::string name = object; !stop.stop_requested();) {
    const auto begin = Clock::now();
    const Event event = root.Wait(name, 50);
    const auto end = Clock::now();
    if (event.event == "Receive" || event.event == "Block") {
      ledger->Deliver(event.value.Text(), begin, end);
      const int flag = event.event == "Receive" ? 1 : host::kSendPlain;
      // A peer that has ended its sending needs no echo.
      const int code = root.Code("ARespondZ", Args({event.name, flag}), event.value);
      EXPECT_EQ((std::set<int>{0, 1008, 1010, 1103, host::kClosed}).count(code), 1U) << code;
    } else if (std::count(event.name.begin(), event.name.end(), '.') == 1) {  // not of a command
      ledger->Tell(root.Root() + event.name + (event.event == "Connect" ? "Connect" : "End"));
      if (single && event.event == "Connect") name = event.name;
    } else if (event.code == 1010) {
      name = object;
    }
  }
}

/// The peers' side: one thread that goes from one peer to another.
class Peers {
 public:
  using Target = std::pair<int, std::string>;  // port and mode

  /// The first targets have one peer each; the last three share all others.
  explicit Peers(std::vector<Target> all) : targets(std::move(all)), peers(kPeers) {}

  /// One after the other the first time, then at random, those of the first targets more often.
  void VisitOne() {
    const bool first = random() % 10 == 0;
    const std::size_t i = visits < kPeers ? visits : random() % (first ? Few() : kPeers);
    ++visits;
    Peer& peer = peers[i];
    if (peer.socket) {
      TakeEchoes(&peer);
      if (random() % 8 == 0) {
        if (random() % 2 == 0) Talk(&peer);
        Leave(&peer);
      }
    }
    if (!peer.socket) {
      peer.target = &targets[i < Few() ? i : Few() + i % 3];
      peer.connection = static_cast<int>(issued.size());
      issued.push_back(0);
      peer.socket.emplace(peer.target->first);
    }
    Talk(&peer);
  }

  void LeaveAll() {
    for (Peer& peer : peers)
      if (peer.socket) Leave(&peer);
  }

  /// Messages of each connection.
  std::vector<int> issued;

 private:
  struct Peer {
    std::optional<RawPeer> socket;
    const Target* target = nullptr;
    int connection = 0;
    Lines echoes{};
  };

  std::size_t Few() const { return targets.size() - 3; }

  /// One to four messages in one write.
  void Talk(Peer* peer) {
    const std::string& mode = peer->target->second;
    const auto now = Clock::now().time_since_epoch().count();
    std::string bytes;
    for (auto n = random() % 4 + 1; n-- > 0;) {
      const int number = issued[static_cast<std::size_t>(peer->connection)]++;
      std::ostringstream fields;
      fields << std::setfill('0') << std::setw(8) << peer->connection << ' ' << std::setw(8)
             << number << ' ' << now;
      const std::string text = fields.str();
      const std::string z = ZBytes(text);
      const std::string sent = mode == "command"
                                   ? Ipm{kIpmCommand, "n" + std::to_string(number), z}.Bytes()
                               : mode == "text" ? text + "\n"
                                                : Block(text);
      bytes += sent;
      peer->echoes.push_back(mode == "command" ? z : sent);
    }
    peer->socket->Send(bytes);
  }

  /// Threads that answer at the same time do so in any order.
  static void TakeEchoes(Peer* peer) {
    Lines echoes;
    for (const std::string& expected : peer->echoes)  // all are of one size
      echoes.push_back(peer->target->second == "command" ? Ipm::Read(*peer->socket).payload
                                                         : peer->socket->Receive(expected.size()));
    ASSERT_EQ(Sorted(echoes), peer->echoes);
    peer->echoes.clear();
  }

  static void Leave(Peer* peer) {
    peer->socket->EndSending();
    peer->socket->ReceiveAll();
    peer->socket.reset();
    peer->echoes.clear();
  }

  const std::vector<Target> targets;
  std::vector<Peer> peers;
  std::size_t visits = 0;
  std::mt19937 random{1};
};

TEST(Crowd, OfTwoThousandIsServedInTimeAndEachMessageOnce) {
  AllowDescriptors();
  const TestRoot wide;
  const TestRoot narrow;
  narrow.SetProp(".", "ReadyStrategy", 4);  // looks at ten objects at most
  const struct {
    const TestRoot& root;
    const char* name;
    const char* mode;
    std::size_t share;  // how often it stands in the list of targets
    Options more{};
  } servers[] = {{narrow, "ONE", "blktext", 1}, {narrow, "TWO", "command", 1},
                 {narrow, "FEW", "blktext", 4}, {wide, "CMD", "command", 1},
                 {wide, "BLK", "blktext", 1},   {wide, "TXT", "text", 1, {{"EOM", "\n"}}}};
  std::vector<Peers::Target> targets;
  for (const auto& s : servers)
    targets.insert(targets.end(), s.share, {s.root.Serve(s.mode, s.more, s.name), s.mode});
  Peers peers(targets);
  Ledger ledger;
  std::atomic<Clock::rep> stall{0};  // for how long this machine let a thread wait for nothing
  {
    std::vector<std::jthread> threads;
    const auto serve = [&](const TestRoot& root, const char* name, bool single = false) {
      threads.emplace_back(
          [&, name, single](const auto& stop) { Serve(stop, root, name, single, &ledger); });
    };
    for (const char* name : {"", "", "CMD", "BLK", "TXT"}) serve(wide, name);
    serve(narrow, "FEW");
    for (const char* name : {"ONE", "TWO"}) serve(narrow, name, true);
    threads.emplace_back([&](const std::stop_token& stop) {
      for (auto last = Clock::now(); !stop.stop_requested();) {
        std::this_thread::sleep_for(milliseconds(1));
        const auto now = Clock::now();
        stall = std::max(stall.load(), (now - last).count());
        last = now;
      }
    });

    const auto begin = Clock::now();
    const auto end = begin + Duration();
    for (auto next = begin; next < end; next = std::max(next + kPace, Clock::now())) {
      std::this_thread::sleep_until(next);
      wide.SetProp(".", "ReadyStrategy", static_cast<int>((next - begin) / milliseconds(250) % 4));
      ASSERT_NO_FATAL_FAILURE(peers.VisitOne());
    }
    peers.LeaveAll();
    for (const auto& s : servers)
      EXPECT_TRUE(Eventually([&] { return s.root.Children(s.name).empty(); })) << s.name;
  }
  ledger.ExpectEachOnce(peers.issued);
  if constexpr (!kSanitized) {
    EXPECT_LT(ledger.latest, kLatest + Clock::duration(stall));
  }
}

}  // namespace
}  // namespace support
