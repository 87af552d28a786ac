// link_http_test.cpp - pages and the session over one port, to a raw client.
#include <algorithm>
#include <random>

#include "tests/support/link.h"

namespace support {
namespace {

constexpr std::size_t kMost = 3 << 20;

/// A link with the direction http whose pages lie in a folder of the test.
struct Pages {
  Pages() {
    EXPECT_EQ(link.Enable(1), 0);
    port = link.Port("HttpServer");
  }

  TempFolder folder;
  const std::string index = folder.File("index.html", "<p>hello</p>");
  const std::string script = folder.File("large.js", Pattern(1 << 20));
  Link link{{{"ZEPH\\INIT", "http:127.0.0.1:0"}},
            "[Zeph]\nMaxBlockSize=" + std::to_string(kMost) + "\nHttpDir=" + folder.path + "\n"};
  int port = 0;
};

std::string Request(const std::string& line, const std::string& body = "") {
  const std::string length = "Content-Length: " + std::to_string(body.size()) + "\r\n";
  return line + " HTTP/1.1\r\nHost: h\r\n" + (body.empty() ? "" : length) + "\r\n" + body;
}

/// "200 text/html": status and type of the next answer, and its body.
struct Answer {
  std::string head;
  std::string body;
};
Answer ReadAnswer(RawPeer& peer, bool withBody = true) {
  std::string head;
  while (!head.ends_with("\r\n\r\n")) head += peer.Receive(1);
  const auto field = [&](const std::string& name) {
    const std::size_t at = head.find("\r\n" + name + ": ") + name.size() + 4;
    return head.substr(at, head.find('\r', at) - at);
  };
  return {head.substr(9, 3) + " " + field("Content-Type"),
          peer.Receive(withBody ? std::stoul(field("Content-Length")) : 0)};
}

void ExpectPage(RawPeer& peer) {
  peer.Send(Request("GET /"));
  const Answer answer = ReadAnswer(peer);
  EXPECT_EQ(answer.head, "200 text/html");
  EXPECT_EQ(answer.body, "<p>hello</p>");
}

TEST(LinkPages, AreServedBesideASession) {
  Pages t;
  EXPECT_EQ(t.link.State(), Zeph2HttpSrv);
  RawPeer browser(t.port);
  ExpectPage(browser);
  Remote remote = Remote::OverWebSocket(t.port);
  remote.Shake();
  ExpectPage(browser);
  RawPeer other(t.port);
  ExpectPage(other);
  remote.Say("in");
  EXPECT_EQ(t.link.Told(), "block in");
  EXPECT_EQ(t.link.State(), Zeph2Connected);
  EXPECT_THROW(Remote::OverWebSocket(t.port).Hear(), std::runtime_error) << "there is one already";
  EXPECT_EQ(t.link.Send("out"), 0);
  EXPECT_EQ(remote.Hear(), "out");
  remote.peer.Close();
  EXPECT_EQ(t.link.Told(), "gone");
  EXPECT_TRUE(t.link.Reaches(Zeph2HttpSrv));
  ExpectPage(browser);
  Remote::OverWebSocket(t.port).Shake();
}

TEST(LinkPages, AnswerEachRequestOnceAndInOrder) {
  Pages t;
  const struct {
    std::string request;
    const char* head;
    std::size_t size;  // of the body; 0 for that of a failure
  } rows[] = {
      {Request("GET /large.js"), "200 text/javascript", 1 << 20},
      {Request("GET /none.png"), "404 image/png", 0},
      {Request("HEAD /"), "404 text/html", 0},
      {Request("POST /", "with a body: GET / HTTP/1.1\r\n\r\n"), "404 text/html", 0},
      {Request("GET /", "with a body"), "200 text/html", 12},
      {Request("POST /", std::string(100000, 'x')), "404 text/html", 0},
      {Request("GET /../" + t.folder.path.substr(5) + "/index.html"), "404 text/html", 0},
      {Request("GET http://h:1/large.js"), "200 text/javascript", 1 << 20},
      {Request("GET /index.html"), "200 text/html", 12},
  };
  std::string together;
  for (const auto& row : rows) together += row.request;
  RawPeer browser(t.port);
  std::thread sends([&] { browser.Send(together); });
  for (const auto& row : rows) {
    const bool withBody = !row.request.starts_with("HEAD");
    const Answer answer = ReadAnswer(browser, withBody);
    const std::string line = row.request.substr(0, row.request.find('\r'));
    EXPECT_EQ(answer.head, row.head) << line;
    if (row.size != 0) {
      EXPECT_EQ(answer.body.size(), row.size) << line;
    } else if (withBody) {
      EXPECT_EQ(answer.body.find("<h1>404 File not found</h1>"), 0U) << line;
    }
  }
  sends.join();
  browser.EndSending();
  EXPECT_EQ(browser.ReceiveAll(), "");
  EXPECT_EQ(t.link.Late(), 0);
}

TEST(LinkPages, HoldNoMoreOfAPeerThanABlock) {
  Pages t;
  RawPeer greedy(t.port);
  greedy.Send("POST / HTTP/1.1\r\nHost: h\r\nContent-Length: 1000000000\r\n\r\n");
  EXPECT_EQ(greedy.ReceiveAll(), "");
  // Requests whose answers nobody reads stay in the kernel.
  RawPeer browser(t.port);
  browser.Send(Request("GET /large.js"));
  const std::string request = Request("GET /large.js HTTP/1.1\r\nX: " + std::string(1 << 20, 'x'));
  EXPECT_LT(browser.SendUntilStuck(256U << 20, request), 64U << 20);
}

/// The message in fragments of up to `most` bytes, empty ones and pings among them.
std::string Fragmented(std::mt19937& random, bool isText, const std::string& message,
                       std::size_t most) {
  std::string wire;
  std::size_t at = 0;
  for (bool first = true, fin = false; !fin; first = false) {
    const std::size_t n = std::min<std::size_t>(random() % (most + 1), message.size() - at);
    fin = at + n == message.size() && random() % 2 == 0;
    const int opcode = !first ? 0 : isText ? 1 : 2;
    wire += WebFrame(static_cast<unsigned char>(fin << 7 | opcode), message.substr(at, n));
    at += n;
    if (random() % 64 == 0) wire += WebFrame(0x89, "ping");
  }
  return wire;
}

TEST(LinkPages, CarryTheSessionAsWholeMessages) {
  Pages t;
  std::mt19937 random(1);
  std::string text;
  while (text.size() < 3000) text += "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80";
  const std::string euro = "\xe2\x82\xac";
  const std::string large(1 << 20, 'l');
  const struct {
    const char* what;
    std::string frames;
    std::string told;
    std::size_t piece = 1 << 22;
  } rows[] = {
      {"fragments", WebFrame(0x01, "a") + WebFrame(0x00, "") + WebFrame(0x80, "b"), "block ab"},
      {"inside a character", WebFrame(0x01, euro.substr(0, 1)) + WebFrame(0x80, euro.substr(1)),
       "block " + euro},
      {"a ping between", WebFrame(0x01, "a") + WebFrame(0x89, "") + WebFrame(0x80, "b"),
       "block ab"},
      {"byte by byte", WebFrame(0x81, "bytes"), "block bytes", 1},
      {"empty", WebFrame(0x81, ""), "block "},
      {"binary", WebFrame(0x82, "\xff\xfe"), "block \xff\xfe"},
      {"one byte", Fragmented(random, true, "a", 1), "block a", 1},
      {"text in pieces", Fragmented(random, true, text, 200), "block " + text, 777},
      {"text in small pieces", Fragmented(random, true, text, 3), "block " + text, 777},
      {"bytes in small pieces", Fragmented(random, false, Pattern(70000), 5),
       "block " + Pattern(70000)},
      {"much in small pieces", Fragmented(random, false, Pattern(1 << 20), 64),
       "block " + Pattern(1 << 20)},
      {"large", WebFrame(0x01, large) + WebFrame(0x80, large), "block " + large + large},
      {"the largest", WebFrame(0x81, std::string(kMost - 16, 'm')),
       "block " + std::string(kMost - 16, 'm')},
      {"too large",
       WebFrame(0x01, large) + WebFrame(0x00, large) + WebFrame(0x00, large) + WebFrame(0x80, "m"),
       "gone"},
      {"too large at once", WebFrame(0x02, "a") + WebFrame(0x80, large + large + large), "gone"},
      {"cut in the second fragment",
       WebFrame(0x01, euro.substr(0, 2)) + WebFrame(0x80, "(") + WebFrame(0x81, "x"), "gone"},
      {"another message among them", WebFrame(0x01, "a") + WebFrame(0x81, "b"), "gone"},
      {"a ping that is a fragment", WebFrame(0x01, "a") + WebFrame(0x09, ""), "gone"},
      {"no UTF-8", WebFrame(0x81, "\xc3("), "gone"},
      {"half a character", WebFrame(0x81, euro.substr(0, 2)), "gone"},
      {"a continuation of nothing", WebFrame(0x80, "x"), "gone"},
      {"a close", WebFrame(0x88, "\x03\xe8"), "gone"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_TRUE(t.link.Reaches(Zeph2HttpSrv));
    Remote remote = Remote::OverWebSocket(t.port);
    remote.Shake();
    remote.peer.SendApart(row.frames, row.piece);
    EXPECT_EQ(t.link.Told(), row.told);
    if (row.told == "gone") continue;
    remote.peer.Close();
    EXPECT_EQ(t.link.Told(), "gone");
  }
  EXPECT_TRUE(t.link.Reaches(Zeph2HttpSrv));
  Remote remote = Remote::OverWebSocket(t.port);
  remote.Shake();
  EXPECT_NE(t.link.Send("a\xc3"), 0) << "a browser would refuse it";
  EXPECT_EQ(t.link.Send(large), 0);
  EXPECT_EQ(remote.Hear(), large);
  // More messages than may wait, one after the other.
  std::string many;
  for (int i = 0; i < 3000; ++i) many += WebFrame(0x01, "a") + WebFrame(0x80, "b");
  remote.peer.Send(many);
  for (int i = 0; i < 3000; ++i) ASSERT_EQ(t.link.Told(), "block ab") << i;
}

TEST(LinkPages, DropAWebSocketWhoseHandshakeBreaksAndTakeTheNext) {
  Pages t;
  for (const char* says : {"SupportedProtocols=1", "", "nonsense"}) {
    EXPECT_TRUE(t.link.Reaches(Zeph2HttpSrv));
    Remote remote = Remote::OverWebSocket(t.port);
    EXPECT_EQ(remote.Hear(), "SupportedProtocols=2");
    remote.Say(says);
    remote.peer.ReceiveAll();
  }
  EXPECT_TRUE(t.link.Reaches(Zeph2HttpSrv));
  RawPeer half(t.port);
  half.Send(kWebSocketRequest.substr(0, 100));
  RawPeer(t.port).Reset();
  Remote::OverWebSocket(t.port).Shake();
}

TEST(LinkPages, GoWithTheLinkAndComeBackWithIt) {
  Pages t;
  Remote remote = Remote::OverWebSocket(t.port);
  remote.Shake();
  RawPeer browser(t.port);
  ExpectPage(browser);
  EXPECT_EQ(t.link.Enable(0), 0);
  EXPECT_EQ(t.link.State(), Zeph2Idle);
  remote.peer.ReceiveAll();
  EXPECT_EQ(browser.ReceiveAll(), "");
  EXPECT_EQ(t.link.Enable(1), 0);
  RawPeer next(t.link.Port("HttpServer"));
  ExpectPage(next);
  EXPECT_EQ(t.link.Late(), 0);
}

TEST(LinkPages, AreForThisMachineAloneWhereNoAddressIsGiven) {
  Link link({{"ZEPH\\INIT", "http::0"}}, "");
  ASSERT_EQ(link.Enable(1), 0);
  for (const bool v6 : {false, true}) {
    RawPeer peer = v6 ? PeerOverIpv6(link.Port("HttpServer")) : RawPeer(link.Port("HttpServer4"));
    peer.Send(Request("GET /"));
    EXPECT_EQ(ReadAnswer(peer).head, "404 text/html") << "its own folder is not there";
  }
}

}  // namespace
}  // namespace support
