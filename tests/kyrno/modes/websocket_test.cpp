// websocket_test.cpp - how long a WebSocket that is closing waits for its peer, by a clock that the
// test sets, and messages whose fragments are joined.
#include "kyrno/modes/websocket.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "fuzz/stream.h"
#include "kyrno/base/error.h"
#include "kyrno/boundary/roots.h"
#include "sys/linux/qlnplat.h"

namespace {

constexpr F8 kSecond = 1e6;
std::atomic<F8> clockMicros{0};

class FROMSOCKET : public WEBSOCKET {
 public:
  FROMSOCKET(UI4 features, int end) : WEBSOCKET(1000, TConnection, features, nullptr) {
    pCon = new RPCSOCK(end);
  }
};

/// A server's connection whose peer does not read.
class WebSocket : public testing::Test {
 public:
  WebSocket() {
    clockMicros.store(Micros());
    SetMicrosSource([] { return clockMicros.load(); });
    EXPECT_EQ(CreateRoot("WEBSOCKET", "/"), 0);
    EXPECT_TRUE(share.Open("WEBSOCKET"));
  }
  ~WebSocket() override {
    EXPECT_EQ(RPCUnload(&share), 0);
    SetMicrosSource(nullptr);
    close(peer);
  }

  void Begin(UI4 features) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    peer = ends[1];
    socket = new FROMSOCKET(features, ends[0]);
    node = share.Root()->AddNew("C", socket);
    EXPECT_EQ(share.Object()->Changed(node), 0);
  }
  void After(F8 seconds) {
    clockMicros.store(clockMicros.load() + seconds * kSecond);
    EXPECT_EQ(share.Object()->Changed(node), 0);
  }
  /// Whether it comes to this state, in which the object stays as long as this thread looks at it.
  bool Becomes(OBJSTATE state) const {
    for (UI4 i = 0; i < 1000000 && socket->GetState() != state; ++i) sched_yield();
    return socket->GetState() == state;
  }

  ROOTSHARE share;
  FROMSOCKET* socket = nullptr;  // the node's
  PHIERAKI node = nullptr;
  int peer = -1;
};

TEST_F(WebSocket, WaitsAMinuteForTheAnswerToItsCloseWhenItIsStrict) {
  Begin(WSStrict);
  ASSERT_EQ(socket->Close(node), 0);
  After(59);
  EXPECT_EQ(socket->GetState(), SConnected);
  After(2);
  EXPECT_TRUE(Becomes(SMarkedForDeletion));
}

TEST_F(WebSocket, WaitsWithoutALimitOtherwise) {
  Begin(0);
  ASSERT_EQ(socket->Close(node), 0);
  After(3600);
  EXPECT_EQ(socket->GetState(), SConnected);
}

TEST_F(WebSocket, TellsAPeersMistakeThoughItsCloseFrameCannotLeave) {
  Begin(WSStrict);
  PBUFFER const large = BUFFER::NewWhole(4u << 20);
  ASSERT_EQ(socket->SendBuffer(node, nullptr, large, 0), 0);
  ASSERT_EQ(write(peer, "\x81\0", 2), 2);  // without a mask
  while (socket->SendBuffer(node, nullptr, BUFFER::NewWhole(1), 0) == 0) sched_yield();
  After(59);
  EXPECT_EQ(socket->GetState(), SConnected);
  After(2);
  ASSERT_TRUE(Becomes(SError));
  EXPECT_EQ(socket->lErrorObj, ERR_WRONG_MAGIC);
}

TEST_F(WebSocket, IsGoneAtOnceWhenTheApplicationHasClosedAndThePeerMakesAMistake) {
  Begin(WSStrict);
  ASSERT_EQ(socket->Close(node), 0);
  char frame[22];
  for (ssize_t n = 0; n <= 0; n = read(peer, frame, sizeof frame)) sched_yield();
  ASSERT_EQ(write(peer, "\x81\0", 2), 2);  // without a mask
  EXPECT_TRUE(Becomes(SMarkedForDeletion));
}

// ---- fragments that are joined

constexpr UI4 kMost = 1u << 20;

class JOINING : public WEBSOCKET {
 public:
  explicit JOINING(PRPCSOCK socket) : WEBSOCKET(kMost, TConnection, WSStrict | WSWhole, nullptr) {
    pCon = socket;
  }
};

/// A server's connection, turned by hand, and the messages that it has delivered.
struct Joined {
  Joined() {
    stream.seen = [this](RPCOBJS* obj) {
      const WSMSG* const unit = static_cast<WSMSG*>(obj);
      EXPECT_TRUE(unit->Fin);
      opcodes += static_cast<char>('0' + unit->Opcode);
      messages.emplace_back(obj->GetBuffer()->Start(), unit->DataSize());
    };
  }
  void Send(const std::string& bytes, size_t piece) {
    const UI1* const data = reinterpret_cast<const UI1*>(bytes.data());
    for (size_t at = 0; at < bytes.size(); at += piece)
      stream.Send(data + at, std::min(piece, bytes.size() - at));
  }

  std::vector<std::string> messages;
  std::string opcodes;
  JOINING* socket = nullptr;
  STREAM stream{[this](PRPCSOCK accepted) { return socket = new JOINING(accepted); }};
};

/// As a client sends it, each with another mask.
std::string Frame(bool fin, UI1 opcode, std::string payload) {
  static UI1 next = 0;
  const UI1 key[kMaskSize] = {++next, 0x57, 0xA1, 0x0F};
  std::string head(kMaxFrameHead, '\0');
  const UI4 n = static_cast<UI4>(payload.size());
  head.resize(static_cast<size_t>(PutHead(head.data(), fin, opcode, n, key) - head.data()));
  for (size_t i = 0; i < payload.size(); ++i)
    payload[i] = static_cast<char>(payload[i] ^ key[i % kMaskSize]);
  return head + payload;
}

using Random = std::mt19937;

std::string RandomMessage(Random& random, UI1 opcode, size_t n) {
  static const char* const characters[] = {"a", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"};
  std::string text;
  while (text.size() + 4 <= n) text += characters[random() % std::size(characters)];
  text.resize(n, 'x');
  if (opcode == WSBin)
    std::generate(text.begin(), text.end(), [&] { return static_cast<char>(random()); });
  return text;
}

/// The message in fragments of up to `most` bytes, empty ones and pings among them.
std::string Fragmented(Random& random, UI1 opcode, const std::string& message, size_t most) {
  std::string wire;
  size_t at = 0;
  for (bool first = true, fin = false; !fin; first = false) {
    const size_t n = std::min<size_t>(random() % (most + 1), message.size() - at);
    fin = at + n == message.size() && random() % 2 == 0;
    wire += Frame(fin, first ? opcode : UI1{WSCont}, message.substr(at, n));
    at += n;
    if (random() % 64 == 0) wire += Frame(true, WSPing, "ping");
  }
  return wire;
}

TEST(WebSocketJoins, WhateverTheFragmentsTheMessageIsWhole) {
  static constexpr struct {
    size_t size, most, piece;
  } rows[] = {
      {0, 1, 1},       {1, 1, 1},          {125, 3, 1},           {3000, 200, 1},
      {70000, 5, 777}, {kMost, 64, kMost}, {kMost, 70000, kMost}, {kMost, 2 * kMost, kMost},
  };
  Random random(1);
  for (const auto& row : rows) {
    for (const UI1 opcode : {WSText, WSBin}) {
      SCOPED_TRACE(testing::Message() << row.size << ' ' << row.most << " opcode " << int{opcode});
      Joined joined;
      const std::string message = RandomMessage(random, opcode, row.size);
      // The same twice: nothing of the first is left for the second.
      joined.Send(Fragmented(random, opcode, message, row.most), row.piece);
      joined.Send(Fragmented(random, opcode, message, row.most), row.piece);
      ASSERT_EQ(joined.messages.size(), 2u);
      EXPECT_EQ(joined.opcodes, std::string(2, static_cast<char>('0' + opcode)));
      EXPECT_TRUE(joined.messages[0] == message);
      EXPECT_TRUE(joined.messages[1] == message);
    }
  }
}

TEST(WebSocketJoins, AnyNumberOfMessagesPassesOneAfterTheOther) {
  Joined joined;
  std::string wire;
  for (UI4 i = 0; i < 2 * kMostWaiting; ++i)
    wire += Frame(false, WSText, "a") + Frame(true, WSCont, "b");
  joined.Send(wire, wire.size());
  EXPECT_EQ(joined.messages.size(), 2 * kMostWaiting);
}

TEST(WebSocketJoins, OfAMessageThatFailsNothingIsDelivered) {
  const std::string half(kMost / 2, 'h');
  const std::string begun = Frame(false, WSText, "\xE2\x82");
  const struct {
    std::string wire;
    SI4 error;
  } rows[] = {
      {begun + Frame(true, WSCont, "("), ERR_UTF8},
      {begun + Frame(false, WSCont, "(") + Frame(false, WSCont, ""), ERR_UTF8},
      {begun + Frame(true, WSCont, ""), ERR_UTF8},
      {begun + Frame(true, WSText, "a"), ERR_WRONG_MAGIC},
      {begun + Frame(false, WSPing, ""), ERR_WRONG_MAGIC},
      {begun + Frame(true, WSClose, "\x03\xE8"), ERR_CLOSED},
      {Frame(false, WSBin, half) + Frame(false, WSCont, half) + Frame(true, WSCont, "a"),
       ERR_MAX_BLOCK_SIZE},
      {Frame(false, WSBin, "a") + Frame(true, WSCont, half + half), ERR_MAX_BLOCK_SIZE},
      {begun, ERR_CLOSED},
      {Frame(false, WSBin, "a") + Frame(true, WSCont, half).substr(0, 500), ERR_CLOSED},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    Joined joined;
    joined.Send(row.wire, row.wire.size());
    joined.stream.ClosePeer();
    EXPECT_EQ(joined.messages.size(), 0u);
    ASSERT_FALSE(joined.stream.IsGone());
    EXPECT_EQ(joined.socket->lErrorObj, row.error);
  }
}

TEST(WebSocketJoins, TextThatABrowserWouldRefuseIsNotSent) {
  Joined joined;
  UI1 bad[] = {'a', 0xC3};
  PBUFFER out = nullptr;
  EXPECT_EQ(joined.socket->ComposeBuffer(bad, 2, -1, &out), ERR_UTF8);
  EXPECT_EQ(out, nullptr);
}

}  // namespace
