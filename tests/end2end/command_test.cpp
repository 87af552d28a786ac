// command_test.cpp - calls and their answers, between two ends of the library and against a peer
// that answers byte by byte.
#include <gtest/gtest.h>

#include <memory>

#include "tests/support/rawpeer.h"
#include "tests/support/session.h"

namespace support {
namespace {

using host::Event;
using host::ZValue;
using Lines = std::vector<std::string>;

/// A client "C" and a server "S" in one root, connected.
struct Called {
  TestRoot root;
  std::string peer;  // the server's connection

  Called() {
    root.Dial("command", root.Serve("command"));
    peer = root.Next("S").name;
  }
};

/// A client "C" whose peer the test plays itself.
struct Answered {
  TestRoot root;
  RawPeer peer;

  Answered() : peer(Dialled(root)) {}
  static RawPeer Dialled(const TestRoot& root) {
    RawListener listener;
    root.Dial("command", listener.Port());
    return listener.Accept();
  }
  /// Reads the next n commands.
  void Take(int n) {
    while (n-- > 0) Ipm::Read(peer);
  }
  void Answer(const std::string& name, const ZValue& value) {
    peer.Send(Ipm{kIpmAnswer, name, ZBytes(value), ""}.Bytes());
  }
};

TEST(Command, AnArrayOfAnyKindArrivesAsItWasSentAndSoDoesItsAnswer) {
  const Called t;
  const ZValue sent = ZValue::List(
      {"text", 2.5, ZValue::Vector<std::int16_t>(host::ZType::I2, {1, -2}),
       ZValue::List({ZValue(host::ZType::C2, {2}, {0x41, 0x26, 0x42, 0x26}), ZValue()})});

  EXPECT_EQ(t.root.Send("C.add", sent), "C.add");
  const Event asked = t.root.Next("S");
  EXPECT_EQ(asked.event, "Receive");
  EXPECT_EQ(asked.name, t.peer + ".add");
  EXPECT_EQ(asked.value, sent);
  EXPECT_LE(asked.times[0], asked.times[1]);
  EXPECT_LE(asked.times[1], asked.times[2]);

  t.root.Respond(asked.name, sent);
  const Event answer = t.root.Next("C");
  EXPECT_EQ(answer.event, "Receive");
  EXPECT_EQ(answer.name, "C.add");
  EXPECT_EQ(answer.value, sent);
  EXPECT_EQ(t.root.Told("C.add"), "code 1010");
}

TEST(Command, AnswersFindTheirCommandsInAnyOrder) {
  const Called t;
  std::vector<std::string> asked;
  for (int i = 0; i < 20; ++i) t.root.Send("C", i);
  for (int i = 0; i < 20; ++i) asked.push_back(t.root.Next("S").name);

  for (int i = 19; i >= 0; --i) t.root.Respond(asked[static_cast<std::size_t>(i)], 1000 + i);
  std::vector<bool> answered(20);
  for (int i = 0; i < 20; ++i) {
    const Event answer = t.root.Next("C");
    const int n = std::stoi(answer.name.substr(answer.name.size() - 8));
    EXPECT_EQ(answer.value.Integer(), 1000 + n);
    answered.at(static_cast<std::size_t>(n)) = true;
  }
  EXPECT_EQ(answered, std::vector<bool>(20, true));
}

TEST(Command, EmptyNamesAreCompletedByTheConnection) {
  const Called t;
  EXPECT_EQ(t.root.Send("C", 1), "C.Auto00000000");
  EXPECT_EQ(t.root.Send("C.own", 1), "C.own");
  EXPECT_EQ(t.root.Send("C", 1), "C.Auto00000001");
  EXPECT_EQ(t.root.Told("S", 3),
            (Lines{"Receive " + t.peer + ".Auto00000000 1", "Receive " + t.peer + ".own 1",
                   "Receive " + t.peer + ".Auto00000001 1"}));
}

TEST(Command, SendingToWhatCannotTakeItGivesACode) {
  const Called t;
  t.root.Send("C.busy", 1);
  const struct {
    const char* to;
    int code;
  } cases[] = {
      {"C.busy", 1008}, {"S", 1008}, {"S.new", 1008}, {"nowhere.new", 1007}, {"new", 1008}};
  for (const auto& c : cases) EXPECT_EQ(t.root.Code("ASendZ", Args({c.to, 0}), 1), c.code) << c.to;
  EXPECT_EQ(t.root.Code("ASendZ", Args({t.peer, 0}), 1), 1008);
  EXPECT_EQ(t.root.Told("S"), "Receive " + t.peer + ".busy 1");
}

TEST(Command, LongNamesAreCutToWhatAMessageHoldsAndTheConnectionLives) {
  Answered t;
  const std::string name(31, 'n');
  t.root.Send("C." + name, 1);
  t.root.Send("C." + std::string(40, 'l'), 2);
  EXPECT_EQ(Ipm::Read(t.peer).name, name);
  EXPECT_EQ(Ipm::Read(t.peer).name, std::string(32, 'l'));

  t.Answer(name, 3);
  EXPECT_EQ(t.root.Told("C"), "Receive C." + name + " 3");
}

TEST(Command, ProgressIsToldAheadOfTheAnswer) {
  const Called t;
  t.root.Send("C.long", 0);
  const std::string asked = t.root.Next("S").name;
  t.root.Respond(asked, "half", 0);
  EXPECT_EQ(t.root.Told("C"), "Progress C.long.Progress00000000 half");
  t.root.Respond(asked, "most", 0);
  t.root.Respond(asked, "done", 1);
  EXPECT_EQ(t.root.Told("C", 2),
            (Lines{"Progress C.long.Progress00000001 most", "Receive C.long done"}));
}

class EveryStrategy : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Command, EveryStrategy, testing::Range(0, 5));

TEST_P(EveryStrategy, ProgressThatIsThereTogetherWithTheAnswerComesFirst) {
  Answered t;
  t.root.SetProp(".", "ReadyStrategy", GetParam());
  t.root.Send("C.long", 0);
  t.root.Send("C.last", 0);
  t.Take(2);
  t.peer.Send(Ipm{kIpmProgress, "long", ZBytes("half"), "p1"}.Bytes() +
              Ipm{kIpmProgress, "long", ZBytes("most"), "p2"}.Bytes());
  t.Answer("long", "done");
  t.Answer("last", "end");

  EXPECT_EQ(t.root.Told("C.last"), "Receive C.last end");  // so the others are there as well
  EXPECT_EQ(t.root.Told("C", 3),
            (Lines{"Progress C.long.p1 half", "Progress C.long.p2 most", "Receive C.long done"}));
}

TEST_P(EveryStrategy, CommandsThatWaitAreToldOfTheCloseBeforeTheirConnectionIs) {
  Answered t;
  const int eventMode = GetParam() % 2;
  t.root.SetProp(".", "ReadyStrategy", GetParam());
  t.root.SetProp(".", "EventMode", eventMode);
  for (const char* name : {"C.a", "C.b", "C.c"}) t.root.Send(name, 1);
  t.Take(3);
  t.peer.Close();

  const std::string word = eventMode ? "Closed" : "Error";
  Lines told = t.root.ToldUntilEnd("C");
  ASSERT_EQ(told.size(), 4U);
  std::sort(told.begin(), told.end() - 1);
  EXPECT_EQ(told,
            (Lines{word + " C.a 1119", word + " C.b 1119", word + " C.c 1119", word + " C 1119"}));
  EXPECT_EQ(t.root.Told("C"), "code 1010");
}

TEST(Command, AnAnswerThatArrivedBeforeTheCloseComesBeforeIt) {
  Answered t;
  t.root.Send("C.a", 1);
  t.root.Send("C.b", 1);
  t.Take(2);
  t.Answer("b", "in time");
  t.peer.Close();
  EXPECT_EQ(t.root.Told("C", 3), (Lines{"Receive C.b in time", "Error C.a 1119", "Error C 1119"}));
}

TEST(Command, AResetIsToldLikeAClose) {
  Answered t;
  t.root.Send("C.a", 1);
  t.Take(1);
  t.peer.Reset();
  const Lines told = t.root.ToldUntilEnd("C");
  ASSERT_EQ(told.size(), 2U);
  EXPECT_EQ(told[0], "Error C.a 1119");
  EXPECT_EQ(told[1].substr(0, 8), "Error C ");
}

TEST(Command, WithoutAnAnswerTheCommandEndsWithItsDelivery) {
  Answered t;
  t.root.Send("C.quiet", "q", host::kSendNoAnswer);
  const Ipm message = Ipm::Read(t.peer);
  EXPECT_EQ(message.type, kIpmNoAnswer);
  EXPECT_TRUE(Eventually([&] { return t.root.Children("C").empty(); }));

  const Called both;
  both.root.Send("C.quiet", "q", host::kSendNoAnswer);
  EXPECT_EQ(both.root.Told("S"), "Receive " + both.peer + ".quiet q");
  EXPECT_TRUE(Eventually([&] { return both.root.Children(both.peer).empty(); }));
}

TEST(Command, SendAndCloseDeliversAndThenEndsTheConnectionWithoutAnEventOfItsOwn) {
  const Called t;
  t.root.Send("C.bye", "b", host::kSendAndClose);
  EXPECT_EQ(t.root.Told("S"), "Receive " + t.peer + ".bye b");
  EXPECT_EQ(t.root.ToldUntilEnd(t.peer),
            (Lines{"Error " + t.peer + ".bye 1119", "Error " + t.peer + " 1119"}));
  EXPECT_EQ(t.root.Told("C"), "code 1010");
}

TEST(Command, SentIsToldBeforeTheAnswer) {
  const Called t;
  t.root.Send("C.report", 1, host::kSendReport);
  EXPECT_EQ(t.root.Told("C"), "Sent C.report 0");
  t.root.Respond(t.root.Next("S").name, "a");
  EXPECT_EQ(t.root.Told("C"), "Receive C.report a");
}

TEST(Command, AnAnswerThatMeetsAnUntoldSentWaitsForIt) {
  Answered t;
  t.root.Send("C.report", 1, host::kSendReport);
  t.root.Send("C.plain", 1);
  t.Take(2);
  t.Answer("report", "a");
  t.Answer("plain", "p");
  EXPECT_EQ(t.root.Told("C.plain"), "Receive C.plain p");
  EXPECT_EQ(t.root.Told("C", 2), (Lines{"Sent C.report 0", "Receive C.report a"}));
}

TEST(Command, ACloseThatMeetsAnUntoldSentWaitsForIt) {
  Answered t;
  t.root.Send("C.report", 1, host::kSendReport);
  t.Take(1);
  t.peer.Close();
  EXPECT_EQ(t.root.ToldUntilEnd("C"),
            (Lines{"Sent C.report 0", "Error C.report 1119", "Error C 1119"}));
}

TEST(Command, AnAnswerToACommandThatWasClosedEndsTheConnection) {
  Answered t;
  t.root.Send("C.dropped", 1, host::kSendReport);
  EXPECT_EQ(t.root.Told("C"), "Sent C.dropped 0");
  t.root.Close("C.dropped");
  EXPECT_EQ(t.root.Told("C.dropped"), "code 1010");
  t.Answer("dropped", 2);
  EXPECT_EQ(t.root.Told("C"), "Error C 1126");
}

TEST(Command, RespondingGivesACodeWhereNothingWaitsForIt) {
  const Called t;
  t.root.Send("C.twice", 1);
  const std::string asked = t.root.Next("S").name;
  EXPECT_EQ(t.root.Code("ARespondZ", Args({"S.none", 1}), 1), 1010);
  EXPECT_EQ(t.root.Code("ARespondZ", Args({".", 1}), 1), 1010);
  EXPECT_EQ(t.root.Code("ARespondZ", Args({t.peer, 1}), 1), 1119) << "its parent is no connection";

  t.root.Respond(asked, "first");
  const int second = t.root.Code("ARespondZ", Args({asked, 1}), "second");
  EXPECT_TRUE(second == 1103 || second == 1010) << second;
  EXPECT_EQ(t.root.Told("C"), "Receive C.twice first");

  t.root.Send("C.late", 1);
  const std::string late = t.root.Next("S").name;
  t.root.Close("C");
  EXPECT_TRUE(Eventually([&] { return t.root.State(t.peer) == 16; }));
  EXPECT_EQ(t.root.Code("ARespondZ", Args({late, 1}), 1), 1119);
  EXPECT_EQ(t.root.Code("ARespondZ", Args({late, 0}), 1), 1119);
}

TEST(Command, SendingOnAClosedConnectionGivesItsCode) {
  Answered t;
  t.peer.Close();
  EXPECT_TRUE(Eventually([&] { return t.root.State("C") == 16; }));
  EXPECT_EQ(t.root.Code("ASendZ", Args({"C", 0}), 1), 1119);
  EXPECT_EQ(t.root.Told("C"), "Error C 1119");
}

TEST(Command, ManyLargeCommandsInBothDirectionsArriveWhole) {
  const Called t;
  const std::string large(3000000, 'L');
  for (int i = 0; i < 6; ++i) t.root.Send("C", large);
  for (int i = 0; i < 6; ++i) {
    const Event asked = t.root.Next("S");
    EXPECT_EQ(asked.value.Text(), large);
    t.root.Respond(asked.name, asked.value);
  }
  for (int i = 0; i < 6; ++i) EXPECT_EQ(t.root.Next("C").value.Text(), large);
}

/// Which messages are compressed, by the level of either side.
struct Compression {
  int client;
  int server;
  std::vector<std::uint32_t> types;  // command, answer, command, answer
};

class Negotiation : public testing::TestWithParam<Compression> {};
INSTANTIATE_TEST_SUITE_P(
    Command, Negotiation,
    testing::Values(
        Compression{6, 6, {kIpmCommand, kIpmAnswerComp, kIpmCommandComp, kIpmAnswerComp}},
        Compression{0, 6, {kIpmCommand, kIpmAnswerComp, kIpmCommand, kIpmAnswerComp}},
        Compression{6, 0, {kIpmCommand, kIpmAnswer, kIpmCommandComp, kIpmAnswer}},
        Compression{0, 0, {kIpmCommand, kIpmAnswer, kIpmCommand, kIpmAnswer}}));

TEST_P(Negotiation, CompressesFromTheFirstAnswerOnWhatIsWorthIt) {
  const TestRoot client;
  const TestRoot server;
  ASSERT_EQ(client.GetProp(".", "CompLevel").Integer(), 6) << "the support library is missing";
  client.SetProp(".", "CompLevel", GetParam().client);
  server.SetProp(".", "CompLevel", GetParam().server);
  const int port = server.Serve("command");
  RawListener between;
  client.Dial("command", between.Port());
  RawPeer toClient = between.Accept();
  RawPeer toServer(port);
  EXPECT_EQ(server.Next("S").event, "Connect");

  std::vector<std::uint32_t> types;
  const auto pass = [&types](RawPeer& from, RawPeer& to) {
    const Ipm message = Ipm::Read(from);
    EXPECT_EQ(message.features & 1, 1);
    types.push_back(message.type);
    to.Send(message.Bytes());
  };
  const std::string text(4000, 'x');
  for (int i = 0; i < 2; ++i) {
    client.Send("C", text);
    pass(toClient, toServer);
    const Event asked = server.Next("S");
    EXPECT_EQ(asked.value.Text(), text);
    server.Respond(asked.name, text);
    pass(toServer, toClient);
    EXPECT_EQ(client.Next("C").value.Text(), text);
  }
  EXPECT_EQ(types, GetParam().types);

  types.clear();
  client.Send("C.small", std::string(500, 'x'));
  client.Send("C.quiet", text, host::kSendNoAnswer);
  pass(toClient, toServer);
  pass(toClient, toServer);
  EXPECT_EQ(types, (std::vector<std::uint32_t>{kIpmCommand, kIpmNoAnswer}));
}

TEST(Command, APeerThatCannotInflateGetsNothingCompressed) {
  Answered t;
  const std::string text(4000, 'x');
  for (const char* name : {"a", "b"}) {
    t.root.Send(std::string("C.") + name, text);
    EXPECT_EQ(Ipm::Read(t.peer).type, kIpmCommand);
    t.Answer(name, 1);
    EXPECT_EQ(t.root.Next("C").event, "Receive");
  }
}

}  // namespace
}  // namespace support
