// websocket_wire_test.cpp - RFC 6455 on the wire, in both modes: what a peer may send, in pieces of
// any size, and what it gets.
#include <sys/ioctl.h>

#include <map>
#include <random>
#include <system_error>
#include <thread>

#include "tests/support/session.h"

namespace support {
namespace {

enum Mode { kLax, kStrict };

const std::string kRequest =
    "GET / HTTP/1.1\r\nHost: h\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
constexpr std::size_t kAnswerSize = 129;
constexpr std::size_t kKeySize = 4;
constexpr char kKey[] = "\x12\x34\x56\x78";

std::string Masked(std::string payload, const std::string& key) {
  for (std::size_t i = 0; i < payload.size(); ++i)
    payload[i] = static_cast<char>(payload[i] ^ key[i % kKeySize]);
  return payload;
}

std::string Number(std::uint64_t value, int bytes) {
  std::string text;
  while (bytes-- > 0) text += static_cast<char>(value >> 8 * bytes);
  return text;
}

/// A frame's head; form: bytes of the extended length, -1 for the shortest.
std::string Head(int first, std::uint64_t length, bool masked, int form = -1) {
  if (form < 0) form = length < 126 ? 0 : length < 65536 ? 2 : 8;
  const std::uint64_t code = form == 0 ? length : form == 2 ? 126 : 127;
  return Number(static_cast<unsigned>(first), 1) + Number(code | (masked ? 0x80 : 0), 1) +
         Number(length, form) + (masked ? std::string(kKey, kKeySize) : "");
}

/// A frame as a client sends it, and as a server does.
std::string In(int first, const std::string& payload, int form = -1) {
  return Head(first, payload.size(), true, form) + Masked(payload, kKey);
}
std::string Plain(int first, const std::string& payload) {
  return Head(first, payload.size(), false) + payload;
}
std::string CloseWith(int code, const std::string& reason = "") {
  return Number(static_cast<unsigned>(code), 2) + reason;
}

/// "81 Hello": one frame of an endpoint, its first byte and its payload, of a close frame the code.
struct Read {
  std::string text;
  std::string payload;
  bool masked;
};
Read ReadFrame(RawPeer& peer) {
  const std::string head = peer.Receive(2);
  const auto first = static_cast<unsigned char>(head[0]);
  std::size_t length = head[1] & 0x7F;
  std::string extended;
  if (length >= 126) extended = peer.Receive(length == 126 ? 2 : 8);
  if (!extended.empty()) length = 0;
  for (const char c : extended) length = length << 8 | static_cast<unsigned char>(c);
  Read frame{"", "", (head[1] & 0x80) != 0};
  const std::string key = frame.masked ? peer.Receive(kKeySize) : std::string(kKeySize, '\0');
  frame.payload = Masked(peer.Receive(length), key);
  char hex[4];
  snprintf(hex, sizeof hex, "%02x ", first);
  frame.text = hex + frame.payload;
  if (first == 0x88 && length >= 2)
    frame.text = hex +
                 std::to_string(static_cast<unsigned char>(frame.payload[0]) << 8 |
                                static_cast<unsigned char>(frame.payload[1])) +
                 frame.payload.substr(2);
  return frame;
}

/// Characters of any width as UTF-8.
std::string Utf8(const ZValue& text) {
  std::string out;
  const std::size_t width = text.Type() == ZType::C4 ? 4 : text.Type() == ZType::C2 ? 2 : 1;
  for (std::size_t i = 0; i < text.Data().size(); i += width) {
    unsigned c = 0;
    memcpy(&c, text.Data().data() + i, width);
    if (c < 0x80) {
      out += static_cast<char>(c);
      continue;
    }
    const int more = c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
    out += static_cast<char>((more == 1 ? 0xC0 : more == 2 ? 0xE0 : 0xF0) | c >> 6 * more);
    for (int k = more - 1; k >= 0; --k) out += static_cast<char>(0x80 | (c >> 6 * k & 0x3F));
  }
  return out;
}

/// "text Hello 1 1": kind, data, Fin and Opcode of a frame; "Error 1130" of another event.
std::string Line(const Event& event) {
  if (event.code != 0) return "code " + std::to_string(event.code);
  if (event.event != "WSReceive") return event.event + " " + std::to_string(event.value.Integer());
  const ZValue data = event.value.At(0);
  const bool bytes = data.Type() == ZType::I1;
  return (bytes ? "bytes " + data.Bytes() : "text " + Utf8(data)) + " " +
         std::to_string(event.value.At(1).Integer()) + " " +
         std::to_string(event.value.At(2).Integer());
}

/// A server's connection after its upgrade; `masks`: the peer plays the client of a server.
struct Upgraded : Served {
  Upgraded(Mode mode, const Options& more = {}) : Served("http", more) {
    root.SetProp(name, "WSFeatures", mode == kStrict ? 5 : 1);
    peer.Send(kRequest);
    EXPECT_EQ(root.Next(name).event, "WSUpgrade");
    peer.Receive(kAnswerSize);
  }
  std::string Out() { return ReadFrame(peer).text; }
  std::string Told() { return Line(root.Next(name)); }
};

/// A client after its upgrade. A server of the library answers its key for the test.
struct UpgradedClient : Dialled {
  explicit UpgradedClient(Mode mode) : Dialled("http") {
    root.SetProp("C", "WSFeatures", mode == kStrict ? 5 : 1);
    root.SetProp("C", "WSUpgrade", Args({"/", "h"}));
    std::string request;
    while (request.find("\r\n\r\n") == std::string::npos) request += peer.Receive(1);
    TestRoot other;
    const int port = other.Serve("http");
    other.SetProp("S", "WSFeatures", 1);
    RawPeer asks(port);
    asks.Send(request);
    EXPECT_EQ(other.Told("S", 2).size(), 2u);
    peer.Send(asks.Receive(kAnswerSize));
    EXPECT_EQ(root.Next("C").event, "WSUpgrade");
  }
  std::string Out() { return ReadFrame(peer).text; }
  std::string Told() { return Line(root.Next("C")); }
};

/// What becomes of bytes, as lines: events, then "out" frames up to the pong that answers a last
/// ping, or all up to the end of the connection.
struct Case {
  const char* what;
  std::string bytes;
  Lines lax;
  Lines strict;
};

/// All has been taken that was sent to this end; or it is closed.
bool HasRead(int end) {
  int left = 0;
  return ioctl(end, FIONREAD, &left) != 0 || left == 0;
}

bool Ends(const std::string& line) { return line.starts_with("Error") || line.starts_with("code"); }

const std::string kProtocol = std::string("out 88 1002Protocol Error") + '\0';
const Lines kNot{"-"};  // not run in this mode
const std::string kGoodBye = "out 88 1000Kyrno Over and Out";
const Lines kRefused{"Error 1130", kProtocol};
const Lines kBadText{"Error 1143", "out 88 1007Invalid UTF-8"};
Lines After(Lines first, const Lines& then) {
  first.insert(first.end(), then.begin(), then.end());
  return first;
}

template <class ENDPOINT>
Lines Outcome(ENDPOINT& t, const std::string& bytes, std::size_t piece, const Lines& expected,
              const std::string& marker) {
  bool ends = false;
  for (const std::string& line : expected) ends = ends || Ends(line);
  std::mt19937 random(static_cast<unsigned>(bytes.size()));
  std::string rest = bytes + (ends ? "" : marker);
  const int there = t.peer.OtherEnd();
  while (piece != 0 && !rest.empty()) {
    const std::size_t n = piece == 1 ? 1 : 1 + random() % 7;
    t.peer.Send(rest.substr(0, n));
    rest.erase(0, std::min(n, rest.size()));
    if (!Eventually([&] { return HasRead(there); })) throw std::runtime_error("nobody reads");
  }
  if (!rest.empty()) t.peer.Send(rest);

  Lines lines;
  for (const std::string& line : expected)
    if (!line.starts_with("out")) lines.push_back(t.Told());
  for (std::string out; out != "8a the end";) {
    try {
      out = t.Out();
    } catch (const std::system_error& error) {
      const bool reset = error.code() == std::errc::connection_reset;
      if (!ends || !reset) lines.push_back(reset ? "reset" : "still open");
      break;
    } catch (const std::runtime_error&) {
      if (!ends) lines.push_back("closed");
      break;
    }
    if (out != "8a the end") lines.push_back("out " + out);
  }
  return lines;
}

template <class ENDPOINT>
void RunCases(const std::vector<Case>& cases, const std::string& marker) {
  for (const Case& c : cases)
    for (const Mode mode : {kLax, kStrict})
      for (const std::size_t piece : {1u, 2u, 0u}) {
        const Lines& expected = mode == kStrict ? c.strict : c.lax;
        if (expected == kNot) continue;
        ENDPOINT t(mode);
        EXPECT_EQ(Outcome(t, c.bytes, piece, expected, marker), expected)
            << c.what << (mode == kStrict ? " strict" : "") << ", pieces " << piece;
      }
}

TEST(WebSocketWire, AServerTakesFramesAsTheRfcSaysOrAsTheyCome) {
  const Lines hello{"text Hello 1 1"};
  const std::string big = Head(0x82, 131073, true);
  std::vector<Case> cases{
      {"text", In(0x81, "Hello"), hello, hello},
      {"no bytes",
       In(0x81, "") + In(0x82, ""),
       {"text  1 1", "bytes  1 2"},
       {"text  1 1", "bytes  1 2"}},
      {"bytes", In(0x82, "\x01\xff"), {"bytes \x01\xff 1 2"}, {"bytes \x01\xff 1 2"}},
      {"fragments",
       In(1, "Hel") + In(0, "l") + In(0x80, "o"),
       {"text Hel 0 1", "text l 0 0", "text o 1 0"},
       {"text Hel 0 1", "text l 0 0", "text o 1 0"}},
      {"a ping among fragments",
       In(1, "Hel") + In(0x89, "hi") + In(0x80, "lo"),
       {"text Hel 0 1", "bytes lo 1 0", "out 8a hi"},
       {"text Hel 0 1", "text lo 1 0", "out 8a hi"}},
      {"pings and a pong",
       In(0x89, "") + In(0x8a, "x") + In(0x89, std::string(125, 'p')),
       {"out 8a ", "out 8a " + std::string(125, 'p')},
       {"out 8a ", "out 8a " + std::string(125, 'p')}},
      {"a character in two frames",
       In(1, "\xe2\x82") + In(0x80, "\xac"),
       kNot,
       {"text  0 1", "text \xe2\x82\xac 1 0"}},
      {"a character in four frames",
       In(1, "a\xf0") + In(0, "\x9f") + In(0, "\x98") + In(0x80, "\x80z"),
       kNot,
       {"text a 0 1", "text  0 0", "text  0 0", "text \xf0\x9f\x98\x80z 1 0"}},
      {"half a character", In(1, "\xe2\x82"), kBadText, {"text  0 1"}},
      {"a ping that is a fragment", In(9, ""), {"out 8a "}, kRefused},
      {"a continuation of nothing", In(0x80, ""), {"bytes  1 0"}, kRefused},
      {"a continuation behind a whole message",
       In(0x81, "Hello") + In(0x80, ""),
       {"text Hello 1 1", "text  1 0"},
       After(hello, kRefused)},
      {"a message among fragments",
       In(1, "Hel") + In(0x81, ""),
       {"text Hel 0 1", "text  1 1"},
       After({"text Hel 0 1"}, kRefused)},
      {"no mask", Head(0x81, 0, false), {"text  1 1"}, kRefused},
      {"a length of 0 in two bytes", In(0x81, "", 2), {"text  1 1"}, kRefused},
      {"a length of 0 in eight bytes", In(0x81, "", 8), {"text  1 1"}, kRefused},
      {"a length of 2^63",
       Head(0x82, 1ull << 63, true),
       {"Error 1135"},
       {"Error 1135", "out 88 1009Message Too Big"}},
      {"one byte too many", big, {"Error 1135"}, {"Error 1135", "out 88 1009Message Too Big"}},
      {"a large control frame", Head(0x89, 126, true), kNot, kRefused},
      {"what came before a mistake",
       In(0x81, "Hello") + Head(0xF1, 0, true),
       {"text Hello 1 1", "text  1 1"},
       After(hello, kRefused)},
  };
  for (const int rsv : {0x10, 0x20, 0x40})
    cases.push_back({"a reserved bit", Head(0x81 | rsv, 0, true), {"text  1 1"}, kRefused});
  for (const int opcode : {3, 4, 5, 6, 7, 11, 12, 13, 14, 15})
    cases.push_back({"a reserved opcode",
                     Head(0x80 | opcode, 0, true),
                     {"bytes  1 " + std::to_string(opcode)},
                     kRefused});
  RunCases<Upgraded>(cases, In(0x89, "the end"));

  // Deliberate: without WSStrict the application hears nothing of this one.
  Upgraded t(kLax);
  t.peer.Send(In(0x89, std::string(126, 'p')) + In(0x81, "more"));
  EXPECT_EQ("out " + t.Out(), kProtocol);
  EXPECT_EQ(t.peer.ReceiveAll(), "");
  t.peer.Close();
  EXPECT_EQ(t.Told(), "code 1010");
}

TEST(WebSocketWire, AClientTakesFramesAsTheRfcSaysOrAsTheyCome) {
  const std::vector<Case> cases{
      {"text", Plain(0x81, "Hello"), {"text Hello 1 1"}, {"text Hello 1 1"}},
      {"a mask, which stays on", In(0x82, "x"), {"bytes " + Masked("x", kKey) + " 1 2"}, kRefused},
      {"a reserved bit", Plain(0xC1, ""), {"text  1 1"}, kRefused},
      {"a character in two frames",
       Plain(1, "\xc3") + Plain(0x80, "\xa9"),
       kNot,
       {"text  0 1", "text \xc3\xa9 1 0"}},
  };
  // What a mask hides behind the head is not read where the mask is refused.
  std::vector<Case> strict = cases;
  strict[1].bytes = Head(0x82, 0, true);
  strict[1].lax = {"bytes  1 2"};
  RunCases<UpgradedClient>(strict, Plain(0x89, "the end"));
  UpgradedClient lax(kLax);
  EXPECT_EQ(Outcome(lax, cases[1].bytes, 0, cases[1].lax, Plain(0x89, "the end")), cases[1].lax);
}

TEST(WebSocketWire, TextIsUtf8AndNothingElse) {
  const std::vector<std::string> good{
      std::string("a\0b\0\0", 5),
      "\xc2\x80\xdf\xbf",
      "\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80\xef\xbf\xbf",
      "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf",
      std::string("z\0\xe2\x82\xac\0\xf0\x9f\x98\x80", 10),
      "\xce\xba\xe1\xbd\xb9\xcf\x83\xce\xbc\xce\xb5",
  };
  // The last byte is the first that cannot be.
  const std::vector<std::string> bad{
      "\x80",         "a\xbf",
      "\xc0",         "\xc1",
      "\xc2\x41",     "\xe0\x9f",
      "\xe2\x28",     "\xe2\x82\xc0",
      "\xf0\x8f",     "\xf0\x9f\x98\x41",
      "\xf4\x90",     "\xf5",
      "\xf8",         "\xff",
      "ok\xfe",       "\xed\xa0",
      "\xef\xbf\xc3", std::string("\0\xff", 2),
  };
  std::vector<Case> cases;
  for (const std::string& text : good)
    cases.push_back({"good", In(0x81, text), {"text " + text + " 1 1"}, {"text " + text + " 1 1"}});
  for (const std::string& text : bad) cases.push_back({"bad", In(0x81, text), kBadText, kBadText});
  cases.push_back({"cut", In(0x81, "ab\xe2\x82"), kBadText, kBadText});
  cases.push_back({"cut in the last fragment", In(1, "ab") + In(0x80, "\xe2\x82"),
                   After({"text ab 0 1"}, kBadText), After({"text ab 0 1"}, kBadText)});
  cases.push_back({"half of a pair", In(0x81, "\xed\xa0\x80"), {"text \xed\xa0\x80 1 1"}, kNot});
  RunCases<Upgraded>(cases, In(0x89, "the end"));

  // As soon as it is certain, the rest of the frame is not waited for.
  for (const std::string& text : bad) {
    Upgraded t(kStrict);
    EXPECT_EQ(Outcome(t, Head(0x81, 100, true) + Masked(text, kKey), 1, kBadText, ""), kBadText);
  }
}

TEST(WebSocketWire, APeersCloseIsAnsweredByTheCodeThatItDeserves) {
  std::map<int, std::string> answers;  // strict; those of all others are 1002
  for (const int code : {1000, 1001, 1002, 1003, 1007, 1008, 1009, 1010, 1011, 1012, 1013, 1014,
                         3000, 3999, 4000, 4999})
    answers[code] = "out 88 " + std::to_string(code);
  for (const int code : {0, 999, 1004, 1005, 1006, 1015, 1016, 1100, 2000, 2999, 5000, 65535})
    answers[code] = kProtocol;
  std::vector<Case> cases{
      {"nothing", In(0x88, ""), {kGoodBye}, {"Error 1119", "out 88 "}},
      {"half a code", In(0x88, "\x03"), {kGoodBye}, kRefused},
      {"a reason",
       In(0x88, CloseWith(1001,
                          "na\xc3\xaf"
                          "ve")),
       {kGoodBye},
       {"Error 1119", "out 88 1001"}},
      {"a bad reason", In(0x88, CloseWith(1000, "\xc3")), {kGoodBye}, kBadText},
      {"what came before",
       In(0x82, "b") + In(0x88, CloseWith(1000)),
       {"bytes b 1 2", kGoodBye},
       {"bytes b 1 2", "Error 1119", "out 88 1000"}},
  };
  for (const auto& [code, answer] : answers)
    cases.push_back({"a code",
                     In(0x88, CloseWith(code)),
                     {kGoodBye},
                     {answer == kProtocol ? "Error 1130" : "Error 1119", answer}});
  RunCases<Upgraded>(cases, In(0x89, "the end"));
}

TEST(WebSocketWire, ACloseOfThisSideIsOverWithTheAnswer) {
  for (const Mode mode : {kLax, kStrict}) {
    Upgraded t(mode);
    EXPECT_EQ(t.root.Code("AClose", t.name), 0);
    EXPECT_EQ("out " + t.Out(), kGoodBye);
    // What is still to come is delivered; this side says no more when it is strict.
    t.peer.Send(In(0x81, "late"));
    EXPECT_EQ(t.Told(), "text late 1 1");
    EXPECT_EQ(t.root.Code("ASendZ", t.name, Args({"x", 1})), mode == kStrict ? 1119 : 0);
    if (mode == kLax) {
      EXPECT_EQ(t.Out(), "81 x");
    }
    t.peer.Send(In(0x89, "p"));
    EXPECT_EQ(t.Out(), "8a p");
    t.peer.Send(In(0x88, CloseWith(1000)));
    EXPECT_EQ(t.peer.ReceiveAll(), "");
    EXPECT_EQ(t.Told(), "code 1010");
  }
  // A client leaves the end of the connection to the server.
  UpgradedClient t(kStrict);
  EXPECT_EQ(t.root.Code("AClose", "C"), 0);
  EXPECT_EQ("out " + t.Out(), kGoodBye);
  t.peer.Send(Plain(0x88, CloseWith(1000)) + "garbage");
  EXPECT_TRUE(Eventually([&] { return t.root.Children("C").empty(); }));
  EXPECT_EQ(t.root.State("C"), 4);
  t.peer.EndSending();
  EXPECT_EQ(t.peer.ReceiveAll(), "");
  EXPECT_EQ(t.Told(), "code 1010");
  // ... and when it was the server that began.
  UpgradedClient other(kStrict);
  other.peer.Send(Plain(0x88, CloseWith(4000)));
  EXPECT_EQ(other.Out(), "88 4000");
  other.peer.Close();
  EXPECT_EQ(other.Told(), "Error 1119");
}

TEST(WebSocketWire, WhatTheApplicationSendsIsOneFrame) {
  const ZValue bytes = ZValue::Vector<signed char>(ZType::I1, {1, -1});
  const ZValue wide = ZValue::Vector<std::uint16_t>(ZType::C2, {0x20AC, 0, 'a'});
  const ZValue latin("\xe9");  // U+00E9
  const std::string nul = std::string(
      "\xe2\x82\xac\0"
      "a",
      5);
  const struct {
    const char* what;
    ZValue value;
    std::string lax;  // the frame, or the code
    std::string strict;
  } cases[] = {
      {"text", Args({"Hello", 1}), "81 Hello", "81 Hello"},
      {"no text", Args({"", 1}), "81 ", "81 "},
      {"Latin", Args({latin, 1}), "81 \xc3\xa9", "81 \xc3\xa9"},
      {"other characters", Args({wide, 1}), "81 " + nul, "81 " + nul},
      {"bytes", Args({bytes, 1}), "82 \x01\xff", "82 \x01\xff"},
      {"two-byte integers", Args({ZValue::Vector<short>(ZType::I2, {65, 255}), 1}), "82 A\xff",
       "82 A\xff"},
      {"no byte", Args({ZValue::Vector<short>(ZType::I2, {256}), 1}), "1004", "1004"},
      {"the opcode", Args({bytes, 1, 5}), "85 \x01\xff", "1004"},
      {"the opcode of text", Args({bytes, 1, 1}), "81 \x01\xff", "1143"},
      {"a ping", Args({"p", 1, 9}), "89 p", "89 p"},
      {"a ping that is too long", Args({std::string(126, 'p'), 1, 9}),
       "89 " + std::string(126, 'p'), "1001"},
      {"a first fragment", Args({"Hel", 0}), "01 Hel", "01 Hel"},
      {"bytes in a text", Args({bytes, 1}), "1004", "1004"},
      {"a second fragment", Args({"l", 0, 2}), "01 l", "00 l"},
      {"the last fragment", Args({"o", ZValue(ZType::Bit, {}, {0x80})}), "81 o", "80 o"},
      {"fin that is no number", Args({"x", "no"}), "81 x", "81 x"},
      {"a number", Args({7, 1}), "1004", "1004"},
      {"a text alone", "text", "1004", "1004"},
      {"one item", Args({"x"}), "1001", "1001"},
      {"four items", Args({"x", 1, 1, 1}), "1001", "1001"},
      {"an opcode that is none", Args({"x", 1, "no"}), "1086", "1086"},
  };
  for (const Mode mode : {kLax, kStrict}) {
    Upgraded t(mode);
    for (const auto& c : cases) {
      const std::string& expected = mode == kStrict ? c.strict : c.lax;
      const int code = t.root.Code("ASendZ", t.name, c.value);
      EXPECT_EQ(code ? std::to_string(code) : t.Out(), expected) << c.what << mode;
    }
  }
  // A control frame does not disturb the message under way; a close frame of the application's own
  // is the last one.
  Upgraded t(kStrict);
  for (const ZValue& value : {Args({"Hel", 0}), Args({"p", 1, 9}), Args({"lo", 1})})
    EXPECT_EQ(t.root.Code("ASendZ", t.name, value), 0);
  EXPECT_EQ((Lines{t.Out(), t.Out(), t.Out()}), (Lines{"01 Hel", "89 p", "80 lo"}));
  const auto close = ZValue::Vector<signed char>(ZType::I1, {0x0F, -0x60});
  EXPECT_EQ(t.root.Code("ASendZ", t.name, Args({ZValue::Vector<short>(ZType::I2, {3}), 1, 8})),
            1004);
  EXPECT_EQ(t.root.Code("ASendZ", t.name, Args({close, 1, 8})), 0);
  EXPECT_EQ(t.Out(), "88 4000");
  EXPECT_EQ(t.root.Code("ASendZ", t.name, Args({"x", 1})), 1119);
  t.peer.Send(In(0x88, CloseWith(4000)));
  EXPECT_EQ(t.peer.ReceiveAll(), "");
}

TEST(WebSocketWire, EveryFormOfALengthGoesBothWays) {
  for (const std::size_t n : {0u, 1u, 125u, 126u, 127u, 65535u, 65536u, 131072u}) {
    const std::string data(n, 'd');
    Upgraded server(kStrict);
    server.peer.SendApart(In(0x82, data), n < 1000 ? 1 : 40000);
    EXPECT_EQ(server.Told(), "bytes " + data + " 1 2");
    server.root.Send(server.name, Args({data, 1}));
    EXPECT_EQ(server.peer.Receive(Plain(0x81, data).size()), Plain(0x81, data));

    UpgradedClient client(kStrict);
    client.root.Send("C", Args({data, 1}));
    const Read first = ReadFrame(client.peer);
    EXPECT_EQ(first.text, "81 " + data);
    EXPECT_TRUE(first.masked);
  }
}

TEST(WebSocketWire, AClientTakesAnotherMaskEachTime) {
  UpgradedClient t(kLax);
  std::map<std::string, int> keys;
  for (int i = 0; i < 50; ++i) {
    t.root.Send("C", Args({"same", 1}));
    ++keys[t.peer.Receive(10).substr(2, kKeySize)];
  }
  EXPECT_EQ(keys.size(), 50u);
}

TEST(WebSocketWire, PingsOfAPeerThatDoesNotReadPileUpNoAnswers) {
  Upgraded t(kLax);
  std::string pings;
  for (unsigned i = 0; i < 200; ++i) pings += In(0x89, std::string(120, 'p') + Number(i, 4));
  // Until answers no longer leave.
  EXPECT_TRUE(Eventually([&] {
    t.peer.Send(pings);
    return t.root.Children(t.name).size() >= 64;
  }));
  for (int i = 0; i < 10; ++i) t.peer.SendApart(pings, pings.size());
  EXPECT_LE(t.root.Children(t.name).size(), 64u);
  t.peer.Send(In(0x89, "the end"));
  while (t.Out() != "8a the end") {
  }
}

/// More than the kernel takes from a connection whose peer does not read.
void QueueMuch(Upgraded& t) {
  const ZValue frame = Args({std::string(200000, 'q'), 1});
  for (int i = 0; i < 100; ++i) ASSERT_EQ(t.root.Code("ASendZ", t.name, frame), 0);
}
bool IsRead(Upgraded& t) {
  return Eventually([there = t.peer.OtherEnd()] { return HasRead(there); });
}
std::string AfterMuch(Upgraded& t) {
  std::string out;
  for (int i = 0; i <= 100; ++i) out = t.Out();
  return out;
}

TEST(WebSocketWire, APeersCloseIsAnsweredBehindAllThatWaits) {
  for (const Mode mode : {kLax, kStrict}) {
    Upgraded t(mode);
    QueueMuch(t);
    t.peer.Send(In(0x88, CloseWith(1000)));
    EXPECT_TRUE(IsRead(t));
    // The end of TCP may follow at once where the RFC is kept.
    if (mode == kStrict) t.peer.EndSending();
    EXPECT_EQ(AfterMuch(t).substr(0, 7), "88 1000");
  }
}

TEST(WebSocketWire, WhatWasSentBeforeBothSidesCloseStillGoesOut) {
  for (const Mode mode : {kLax, kStrict}) {
    Upgraded t(mode);
    QueueMuch(t);
    EXPECT_EQ(t.root.Code("AClose", t.name), 0);
    t.peer.Send(In(0x88, CloseWith(1000)));
    EXPECT_TRUE(IsRead(t));
    EXPECT_EQ("out " + AfterMuch(t), kGoodBye);
    EXPECT_EQ(t.peer.ReceiveAll(), "");
    EXPECT_EQ(t.Told(), "code 1010");
  }
}

TEST(WebSocketWire, APingInFrontOfTheClosingHandshakesEndIsAnswered) {
  Upgraded t(kStrict);
  QueueMuch(t);
  EXPECT_EQ(t.root.Code("AClose", t.name), 0);
  t.peer.Send(In(0x89, "p"));
  EXPECT_TRUE(IsRead(t));
  EXPECT_EQ("out " + AfterMuch(t), kGoodBye);
  EXPECT_EQ(t.Out(), "8a p");
}

TEST(WebSocketWire, ACloseFrameIsTheLastHoweverManySend) {
  for (int round = 0; round < 20; ++round) {
    Upgraded t(kStrict);
    std::vector<std::thread> senders;
    for (int i = 0; i < 3; ++i)
      senders.emplace_back([&] {
        while (t.root.Code("ASendZ", t.name, Args({"x", 1})) == 0) {
        }
      });
    for (int i = 0; i < 100; ++i) ASSERT_EQ(t.Out(), "81 x");
    const bool own = round % 2;
    if (own) {
      EXPECT_EQ(t.root.Code("AClose", t.name), 0);
    }
    if (!own) t.peer.Send(Head(0x81, 0, false));
    std::string out = "81 x";
    while (out == "81 x") out = t.Out();
    EXPECT_EQ("out " + out, own ? kGoodBye : kProtocol);
    if (own) t.peer.Send(In(0x88, ""));
    EXPECT_EQ(t.peer.ReceiveAll(), "");
    for (std::thread& sender : senders) sender.join();
    EXPECT_EQ(t.Told(), own ? "code 1010" : "Error 1130");
  }
}

}  // namespace
}  // namespace support
