// http_upgrade_test.cpp - how a connection of mode "http" becomes a WebSocket, on both sides, by
// itself and by the application.
#include "tests/support/session.h"

namespace support {
namespace {

// The example of RFC 6455, section 1.2.
const std::string kRequest =
    "GET /chat HTTP/1.1\r\nHost: server.example.com\r\nUpgrade: websocket\r\n"
    "Connection: keep-alive, Upgrade\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
    "Sec-WebSocket-Version: 13\r\n\r\n";
const std::string kAnswer =
    "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-Websocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n";
const std::string kHello("\x81\x05Hello", 7);                                   // from a server
const std::string kMasked("\x81\x85\x37\xfa\x21\x3d\x7f\x9f\x4d\x51\x58", 11);  // from a client

constexpr int kAutomatic = 1;

/// The next event is this frame, whole.
void ExpectHello(const TestRoot& root, const std::string& name) {
  const Event event = root.Next(name);
  ASSERT_EQ(event.event, "WSReceive") << Tell(event);
  EXPECT_EQ(event.name, name);
  ASSERT_EQ(event.value.Count(), 3u);
  EXPECT_EQ(event.value.At(0).Bytes(), "Hello");
  EXPECT_EQ(event.value.At(1).Integer(), 1);
  EXPECT_EQ(event.value.At(2).Integer(), 1);
}

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  return text.replace(text.find(from), from.size(), to);
}

TEST(HttpUpgrade, OfAServerHappensByItselfAndKeepsWhatCameBehindTheRequest) {
  for (const std::size_t piece : {std::size_t{1}, std::size_t{50}, std::size_t{1000}}) {
    TestRoot root;
    const int port = root.Serve("http");
    root.SetProp("S", "WSFeatures", kAutomatic);
    RawPeer peer(port);
    const std::string name = root.Next("S").name;
    peer.SendApart(kRequest.substr(0, 100), piece);
    peer.Send(kRequest.substr(100) + kMasked + kMasked);
    EXPECT_EQ(root.Told("S"), "WSUpgrade " + name + " " + kRequest);
    EXPECT_EQ(peer.Receive(kAnswer.size()), kAnswer);
    ExpectHello(root, name);
    ExpectHello(root, name);
    root.Send(name, Args({"Hello", 1}));
    EXPECT_EQ(peer.Receive(kHello.size()), kHello);
  }
}

TEST(HttpUpgrade, WaitsForTheApplicationOfAServer) {
  Served t("http");
  t.peer.Send(kRequest + kMasked);
  EXPECT_EQ(t.root.Told("S"), "WSUpgradeReq " + t.name + " " + kRequest);
  EXPECT_EQ(t.root.Code("ASetProp", Args({t.name, "WSAccept", "GET / HTTP/1.1\r\n\r\n"})), 1140);
  t.root.SetProp(t.name, "WSAccept", Args({kRequest, "X-More: yes\r\n"}));
  const std::string answer = Replace(kAnswer, "\r\n\r\n", "\r\nX-More: yes\r\n\r\n");
  EXPECT_EQ(t.peer.Receive(answer.size()), answer);
  ExpectHello(t.root, t.name);
}

TEST(HttpUpgrade, IsNotAcceptedInTheMidstOfAMessage) {
  Served t("http");
  t.root.SetProp("S", "DecodeBuffers", 0);
  const std::string head = "POST / HTTP/1.1\r\nContent-Length: 20000\r\n\r\n";
  t.peer.SendApart(head + "half", 10);
  EXPECT_EQ(t.root.Told("S"), "HTTPHeader " + t.name + " " + head);
  EXPECT_EQ(t.root.Code("ASetProp", Args({t.name, "WSAccept", kRequest})), 1140);
  const std::string rest(19996, '.');
  t.peer.Send(rest);
  EXPECT_EQ(t.root.Told("S"), "HTTPBody " + t.name + " half" + rest);
}

TEST(HttpUpgrade, IsRefusedByAnyOtherAnswerAndHttpGoesOn) {
  Served t("http");
  const std::string next = "GET /next HTTP/1.1\r\n\r\n";
  t.peer.Send(kRequest + next);
  EXPECT_EQ(t.root.Told("S"), "WSUpgradeReq " + t.name + " " + kRequest);
  const std::string no = "HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n";
  t.root.Send(t.name, no);
  EXPECT_EQ(t.peer.Receive(no.size()), no);
  EXPECT_EQ(t.root.Told("S"), "HTTPHeader " + t.name + " " + next);

  // A peer that gives up while the application thinks is told of; what it sent is not lost.
  t.peer.Send(kRequest + next);
  EXPECT_EQ(t.root.Told("S"), "WSUpgradeReq " + t.name + " " + kRequest);
  t.peer.Close();
  EXPECT_EQ(t.root.Told("S", 2),
            (Lines{"HTTPHeader " + t.name + " " + next, "Error " + t.name + " 1119"}));
}

TEST(HttpUpgrade, OfAClientHappensByItselfOrByTheApplication) {
  for (const bool automatic : {true, false}) {
    Dialled t("http");
    if (automatic) t.root.SetProp("C", "WSFeatures", kAutomatic);
    t.root.SetProp("C", "WSUpgrade", Args({"/chat", "host:80", "Origin: x\r\n"}));
    const std::string head =
        "GET /chat HTTP/1.1\r\nHost: host:80\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: ";
    EXPECT_EQ(t.peer.Receive(head.size()), head);
    const std::string key = t.peer.Receive(24);
    const std::string tail = "\r\nOrigin: x\r\n\r\n";
    EXPECT_EQ(t.peer.Receive(tail.size()), tail);

    // A server of the library knows the answer to a key.
    TestRoot other;
    const int port = other.Serve("http");
    other.SetProp("S", "WSFeatures", kAutomatic);
    RawPeer asks(port);
    asks.Send(Replace(kRequest, "dGhlIHNhbXBsZSBub25jZQ==", key));
    EXPECT_EQ(other.Told("S", 2).size(), 2u);
    const std::string answer = asks.Receive(kAnswer.size());

    t.peer.Send(answer + kHello);
    if (automatic) {
      EXPECT_EQ(t.root.Told("C"), "WSUpgrade C " + answer);
    } else {
      EXPECT_EQ(t.root.Told("C"), "WSResponse C " + answer);
      t.root.SetProp("C", "WSAccept", answer);
    }
    ExpectHello(t.root, "C");
  }
}

TEST(HttpUpgrade, FailsForWhatTheProtocolDoesNotGrant) {
  const std::vector<std::pair<std::string, std::string>> faults{
      {"GET ", "POST "},
      {" HTTP/1.1", " HTTP/1.0"},
      {"Host:", "Hoist:"},
      {"Upgrade\r\n", "close\r\n"},
      {"dGhlIHNhbXBsZSBub25jZQ==", "dGhlIHNhbXBsZQ=="},
      {"Version: 13", "Version: 8"},
      {"GET /chat", "X GET /chat"},
  };
  for (const auto& [from, to] : faults) {
    Served t("http");
    t.root.SetProp(t.name, "WSFeatures", kAutomatic);
    t.peer.Send(Replace(kRequest, from, to));
    EXPECT_EQ(t.root.Told("S"), "Error " + t.name + " 1140") << to;
  }
  // A client that has not asked, and one that gets the answer to another key.
  for (const bool asks : {false, true}) {
    Dialled t("http");
    if (asks) t.root.SetProp("C", "WSUpgrade", Args({"/", "h"}));
    t.peer.Send(kAnswer);
    EXPECT_EQ(t.root.Told("C"), "Error C 1140");
  }
  // A body beside the request would be seen by a proxy, and not here.
  Served t("http");
  t.peer.Send(Replace(kRequest, "Host:", "Content-Length: 5\r\nHost:"));
  EXPECT_EQ(t.root.Told("S"), "Error " + t.name + " 1145");
}

TEST(HttpUpgrade, APeerThatFloodsHasToWaitForTheApplication) {
  constexpr std::size_t kMost = 64u << 20;
  const std::string request = "GET / HTTP/1.1\r\n\r\n";
  for (const bool upgraded : {false, true}) {
    Served t("http");
    t.root.SetProp(t.name, "WSFeatures", kAutomatic);
    if (upgraded) {
      t.peer.Send(kRequest);
      EXPECT_EQ(t.root.Next("S").event, "WSUpgrade");
    }
    EXPECT_LT(t.peer.SendUntilStuck(kMost, upgraded ? kMasked : request), kMost / 2);
    // What it has sent is not lost, and reading goes on.
    const std::string what = upgraded ? "WSReceive" : "HTTPHeader";
    for (int i = 0; i < 5000; ++i) ASSERT_EQ(t.root.Next("S").event, what) << i;
  }
}

TEST(HttpUpgrade, OfAThousandThatNobodyFinishesStopsNoOther) {
  AllowDescriptors();
  TestRoot root;
  const int port = root.Serve("http");
  std::vector<RawPeer> peers;
  for (int i = 0; i < 1000; ++i) {
    peers.emplace_back(port);
    // Half of them say all, and the application does not answer.
    peers.back().Send(kRequest.substr(0, i % 2 ? kRequest.size() : 100));
  }
  for (int i = 0; i < 1500; ++i) root.Next("S");
  RawPeer peer(port);
  const std::string name = root.Next("S").name;
  peer.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(root.Told(name), "HTTPHeader " + name + " GET / HTTP/1.1\r\n\r\n");
}

}  // namespace
}  // namespace support
