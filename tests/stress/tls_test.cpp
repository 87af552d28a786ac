// tls_test.cpp - secure connections that come, talk and break, while their server pauses, trust and
// sessions change, and roots go in the midst of handshakes. KYRNO_STRESS_SECONDS says for how long;
// five if it is not set.
#include <atomic>
#include <cstdlib>
#include <system_error>
#include <thread>

#include "tests/support/pki.h"
#include "tests/support/program.h"

namespace support {
namespace {

constexpr int kThreads = 3;  // of clients
constexpr int kAskNobody = 256;

/// The server's application sends back all that comes.
void Echo(const TestRoot& root, const std::atomic<bool>& stop) {
  while (!stop) {
    const Event event = root.Wait("S", 50);
    // A peer may be gone by now.
    if (event.code == 0 && event.event == "Block")
      root.Code("ASendZ", Args({event.name, 0}), event.value);
  }
}

/// One client: some exchanges, and one of several ends. False when it met a paused server.
bool Visit(const TestRoot& root, const Options& options, int number) {
  const ZValue result = root.Run("AClt", host::OptionList(options));
  if (result.Integer(0) == 1201) return false;
  EXPECT_EQ(result.Integer(0), 0);
  if (result.Integer(0) != 0) return false;
  const std::string name = result.At(1).Text();
  for (int i = 0; i < 4; ++i) {
    const unsigned longest = i % 2 ? 100'000 : 50;
    const std::string text(1 + static_cast<unsigned>(number) * 7919U % longest,
                           static_cast<char>('a' + (number + i) % 26));
    root.Send(name, text);
    if (i == 3 && number % 3 == 0) break;  // leaves before the answer
    const Event event = root.Next(name);
    EXPECT_EQ(event.event, "Block") << Tell(event).substr(0, 80);
    EXPECT_TRUE(event.code == 0 && event.value.Bytes() == text) << number;
  }
  EXPECT_GT(root.GetProp(name, "PeerCert").Count(), 0U);
  root.Close(name);
  return true;
}

/// A peer that doesn't get far, unless the server pauses.
void Break(int port, bool resets) {
  try {
    RawPeer peer(port);
    peer.Send("\x16\x03\x01\x02");
    if (resets) peer.Reset();
  } catch (const std::system_error&) {
  }
}

/// A root that goes while one of its clients shakes hands with somebody who says nothing.
void LeaveInHandshake() {
  RawListener silent;
  auto root = std::make_unique<TestRoot>();
  const Options options = AtPort(silent.Port(), "raw", "C", Pki::Anonymous());
  std::thread client([&root = *root, &options] {
    const int code = root.Code("AClt", host::OptionList(options));
    EXPECT_TRUE(code == 1010 || code == 1201 || code == 1006) << code;
  });
  RawPeer peer = silent.Accept();
  EXPECT_EQ(peer.Receive(3).substr(0, 2), "\x16\x03");
  root->Code("AClose", ".");
  peer.Close();
  client.join();
}

TEST(Tls, ServesEachClientWhileServersPauseAndTrustAndSessionsChange) {
  const char* const seconds = std::getenv("KYRNO_STRESS_SECONDS");
  const auto end =
      std::chrono::steady_clock::now() + std::chrono::seconds(seconds ? std::atoi(seconds) : 5);
  const auto isOver = [&] {
    return std::chrono::steady_clock::now() >= end || testing::Test::HasFailure();
  };
  const Pki pki;
  pki.Make("server");
  const std::string trusted = pki.Trust({"ca"});
  const TestRoot server;
  const TestRoot clients;
  clients.SetProp(".", "RootCertDir", trusted);
  // Of its own choice it would have another port behind each pause, and somebody else this one.
  const int port = FreePort();
  server.Server(AtPort(port, "blktext", "S", pki.As("server", {{"SSLValidation", kAskNobody}})));
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) threads.emplace_back(Echo, std::cref(server), std::cref(stop));

  std::atomic<int> visits{0};
  std::vector<std::thread> visitors;
  for (int i = 0; i < kThreads; ++i)
    visitors.emplace_back([&, i] {
      const char* const versions = i ? "NORMAL" : "NORMAL:-VERS-ALL:+VERS-TLS1.2";
      const Options options = AtPort(port, "blktext", "", Pki::Anonymous({{"Priority", versions}}));
      while (!isOver()) {
        const int number = visits++;
        Visit(clients, options, number);
        if (number % 8 == 0) Break(port, number % 16 == 0);
      }
    });
  while (!isOver()) {
    LeaveInHandshake();
    server.SetProp("S", "Pause", 2);
    clients.SetProp(".", "RootCertDir", trusted);
    clients.SetProp(".", "InvalidateCache", 10);
    EXPECT_TRUE(Eventually([&] { return server.Code("ASetProp", Args({"S", "Pause", 0})) == 0; }));
    EXPECT_GT(server.GetProp("S", "OwnCert").Count(), 0U);
    for (int seen = visits; visits < seen + 2 * kThreads && !isOver();) std::this_thread::yield();
  }
  for (std::thread& visitor : visitors) visitor.join();
  EXPECT_TRUE(Eventually([&] { return server.Children("S").empty(); }));
  stop = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_GT(visits, kThreads);
}

}  // namespace
}  // namespace support
