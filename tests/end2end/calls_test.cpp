// calls_test.cpp - the exported functions themselves: dispatch, arguments, waiting, the tree and
// the properties of a root.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <future>

#include "tests/support/rawpeer.h"
#include "tests/support/session.h"

namespace support {
namespace {

using host::Event;
using host::ZBlock;
using host::ZType;
using host::ZValue;
using Lines = std::vector<std::string>;
using Block32 = std::vector<std::uint32_t>;

const ZValue kMatrix(ZType::C1, {1, 2}, {'a', 'b'});

/// What Call returns for a block as it stands, having checked that its result says the same.
int Dispatch(const std::string& root, const char* command, const Block32* right,
             const Block32* left = nullptr) {
  ZBlock result;
  ZBlock leftResult;
  const int code = Lib().Call(root.c_str(), command, right ? right->data() : nullptr,
                              left ? left->data() : nullptr, &result, &leftResult);
  if (code != 0) {
    EXPECT_EQ(result.Value(), ZValue::Vector<std::int32_t>(ZType::I4, {20, code}));
  }
  return code;
}

Block32 Text(const char* text) { return ZValue(text).Encode(); }

/// A block of this many nested arrays in each other, put together word by word.
Block32 Nested(std::uint32_t levels) {
  Block32 z{0, 0xA4000000};
  for (std::uint32_t i = 0; i < levels; ++i) {
    const Block32 level{5, 0, 0x0617, 0, 1, 0};  // one axis of one item
    z.insert(z.end(), level.begin(), level.end());
  }
  const Block32 inmost{4, 0, 0x040F, 0, 1, 0};  // the scalar 1
  z.insert(z.end(), inmost.begin(), inmost.end());
  const auto bytes = static_cast<std::uint32_t>(4 * z.size());
  std::memcpy(z.data(), Word(bytes).data(), 4);
  return z;
}

TEST(Call, BeforeAnyInitIsAlwaysAnsweredAlike) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run = [] {
    Block32 bad = Text(".");
    bad[1] = 0x01000000;
    const Block32 good = Text(".");
    _exit(Dispatch("R", "ATree", &good) == 1044 && Dispatch("R", "NoSuch", &good) == 1044 &&
                  Dispatch("R", "ATree", &bad) == 1044 && !testing::Test::HasFailure()
              ? 0
              : 1);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST(Call, ThatIsNotDispatchedGivesTheReason) {
  const TestRoot root;
  const Block32 text = Text(".");
  EXPECT_EQ(Dispatch("NoSuchRoot", "ATree", &text), 1006);
  EXPECT_EQ(Dispatch(root.Root(), "NoSuch", &text), 1003);
  EXPECT_EQ(Dispatch(root.Root(), "atree", &text), 1003);
  EXPECT_EQ(Dispatch(root.Root(), "ATree", &text), 0);
}

TEST(Call, WithTheWrongNumberOfArgumentsIsRefused) {
  const TestRoot root;
  root.Serve("command");
  const Block32 text = Text("S");
  const Block32 pair = Args({"S", 0}).Encode();
  for (const char* both : {"AWaitZ", "ASendZ", "ARespondZ"}) {
    EXPECT_EQ(Dispatch(root.Root(), both, &pair), 1004) << both;
    EXPECT_EQ(Dispatch(root.Root(), both, nullptr, &pair), 1004) << both;
    EXPECT_EQ(Dispatch(root.Root(), both, nullptr), 1004) << both;
  }
  for (const char* one : {"AClose", "ATree", "ASetProp", "AGetProp", "ASrv", "AClt", "ASetRelay"}) {
    EXPECT_EQ(Dispatch(root.Root(), one, &text, &text), 1004) << one;
    EXPECT_EQ(Dispatch(root.Root(), one, nullptr, &text), 1004) << one;
    EXPECT_EQ(Dispatch(root.Root(), one, nullptr), 1004) << one;
  }
  EXPECT_EQ(root.Children("."), Lines{"S"});
}

TEST(Call, AcceptsTheHeadersOfItsKindAndNoOthers) {
  const TestRoot root;
  const struct {
    std::uint32_t header;
    bool accepted;
  } cases[] = {{0xA0, true},  {0xA2, true},    {0xA4, true},       {0xB0, true},
               {0xA1, false}, {0xA8, false},   {0xE0, false},      {0x1A0, false},
               {0, false},    {0xA400, false}, {0xA4000000, false}};
  for (const auto& c : cases) {
    Block32 block = Text(".");
    std::memcpy(&block[1], Word(c.header).data(), 4);
    EXPECT_EQ(Dispatch(root.Root(), "ATree", &block), c.accepted ? 0 : 1131) << c.header;
  }
}

TEST(Call, RefusesBlocksThatAreNotWhatTheySay) {
  const TestRoot root;
  const auto code = [&](Block32 z, std::size_t byte, unsigned value) {
    reinterpret_cast<unsigned char*>(z.data())[byte] = static_cast<unsigned char>(value);
    return Dispatch(root.Root(), "ATree", &z);
  };
  const Block32 text = Text("text");
  const Block32 list = Args({"a", "b"}).Encode();
  EXPECT_EQ(code(text, 3, 0), 1131) << "length 0";
  EXPECT_EQ(code(text, 3, 12), 1131) << "length of less than an array";
  EXPECT_EQ(code(text, 3, 32), 1131) << "length without the elements";
  EXPECT_EQ(code(text, 8 + 8, 0x1F + 1), 1131) << "no kind of array";
  EXPECT_EQ(code(text, 8 + 9, 11), 1131) << "no element type";
  EXPECT_EQ(code(text, 8 + 9, 15), 1131) << "no element type";
  EXPECT_EQ(code(text, 8 + 8, 0xFF), 1131) << "rank 15 without the shape";
  EXPECT_EQ(code(text, 8 + 16, 200), 1131) << "more elements than there are";
  EXPECT_EQ(code(list, 8 + 16, 3), 1131) << "more items than there are";
  EXPECT_EQ(code(list, 8 + 24 + 9, 6), 1131) << "an item that is no array";

  EXPECT_EQ(Dispatch(root.Root(), "ATree", &text), 0);
  const Block32 deepest = Nested(1024);
  const Block32 tooDeep = Nested(1025);
  const Block32 abyss = Nested(1000000);
  EXPECT_EQ(Dispatch(root.Root(), "ATree", &deepest), 0);
  EXPECT_EQ(Dispatch(root.Root(), "ATree", &tooDeep), 1131);
  EXPECT_EQ(Dispatch(root.Root(), "ATree", &abyss), 1131);
  EXPECT_EQ(root.Code("ASendZ", Args({"S", 0}), kMatrix), 1008);
}

TEST(Call, BlocksToBeSentAreCheckedInTheModesThatReadThem) {
  const TestRoot root;
  root.Dial("blkraw", root.Serve("blkraw"));
  Block32 z = Text("bytes");
  reinterpret_cast<unsigned char*>(z.data())[8 + 16] = 200;
  const Block32 to = Args({"C", 0}).Encode();
  ZBlock result;
  ZBlock none;
  EXPECT_EQ(root.Call("ASendZ", to.data(), z.data(), &result, &none), 0);
  EXPECT_EQ(result.Code(), 1131);
}

TEST(Call1, PutsTheCodeWhereTheCommandLeavesTheLeftArgument) {
  const TestRoot root;
  const auto call1 = reinterpret_cast<decltype(&::Call1)>(Entry("Call1"));
  const auto give =
      reinterpret_cast<decltype(&::FreeUsedTessorResult)>(Entry("FreeUsedTessorResult"));
  for (const auto& [command, code] : {std::pair{"ATree", 0}, {"NoSuch", 1003}}) {
    Block32 text = Text(".");
    std::uint32_t* right = text.data();
    std::uint32_t* left = nullptr;
    EXPECT_EQ(call1(root.Root().c_str(), command, &right, &left), code);
    EXPECT_EQ(ZValue::Decode(left), ZValue(code));
    give(right);
    give(left);
  }
  give(nullptr);
}

TEST(Exports, TellTheVersionAndRefuseASecondRootOfOneName) {
  const auto version = reinterpret_cast<decltype(&::Version)>(Entry("Version"));
  EXPECT_EQ(version(nullptr), 30201503);
  EXPECT_EQ(Lib().Version(), (std::array<std::uint32_t, 3>{3, 2, 1503}));

  const TestRoot root;
  EXPECT_EQ(Lib().Init(root.Root()), 1043);
  EXPECT_EQ(root.Code("AClose", "."), 0);
  EXPECT_EQ(root.Code("ATree", "."), 1006);
  EXPECT_EQ(Lib().Init(root.Root()), 0);
  EXPECT_EQ(root.Code("ATree", "."), 0);

  const auto kick = reinterpret_cast<decltype(&::KickStart)>(Entry("KickStart"));
  EXPECT_EQ(kick(root.Root().c_str()), 0);
  EXPECT_EQ(kick("NoSuchRoot"), 1006);
}

TEST(ErrorText, IsCutToItsBuffersAndNeverWritesBehindThem) {
  const auto errorText = reinterpret_cast<decltype(&::ErrorText)>(Entry("ErrorText"));
  const struct {
    int code;
    std::string name;
    std::string text;
  } cases[] = {{100, "TIMEOUT", "Timeout"},
               {1010, "ERR_OBJECT_NOT_FOUND", "Object not found"},
               {1503, "ERR_ZEPH_INI_NOT_FOUND", "ZEPH ini file not found"},
               {1049, "OS Error", std::string("Unknown error 1049")},
               {111, "OS Error", "Connection refused"}};
  for (const auto& c : cases)
    for (const int room : {64, 8, 2, 1}) {
      char name[72];
      char text[72];
      std::memset(name, '#', sizeof name);
      std::memset(text, '#', sizeof text);
      std::int32_t nameSize = room;
      std::int32_t textSize = room;
      EXPECT_EQ(errorText(c.code, name, &nameSize, text, &textSize), c.code);
      EXPECT_LE(nameSize, room);
      EXPECT_LE(textSize, room);
      EXPECT_EQ(name[room], '#');
      EXPECT_EQ(text[room], '#');
      EXPECT_EQ(std::string(name, static_cast<std::size_t>(nameSize)),
                c.name.substr(0, static_cast<std::size_t>(nameSize)));
      EXPECT_EQ(std::string(text, static_cast<std::size_t>(textSize)),
                c.text.substr(0, static_cast<std::size_t>(textSize)));
      if (room == 64) {
        EXPECT_EQ(nameSize, static_cast<int>(c.name.size()));
        EXPECT_EQ(textSize, static_cast<int>(c.text.size()));
      }
    }

  const TestRoot root;
  EXPECT_EQ(root.GetProp(".", "ErrorText", {1010}),
            Args({1010, "ERR_OBJECT_NOT_FOUND", "Object not found"}));
  EXPECT_EQ(root.GetProp(".", "ErrorText", {111}), Args({111, "OS Error", "Connection refused"}));
}

TEST(Tree, OfAnEmptyRootIsOneLineOfFive) {
  const TestRoot root;
  for (const char* name : {".", "", ".any"}) {
    const ZValue item = root.Tree(name);
    ASSERT_EQ(item.Count(), 2U);
    const ZValue info = item.At(0);
    ASSERT_EQ(info.Count(), 5U);
    EXPECT_EQ(info.At(0).Text(), root.Root());
    EXPECT_EQ(info.At(1), ZValue(0));
    EXPECT_EQ(info.At(2), ZValue(2));
    EXPECT_NE(info.At(3).Text().find(" built "), std::string::npos) << info.At(3).Text();
    EXPECT_EQ(info.At(4).Integer(), 0);
    EXPECT_EQ(item.At(1).Count(), 0U);
    EXPECT_EQ(item.At(1).Type(), ZType::I4);
  }
}

TEST(Tree, ShowsEachNodeByItsOwnNameAndHowFarCommandsAre) {
  const TestRoot root;
  RawPeer peer(root.Serve("command"));
  const std::string name = root.Next("S").name;
  peer.Send(Ipm{kIpmCommand, "half", std::string(100, 'h'), ""}.Bytes().substr(0, 155));
  EXPECT_TRUE(Eventually([&] {
    return root.Children(name) == Lines{"half"} && root.Tree(name + ".half").At(0).Count() == 5 &&
           root.Tree(name + ".half").At(0).At(3).Integer() == 155;
  }));
  const ZValue info = root.Tree(name + ".half").At(0);
  EXPECT_EQ(info.At(0).Text(), "half");
  EXPECT_EQ(info.At(1).Integer(), 4);
  EXPECT_EQ(info.At(2).Integer(), 10) << "receiving";
  EXPECT_EQ(info.At(4).Integer(), 60) << "bytes to come";

  EXPECT_EQ(root.Children("S"), Lines{"CON00000000"});
  const ZValue connection = root.Tree(name).At(0);
  EXPECT_EQ(connection.Count(), 3U);
  EXPECT_EQ(connection.At(1).Integer(), 3);
  EXPECT_EQ(connection.At(2).Integer(), 4);
  EXPECT_EQ(root.Code("ATree", "none"), 1010);
}

bool Listens(int port) {
  try {
    const RawPeer peer(port);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

TEST(Close, TakesObjectsByTheirNameAndTheRootByADot) {
  const TestRoot root;
  const int port = root.Serve("command");
  root.Dial("command", port);
  EXPECT_EQ(root.Next("S").event, "Connect");
  for (const char* none : {"none", "S.none", ".x", "..", ""})
    EXPECT_EQ(root.Code("AClose", none), 1010) << none;

  EXPECT_EQ(root.Code("AClose", "C"), 0);
  EXPECT_EQ(root.Code("AClose", "S"), 0);
  EXPECT_TRUE(Eventually([&] { return root.Children(".").empty(); }));
  EXPECT_TRUE(Eventually([&] { return !Listens(port); }));
}

TEST(Close, TwiceWhileThePeerStaysIsNoError) {
  const TestRoot root;
  RawListener listener;
  root.Dial("text", listener.Port());
  RawPeer peer = listener.Accept();
  EXPECT_EQ(root.Code("AClose", "C"), 0);
  EXPECT_EQ(root.Code("AClose", "C"), 0);
  EXPECT_EQ(root.Wait("C", 0).code, 100) << "a close of one's own is no event";
  EXPECT_EQ(root.Wait("", 0).code, 100);
  EXPECT_EQ(peer.ReceiveAll(), "");
  peer.Close();
  EXPECT_EQ(root.Told("C"), "code 1010");
}

TEST(RootProperties, AreKeptWithinTheirBounds) {
  const TestRoot root;
  const struct {
    const char* name;
    ZValue set;
    int code;
    ZValue reads;
  } cases[] = {
      {"ReadyStrategy", 4, 0, 4},
      {"readystrategy", 5, 0, 0},
      {"ReadyStrategy", -1, 0, 0},
      {"EventMode", 7, 0, 1},
      {"EventMode", -1, 0, 0},
      {"EventMode", "x", 1084, 0},
      {"CompLevel", 12, 0, 9},
      {"CompLevel", -1, 0, 9},
      {"CompLevel", 3, 0, 3},
      {"Protocol", "IPv6", 0, "ipv6"},
      {"Protocol", "tcp", 1037, "ipv6"},
      {"Protocol", "ip", 0, "ip"},
      {"EventMode", 1.0, 0, 1},
      {"EventMode", 0.5, 1084, 1},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(root.Code("ASetProp", Args({".", c.name, c.set})), c.code) << c.name;
    EXPECT_EQ(root.GetProp(".", c.name), c.reads) << c.name;
  }
  EXPECT_EQ(root.Code("ASetProp", Args({".", "BufferBlkSize", 0})), 1037);
  const ZValue found = root.GetProp(".", "TCPLookup", {"127.0.0.1", "80"});
  EXPECT_EQ(found.At(0).At(1).Text(), "127.0.0.1:80");
  EXPECT_EQ(root.Code("AGetProp", Args({".", "TCPLookup", "no.such.host.invalid", "80"})), 1106);
}

TEST(Arguments, OfTheWrongKindGiveTheCodeOfTheReadFromEveryCommand) {
  const TestRoot root;
  root.Serve("command");
  const ZValue several = Args({"a", "b"});
  const struct {
    const char* command;
    ZValue argument;
    int code;
  } cases[] = {
      {"AClose", kMatrix, 1082},
      {"AClose", Args({several, 1}), 1081},
      {"AClose", ZValue(), 1081},
      {"ATree", kMatrix, 1082},
      {"ASetProp", Args({"."}), 1081},
      {"ASetProp", Args({".", "EventMode"}), 1081},
      {"ASetProp", Args({"none", 7}), 1010},
      {"ASetProp", Args({".", "EventMode", "text"}), 1084},
      {"ASetProp", Args({".", "EventMode", several}), 1084},
      {"AGetProp", Args({"."}), 1081},
      {"AGetProp", Args({".", kMatrix}), 1082},
      {"AGetProp", Args({kMatrix, "EventMode"}), 1082},
      {"AGetProp", Args({std::string(65, 'x'), "EventMode"}), 1081},
      {"ASetRelay", Args({"S"}), 1081},
      {"ASetRelay", Args({"S", "S", "x"}), 1084},
      {"ASetRelay", Args({"S", "S", 100, "text"}), 1086},
      {"ASrv", Args({kMatrix}), 1046},
      {"ASrv", Args({Args({7, "S2"}), Args({"Port", "0"})}), 1045},
  };
  for (const auto& c : cases)
    EXPECT_EQ(root.Code(c.command, c.argument), c.code) << c.command << " case " << &c - &cases[0];

  const struct {
    const char* command;
    ZValue argument;
    int code;
  } both[] = {
      {"AWaitZ", "S", 1081},
      {"AWaitZ", Args({"S", "x"}), 1084},
      {"AWaitZ", Args({"S", "soon"}), 1086},
      {"AWaitZ", Args({kMatrix, 0}), 1082},
      {"AWaitZ", Args({"S", several}), 1086},
      {"ASendZ", Args({"S", "f"}), 1084},
      {"ASendZ", Args({kMatrix, 0}), 1082},
      {"ASendZ", Args({std::string(97, 'x'), 0}), 1081},
      {"ARespondZ", Args({"S"}), 1081},
      {"ARespondZ", Args({"S", "f"}), 1084},
      {"ARespondZ", Args({kMatrix, 0}), 1082},
  };
  for (const auto& c : both)
    EXPECT_EQ(root.Code(c.command, c.argument, 1), c.code)
        << c.command << " case " << &c - &both[0];
  EXPECT_EQ(root.Children("."), Lines{"S"});
}

TEST(Wait, ThatIsAPollComesBackAtOnceAndATimeOutMayBeAnEvent) {
  const TestRoot root;
  root.Serve("command");
  EXPECT_EQ(root.Wait("S", 0).code, 100);
  EXPECT_EQ(root.Wait("S", 20).code, 100);
  root.SetProp(".", "EventMode", 1);
  EXPECT_EQ(Tell(root.Wait("S", 0)), "Timeout S 100");
  EXPECT_EQ(Tell(root.Wait("S", 20)), "Timeout S 100");
  EXPECT_EQ(Tell(root.Wait("", 0)), "Timeout  100");
  EXPECT_EQ(root.Wait("none", 0).code, 1010);
}

TEST(Wait, SeesWhatLiesBelowItsObjectAndNothingElse) {
  const TestRoot root;
  const int port = root.Serve("command");
  root.Dial("command", port, {}, "C1");
  EXPECT_EQ(root.Told("S"), "Connect S.CON00000000 0");
  root.Dial("command", port, {}, "C2");
  EXPECT_EQ(root.Told("."), "Connect S.CON00000001 0");
  root.Send("C1.a", 1);
  root.Send("C2.b", 2);
  EXPECT_EQ(root.Told("S.CON00000001"), "Receive S.CON00000001.b 2");
  EXPECT_EQ(root.Wait("S.CON00000001", 0).code, 100);
  EXPECT_EQ(root.Told("S.CON00000000.a"), "Receive S.CON00000000.a 1");
  EXPECT_EQ(root.Wait("C1", 0).code, 100);
}

TEST(Wait, EndsWhenItsObjectVanishes) {
  const TestRoot root;
  root.Dial("command", root.Serve("command"));
  EXPECT_EQ(root.Next("S").event, "Connect");
  auto one = std::async(std::launch::async, [&] { return root.Told("S"); });
  auto other = std::async(std::launch::async, [&] { return root.Told("S.CON00000000"); });
  // The line of the root counts its semaphores: one for each thread that waits at the same time.
  EXPECT_TRUE(Eventually([&] { return root.Tree().At(0).At(4).Integer() >= 2; }));
  root.Close("S");
  EXPECT_EQ(one.get(), "code 1010");
  EXPECT_EQ(other.get(), "code 1010");
}

TEST(Wait, OfSeveralThreadsOnOneObjectGivesEachAnEventOfItsOwn) {
  const TestRoot root;
  const int port = root.Serve("command");
  std::vector<std::future<std::string>> waiting;
  Lines expected;
  Lines told;
  for (int i = 0; i < 4; ++i) {
    waiting.push_back(std::async(std::launch::async, [&] { return root.Told("S"); }));
    expected.push_back("Connect S.CON0000000" + std::to_string(i) + " 0");
  }
  std::vector<RawPeer> peers;
  for (int i = 0; i < 4; ++i) peers.emplace_back(port);
  for (auto& w : waiting) told.push_back(w.get());
  std::sort(told.begin(), told.end());
  EXPECT_EQ(told, expected);
  EXPECT_EQ(root.Wait("S", 0).code, 100);
}

TEST(Wait, OfSeveralThreadsTimesOutForEachWithoutAnEvent) {
  const TestRoot root;
  root.Serve("command");
  std::vector<std::future<int>> waiting;
  for (int i = 0; i < 4; ++i)
    waiting.push_back(
        std::async(std::launch::async, [&, i] { return root.Wait("S", 20 * i).code; }));
  for (auto& w : waiting) EXPECT_EQ(w.get(), 100);
}

TEST(Fork, LeavesTheParentsRootAloneWhateverTheChildDoes) {
  const TestRoot root;
  const int port = root.Serve("command");
  const pid_t child = fork();
  if (child == 0) {
    const bool done = root.Wait("S", 0).code != 0 && root.Code("AClose", ".") == 0;
    _exit(done ? 0 : 1);
  }
  int status = 0;
  EXPECT_TRUE(Eventually([&] { return waitpid(child, &status, WNOHANG) == child; }));
  EXPECT_EQ(status, 0);
  const RawPeer peer(port);
  EXPECT_EQ(root.Told("S"), "Connect S.CON00000000 0");
}

}  // namespace
}  // namespace support
