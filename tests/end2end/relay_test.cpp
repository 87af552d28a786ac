// relay_test.cpp - bytes that go from one connection to another with no part for the application.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/rawpeer.h"
#include "tests/support/session.h"

namespace support {
namespace {

/// `near` talks to a connection of server "S", `far` to client "C". The test couples the two.
struct Coupled {
  TestRoot root;
  RawListener listener;
  RawPeer near;
  RawPeer far;
  std::string source;

  explicit Coupled(const host::Options& options = {})
      : near(root.Serve("text", options)),
        far((root.Dial("blktext", listener.Port()), listener.Accept())),
        source(root.Next("S").name) {}
};

TEST(Relay, CarriesBytesBothWaysWithoutFraming) {
  Coupled t;
  t.root.Relay(t.source, "C");
  std::string bytes(300000, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 >> 4);
  t.near.Send(bytes);
  EXPECT_TRUE(t.far.Receive(bytes.size()) == bytes);
  t.far.Send(bytes);
  EXPECT_TRUE(t.near.Receive(bytes.size()) == bytes);
  EXPECT_EQ(t.root.Wait("", 0).code, 100);
}

TEST(Relay, InOneDirectionLeavesTheOtherToTheMode) {
  Coupled t;
  t.root.Relay(t.source, "C", 1000, true);
  t.near.Send("there");
  EXPECT_EQ(t.far.Receive(5), "there");
  t.far.Send(Block("back"));
  EXPECT_EQ(t.root.Told("C"), "Block C back");
}

TEST(Relay, SendsWhatWasReadAheadFirst) {
  Coupled t(host::Options{{"EOM", "\n"}});
  t.near.SendApart("whole\nbegun, ", 100);
  EXPECT_EQ(t.root.Told("S"), "Block " + t.source + " whole\n");
  t.root.Relay(t.source, "C");
  t.near.Send("ended\n");
  EXPECT_EQ(t.far.Receive(13), "begun, ended\n");
}

TEST(Relay, LetsASlowTargetSlowTheSourceAndNotFillTheMemory) {
  constexpr std::size_t kMost = 192UL << 20;
  Coupled t;
  t.root.Relay(t.source, "C");
  const Memory before = Memory::Now();
  const std::size_t sent = t.near.SendUntilStuck(kMost);
  EXPECT_LT(sent, kMost);
  EXPECT_LT(Memory::Now().resident, before.resident + (32UL << 20));

  t.near.Close();
  for (std::size_t left = sent; left > 0;) {
    const std::size_t some = std::min<std::size_t>(left, 65536);
    ASSERT_EQ(t.far.Receive(some), std::string(some, 's'));
    left -= some;
  }
}

TEST(Relay, WhoseTargetIsGoneFailsTheSource) {
  Coupled t;
  t.root.Relay(t.source, "C", 1000, true);
  t.far.Close();
  EXPECT_EQ(t.root.Told("C"), "Error C 1119");
  EXPECT_EQ(t.root.Told("C"), "code 1010");
  t.near.Send("too late");
  EXPECT_EQ(t.root.Told("S"), "Error " + t.source + " 1104");
}

TEST(Relay, NeedsTwoConnectionsAndASize) {
  Coupled t;
  const struct {
    host::ZValue argument;
    int code;
  } cases[] = {{Args({t.source, "none"}), 1010},   {Args({"none", "C"}), 1010},
               {Args({"S", "C"}), 1008},           {Args({t.source, "S"}), 1008},
               {Args({t.source, "."}), 1008},      {Args({t.source, "C", 0}), 1045},
               {Args({t.source, "C", "m"}), 1084}, {Args({t.source, "C"}), 0},
               {Args({t.source, "C", 100, 1}), 0}};
  for (const auto& c : cases) EXPECT_EQ(t.root.Code("ASetRelay", c.argument), c.code);
  EXPECT_EQ(t.root.Children("C"), std::vector<std::string>{"RELAY"});
  EXPECT_EQ(t.root.State("C.RELAY"), 9);
}

}  // namespace
}  // namespace support
