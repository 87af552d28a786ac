// wire_command_test.cpp - what peers may send to a command server: headers in pieces, wrong
// headers, wrong payloads, and promises that are not kept.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/rawpeer.h"
#include "tests/support/session.h"

namespace support {
namespace {

using Lines = std::vector<std::string>;
using host::ZValue;

Ipm Command(const std::string& name, const std::string& payload = ZBytes("data")) {
  return {kIpmCommand, name, payload, ""};
}

/// A command server "S" with one peer that behaves.
struct Served {
  TestRoot root;
  const int port;
  RawPeer good;
  std::string goodName;

  Served() : port(root.Serve("command")), good(port), goodName(root.Next("S").name) {}

  /// The server still works: one call and its answer.
  void ExpectAlive() {
    good.Send(Command("alive").Bytes());
    EXPECT_EQ(root.Told(goodName), "Receive " + goodName + ".alive data");
    root.Respond(goodName + ".alive", 1);
    EXPECT_EQ(Ipm::Read(good).type, kIpmAnswer);
  }
};

TEST(CommandWire, AMessageMayArriveInPiecesOfAnySize) {
  Served t;
  const std::string message = Command("pieces").Bytes();
  const auto expect = [&](std::size_t piece) {
    ASSERT_EQ(t.root.Told("S"), "Receive " + t.goodName + ".pieces data") << piece;
    t.root.Respond(t.goodName + ".pieces", 1);
    ASSERT_EQ(Ipm::Read(t.good).name, "pieces");
  };
  t.good.SendApart(message, 1);
  expect(1);
  for (std::size_t first = 1; first <= kIpmHeaderSize; ++first) {
    t.good.SendApart(message.substr(0, first), first);
    t.good.Send(message.substr(first));
    expect(first);
  }
}

TEST(CommandWire, ManyMessagesInOneReadAreToldInTheirOrder) {
  Served t;
  std::string bytes;
  Lines expected;
  for (int i = 0; i < 300; ++i) {
    const std::string name = "n" + std::to_string(i);
    bytes += Command(name, ZBytes(i)).Bytes();
    expected.push_back("Receive " + t.goodName + "." + name + " " + std::to_string(i));
  }
  t.good.Send(bytes);
  EXPECT_EQ(t.root.Told("S", 300), expected);
}

struct Wrong {
  const char* what;
  std::string bytes;
  int code;
};

std::string WithMagic(const char* magic, std::size_t size) {
  std::string bytes = Command("a").Bytes().replace(8, 8, magic);
  bytes.resize(size);
  return bytes;
}

std::string Compressed(const std::string& payload) {
  return Ipm{kIpmCommandComp, "a", payload, ""}.Bytes();
}

std::string Damaged(std::string payload) {
  payload[payload.size() / 2] = static_cast<char>(~payload[payload.size() / 2]);
  return payload;
}

/// A Z block that tells another length than it has.
std::string WithLength(std::string z, std::uint32_t length) {
  return z.replace(0, 4, Word(length));
}

std::vector<Wrong> WrongMessages() {
  const std::string z = ZBytes("some data");
  const auto size = static_cast<std::uint32_t>(z.size());
  const std::string answer = Ipm{kIpmAnswer, "a", z, ""}.Bytes();
  const std::string compressedAnswer = Ipm{kIpmAnswerComp, "a", Stored(z, size), ""}.Bytes();
  return {
      {"another magic", WithMagic("Kyrno001", kIpmHeaderSize), 1130},
      {"another magic and no more", WithMagic("GET / HT", 16), 1130},
      {"length 0", Command("a").Header(0), 1130},
      {"length of less than a header", Command("a").Header(114), 1130},
      {"an answer that nobody waits for", answer, 1126},
      {"a compressed one", compressedAnswer, 1126},
      {"an answer to its own command", Command("a").Bytes() + answer, 1126},
      {"progress of an unknown command", Ipm{kIpmProgress, "a", z, "p"}.Bytes(), 1126},
      {"a name in use", Command("a").Bytes() + Command("a").Bytes(), 1126},
      {"a compressed payload without a length", Compressed("abc"), 1105},
      {"a length and no stream", Compressed(Word(size)), 1105},
      {"no stream", Compressed(Word(size) + "this is no stream at all"), 1105},
      {"a damaged stream", Compressed(Damaged(Stored(z, size))), 1105},
      {"a stream cut short", Compressed(Stored(z, size).substr(0, 30)), 1105},
      {"a stream of more than it claims", Compressed(Stored(z, size - 1)), 1105},
      {"a stream of less than it claims", Compressed(Stored(z, size + 1)), 1105},
      {"a claim of 4 GiB", Compressed(Stored(z, 0xFFFFFFFF)), 1105},
      {"a claim of nothing", Compressed(Stored(z, 0)), 1105},
      {"a payload of another length than its own", Command("a", WithLength(z, size + 8)).Bytes(),
       1131},
      {"a payload of less than it holds", Command("a", WithLength(z, size - 8)).Bytes(), 1131},
      {"a payload too short for a length", Command("a", "abc").Bytes(), 1131},
      {"no payload", Command("a", "").Bytes(), 1131},
      {"the same inside a stream", Compressed(Stored(WithLength(z, size + 8), size)), 1131},
  };
}

TEST(CommandWire, WhatIsWrongEndsItsOwnConnectionAndNoOther) {
  Served t;
  for (const Wrong& wrong : WrongMessages()) {
    RawPeer bad(t.port);
    const std::string name = t.root.Next("S").name;
    bad.Send(wrong.bytes);
    EXPECT_EQ(t.root.ToldUntilEnd(name).back(), "Error " + name + " " + std::to_string(wrong.code))
        << wrong.what;
    bad.ReceiveAll();
    t.ExpectAlive();
  }
}

TEST(CommandWire, WhatArrivedBeforeAFailureIsToldBeforeIt) {
  Served t;
  for (int i = 0; i < 100; ++i) {  // however fast the application asks for the next event
    RawPeer peer(t.port);
    const std::string name = t.root.Next("S").name;
    peer.Send(Command("whole").Bytes() + WithMagic("garbage.", kIpmHeaderSize));
    ASSERT_EQ(t.root.ToldUntilEnd(name),
              (Lines{"Receive " + name + ".whole data", "Error " + name + ".whole 1119",
                     "Error " + name + " 1130"}))
        << i;
    peer.ReceiveAll();
  }
}

TEST(CommandWire, ABadPayloadCostsTheWaitNothingElse) {
  Served t;
  RawPeer bad(t.port);
  const std::string name = t.root.Next("S").name;
  bad.SendApart(Compressed(Word(10) + "no stream"), 1000);
  t.good.Send(Command("other").Bytes());
  // One wait may come back with either; none with a failure of its own or without an event.
  Lines told = t.root.Told("S", 2);
  std::sort(told.begin(), told.end());
  EXPECT_EQ(told, (Lines{"Error " + name + " 1105", "Receive " + t.goodName + ".other data"}));
}

TEST(CommandWire, MessagesOfUnknownTypeNeverLetTheirPayloadBeTakenForMessages) {
  Served t;
  std::vector<RawPeer> odd;
  for (const std::uint32_t type : {0U, 7U, 255U, 0xFFFFFFFFU}) {
    odd.emplace_back(t.port);
    const std::string name = t.root.Next("S").name;
    odd.back().Send(
        Ipm{static_cast<IpmType>(type), "odd", Command("smuggled").Bytes(), ""}.Bytes() +
        Command("real").Bytes());
    const std::string told = t.root.Told(name);
    EXPECT_TRUE(told == "Receive " + name + ".real data" || told == "Error " + name + " 1130")
        << told;
  }
  t.ExpectAlive();
}

TEST(CommandWire, NamesThatFillTheirFieldAreReadToItsEndAndNoFurther) {
  Served t;
  const std::string full(32, 'f');
  t.good.Send(Command(full).Bytes());
  const host::Event told = t.root.Next("S");
  EXPECT_EQ(told.event, "Receive");
  EXPECT_EQ(told.value.Text(), "data");
  EXPECT_EQ(told.name.substr(0, t.goodName.size() + 33), t.goodName + "." + full);
  EXPECT_EQ(told.name.size(), t.goodName.size() + 1 + 40);
  t.ExpectAlive();
}

TEST(CommandWire, APromiseOf4GiBTakesNoMemoryBeforeItsBytesArrive) {
  Served t;
  const Memory before = Memory::Now();
  std::vector<RawPeer> peers;
  for (int i = 0; i < 8; ++i) {
    peers.emplace_back(t.port);
    EXPECT_EQ(t.root.Next("S").event, "Connect");
    peers.back().SendApart(Command("huge").Header(0xFFFFFFFF) + "some bytes", 4096);
  }
  t.ExpectAlive();
  const Memory after = Memory::Now();
  EXPECT_LT(after.resident, before.resident + (32UL << 20));
  EXPECT_LT(after.reserved, before.reserved + (512UL << 20));
}

TEST(CommandWire, APeerThatStopsInTheMiddleIsToldAsClosed) {
  Served t;
  const std::string whole = Command("a").Bytes();
  for (const std::size_t size : {1UL, 8UL, 114UL, 115UL, whole.size() - 1}) {
    RawPeer peer(t.port);
    const std::string name = t.root.Next("S").name;
    peer.Send(whole.substr(0, size));
    peer.Close();
    EXPECT_EQ(t.root.ToldUntilEnd(name).back(), "Error " + name + " 1119") << size;
  }
}

}  // namespace
}  // namespace support
