// web_test.cpp - HTTP connections that come, are upgraded or refused, and break, with several
// threads that answer. KYRNO_STRESS_SECONDS says for how long; five if it is not set.
#include <atomic>
#include <cstdlib>
#include <system_error>
#include <thread>

#include "tests/support/session.h"

namespace support {
namespace {

constexpr int kThreads = 3;  // on each side

const std::string kUpgrade =
    " HTTP/1.1\r\nHost: h\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
const std::string kHello("\x81\x85\0\0\0\0Hello", 11);  // from a client, with a mask of zeros
const std::string kEcho("\x81\x05Hello", 7);

std::string Answer(const std::string& body) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}
std::string Get(int number) { return "GET /" + std::to_string(number) + " HTTP/1.1\r\n\r\n"; }

/// The server's application: what it answers tells what it was asked.
void Serve(const TestRoot& root, const std::atomic<bool>& stop) {
  while (!stop) {
    const Event event = root.Wait("S", 50);
    if (event.code != 0) continue;
    const bool isText = event.event.starts_with("HTTP") || event.event == "WSUpgradeReq";
    const std::string text = isText ? event.value.Bytes() : "";
    // A peer may be gone by now; what it still gets is the peers' to judge.
    if (event.event == "HTTPHeader" && text.starts_with("GET"))
      root.Code("ASendZ", Args({event.name, 0}), Answer(text));
    if (event.event == "HTTPTrailer") root.Code("ASendZ", Args({event.name, 0}), Answer(text));
    if (event.event == "WSUpgradeReq" && text.starts_with("GET /yes"))
      root.Code("ASetProp", Args({event.name, "WSAccept", text}));
    if (event.event == "WSUpgradeReq" && text.starts_with("GET /no"))
      root.Code("ASendZ", Args({event.name, 0}), Answer("no"));
    if (event.event == "WSReceive")
      root.Code("ASendZ", Args({event.name, 0}), Args({event.value.At(0), 1}));
  }
}

void Expect(RawPeer& peer, const std::string& answer) {
  ASSERT_EQ(peer.Receive(answer.size()), answer);
}

/// One connection: requests one by one, then an upgrade with something right behind it.
void Visit(int port, int number) {
  RawPeer peer(port);
  for (int i = 0; i < 3; ++i) {
    peer.Send(Get(number + i));
    Expect(peer, Answer(Get(number + i)));
  }
  peer.Send("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nwith\r\n");
  if (number % 5 == 0) return number % 2 ? peer.Reset() : peer.Close();
  peer.Send("5\r\nparts\r\n0\r\nend: " + std::to_string(number) + "\r\n\r\n");
  Expect(peer, Answer("0\r\nend: " + std::to_string(number) + "\r\n\r\n"));

  if (number % 2) {
    peer.Send("GET /no" + kUpgrade + Get(number));
    Expect(peer, Answer("no"));
    Expect(peer, Answer(Get(number)));
    return;
  }
  peer.Send("GET /yes" + kUpgrade + kHello + kHello);
  const std::string head = "HTTP/1.1 101 ";
  Expect(peer, head);
  std::string rest;
  while (!rest.ends_with("\r\n\r\n")) rest += peer.Receive(1);
  Expect(peer, kEcho + kEcho);
  if (number % 3 == 0) peer.Reset();
}

TEST(Web, AnswersEachRequestOnceWhileConnectionsAreUpgradedAndBreak) {
  AllowDescriptors();
  const char* const seconds = std::getenv("KYRNO_STRESS_SECONDS");
  const auto end =
      std::chrono::steady_clock::now() + std::chrono::seconds(seconds ? std::atoi(seconds) : 5);
  const TestRoot root;
  const int port = root.Serve("http");
  std::atomic<bool> stop{false};
  std::vector<std::thread> servers;
  for (int i = 0; i < kThreads; ++i) servers.emplace_back(Serve, std::cref(root), std::cref(stop));

  std::atomic<int> visits{0};
  std::vector<std::thread> peers;
  for (int i = 0; i < kThreads; ++i)
    peers.emplace_back([&] {
      while (std::chrono::steady_clock::now() < end && !testing::Test::HasFailure()) {
        try {
          Visit(port, visits++);
        } catch (const std::exception& error) {
          ADD_FAILURE() << error.what();
        }
      }
    });
  for (std::thread& peer : peers) peer.join();
  EXPECT_TRUE(Eventually([&] { return root.Children("S").empty(); }));
  stop = true;
  for (std::thread& server : servers) server.join();
  EXPECT_GT(visits, kThreads);
}

}  // namespace
}  // namespace support
