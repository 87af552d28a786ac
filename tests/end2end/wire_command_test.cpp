// wire_command_test.cpp - what peers may send to a command server: headers in pieces, wrong
// headers, wrong payloads, and promises that are not kept.
#include "tests/support/session.h"

namespace support {
namespace {

Ipm Command(const std::string& name, const std::string& payload = ZBytes("data")) {
  return {kIpmCommand, name, payload};
}

/// A command server "S" with one peer that behaves.
struct Attacked : Served {
  Attacked() : Served("command") {}

  /// The server still works: one call and its answer.
  void ExpectAlive() {
    peer.Send(Command("alive").Bytes());
    EXPECT_EQ(root.Told(name), "Receive " + name + ".alive data");
    root.Respond(name + ".alive", 1);
    EXPECT_EQ(Ipm::Read(peer).type, kIpmAnswer);
  }
};

TEST(CommandWire, AMessageMayArriveInPiecesOfAnySize) {
  Attacked t;
  const std::string message = Command("pieces").Bytes();
  for (std::size_t first = 0; first <= kIpmHeaderSize; ++first) {
    t.peer.SendApart(message.substr(0, first), first);
    first ? t.peer.Send(message.substr(first)) : t.peer.SendApart(message, 1);
    ASSERT_EQ(t.root.Told("S"), "Receive " + t.name + ".pieces data") << first;
    t.root.Respond(t.name + ".pieces", 1);
    ASSERT_EQ(Ipm::Read(t.peer).name, "pieces");
  }
}

TEST(CommandWire, ManyMessagesInOneReadAreToldInTheirOrder) {
  Attacked t;
  std::string bytes;
  Lines expected;
  for (int i = 0; i < 300; ++i) {
    bytes += Command("n" + std::to_string(i), ZBytes(i)).Bytes();
    expected.push_back("Receive " + t.name + ".n" + std::to_string(i) + " " + std::to_string(i));
  }
  t.peer.Send(bytes);
  EXPECT_EQ(t.root.Told("S", 300), expected);
}

std::string WithMagic(const char* magic, std::size_t size) {
  return Command("a").Bytes().replace(8, 8, magic).substr(0, size);
}

std::string Compressed(const std::string& payload) {
  return Ipm{kIpmCommandComp, "a", payload}.Bytes();
}

std::string Damaged(std::string payload) {
  payload[payload.size() / 2] = static_cast<char>(~payload[payload.size() / 2]);
  return payload;
}

TEST(CommandWire, WhatIsWrongEndsItsOwnConnectionAndNoOther) {
  const std::string z = ZBytes("some data");
  const auto size = static_cast<std::uint32_t>(z.size());
  const std::string longer = Word(size + 8) + z.substr(4);
  const std::string shorter = Word(size - 8) + z.substr(4);
  const std::string command = Command("a").Bytes();
  const std::string answer = Ipm{kIpmAnswer, "a", z}.Bytes();
  const struct {
    const char* what;
    std::string bytes;
    int code;
  } cases[] = {
      {"another magic", WithMagic("Kyrno001", kIpmHeaderSize), 1130},
      {"another magic and no more", WithMagic("GET / HT", 16), 1130},
      {"length 0", Command("a").Header(0), 1130},
      {"length of less than a header", Command("a").Header(114), 1130},
      {"an answer that nobody waits for", answer, 1126},
      {"a compressed one", Ipm{kIpmAnswerComp, "a", Stored(z, size)}.Bytes(), 1126},
      {"an answer to its own command", command + answer, 1126},
      {"progress of an unknown command", Ipm{kIpmProgress, "a", z, "p"}.Bytes(), 1126},
      {"a name in use", command + command, 1126},
      {"a compressed payload without a length", Compressed("abc"), 1105},
      {"no stream", Compressed(Word(size) + "this is no stream at all"), 1105},
      {"a damaged stream", Compressed(Damaged(Stored(z, size))), 1105},
      {"a stream cut short", Compressed(Stored(z, size).substr(0, 30)), 1105},
      {"a stream of more than it claims", Compressed(Stored(z, size - 1)), 1105},
      {"a stream of less than it claims", Compressed(Stored(z, size + 1)), 1105},
      {"a claim of 4 GiB", Compressed(Stored(z, 0xFFFFFFFF)), 1105},
      {"a claim of nothing", Compressed(Stored(z, 0)), 1105},
      {"a payload of more than it holds", Command("a", longer).Bytes(), 1131},
      {"a payload of less than it holds", Command("a", shorter).Bytes(), 1131},
      {"a payload too short for a length", Command("a", "abc").Bytes(), 1131},
      {"no payload", Command("a", "").Bytes(), 1131},
      {"more than it holds inside a stream", Compressed(Stored(longer, size)), 1131},
      {"one byte of a header, and the close", command.substr(0, 1), 1119},
      {"all but one of a header", command.substr(0, kIpmHeaderSize - 1), 1119},
      {"a header alone", command.substr(0, kIpmHeaderSize), 1119},
      {"all but one of a message", command.substr(0, command.size() - 1), 1119},
  };
  Attacked t;
  for (const auto& c : cases) {
    RawPeer bad(t.port);
    const std::string name = t.root.Next("S").name;
    bad.Send(c.bytes);
    if (c.code == 1119) bad.EndSending();
    Event last = t.root.Next(name);
    while (last.code == 0 && last.name != name) last = t.root.Next(name);
    EXPECT_EQ(Tell(last), "Error " + name + " " + std::to_string(c.code)) << c.what;
    bad.ReceiveAll();
    t.ExpectAlive();
  }
}

TEST(CommandWire, WhatArrivedBeforeAFailureIsToldBeforeIt) {
  Attacked t;
  for (int i = 0; i < 100; ++i) {  // however fast the application asks for the next event
    RawPeer peer(t.port);
    const std::string name = t.root.Next("S").name;
    peer.Send(Command("whole").Bytes() + WithMagic("garbage.", kIpmHeaderSize));
    ASSERT_EQ(t.root.Told(name, 3),
              (Lines{"Receive " + name + ".whole data", "Error " + name + ".whole 1119",
                     "Error " + name + " 1130"}));
    peer.ReceiveAll();
  }
}

TEST(CommandWire, MessagesOfUnknownTypeNeverLetTheirPayloadBeTakenForMessages) {
  Attacked t;
  std::vector<RawPeer> odd;
  for (const std::uint32_t type : {0U, 7U, 255U, 0xFFFFFFFFU}) {
    odd.emplace_back(t.port);
    const std::string name = t.root.Next("S").name;
    odd.back().Send(Ipm{type, "odd", Command("smuggled").Bytes()}.Bytes() +
                    Command("real").Bytes());
    const std::string told = t.root.Told(name);
    EXPECT_TRUE(told == "Receive " + name + ".real data" || told == "Error " + name + " 1130")
        << told;
  }
  t.ExpectAlive();
}

TEST(CommandWire, NamesThatFillTheirFieldAreReadToItsEndAndNoFurther) {
  Attacked t;
  const std::string full(32, 'f');
  t.peer.Send(Command(full).Bytes());
  const Event told = t.root.Next("S");
  EXPECT_EQ(told.value.Text(), "data");
  EXPECT_EQ(told.name.substr(0, t.name.size() + 33), t.name + "." + full);
  EXPECT_EQ(told.name.size(), t.name.size() + 1 + 40);
  t.ExpectAlive();
}

TEST(CommandWire, APromiseOf4GiBTakesNoMemoryBeforeItsBytesArrive) {
  Attacked t;
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

}  // namespace
}  // namespace support
