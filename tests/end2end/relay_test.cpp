// relay_test.cpp - bytes that go from one connection to another with no part for the application.
#include <algorithm>

#include "tests/support/session.h"

namespace support {
namespace {

/// `peer` talks to a connection of server "S", `far` to client "C". The test couples the two.
struct Coupled : Served {
  RawListener listener;
  RawPeer far;

  explicit Coupled(const Options& options)
      : Served("text", options), far((root.Dial("blktext", listener.Port()), listener.Accept())) {}
};

TEST(Relay, CarriesBytesBothWaysWithoutFraming) {
  Coupled t({});
  t.root.Relay(t.name, "C");
  std::string bytes(300000, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 >> 4);
  t.peer.Send(bytes);
  EXPECT_TRUE(t.far.Receive(bytes.size()) == bytes);
  t.far.Send(bytes);
  EXPECT_TRUE(t.peer.Receive(bytes.size()) == bytes);
  EXPECT_EQ(t.root.Wait("", 0).code, 100);
}

TEST(Relay, InOneDirectionLeavesTheOtherToTheModeAndFailsWithItsTarget) {
  Coupled t({});
  t.root.Relay(t.name, "C", 1000, true);
  t.peer.Send("there");
  EXPECT_EQ(t.far.Receive(5), "there");
  t.far.Send(Block("back"));
  EXPECT_EQ(t.root.Told("C"), "Block C back");

  t.far.Close();
  EXPECT_EQ(t.root.Told("C", 2), (Lines{"Error C 1119", "code 1010"}));
  t.peer.Send("too late");
  EXPECT_EQ(t.root.Told("S"), "Error " + t.name + " 1104");
}

TEST(Relay, SendsWhatWasReadAheadFirst) {
  Coupled t(Options{{"EOM", "\n"}});
  t.peer.SendApart("whole\nbegun, ", 100);
  EXPECT_EQ(t.root.Told("S"), "Block " + t.name + " whole\n");
  t.root.Relay(t.name, "C");
  t.peer.Send("ended\n");
  EXPECT_EQ(t.far.Receive(13), "begun, ended\n");
}

TEST(Relay, LetsASlowTargetSlowTheSourceAndNotFillTheMemory) {
  constexpr std::size_t kMost = 192UL << 20;
  Coupled t({});
  t.root.Relay(t.name, "C");
  const Memory before = Memory::Now();
  const std::size_t sent = t.peer.SendUntilStuck(kMost);
  EXPECT_LT(sent, kMost);
  EXPECT_LT(Memory::Now().resident, before.resident + (32UL << 20));

  t.peer.Close();
  for (std::size_t left = sent; left > 0;) {
    const std::size_t some = std::min<std::size_t>(left, 65536);
    ASSERT_EQ(t.far.Receive(some), std::string(some, 's'));
    left -= some;
  }
}

TEST(Relay, NeedsTwoConnectionsAndASize) {
  Coupled t({});
  const std::pair<ZValue, int> cases[] = {
      {Args({t.name, "none"}), 1010}, {Args({"none", "C"}), 1010},
      {Args({"S", "C"}), 1008},       {Args({t.name, "S"}), 1008},
      {Args({t.name, "C", 0}), 1045}, {Args({t.name, "C", 100, 1}), 0}};
  for (const auto& [argument, code] : cases) EXPECT_EQ(t.root.Code("ASetRelay", argument), code);
}

}  // namespace
}  // namespace support
