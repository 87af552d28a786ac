// calls_test.cpp - the exported functions themselves: dispatch, arguments, waiting and the tree.
#include <unistd.h>

#include <ctime>
#include <future>

#include "tests/support/session.h"

namespace support {
namespace {

using host::ZBlock;
using Words = std::vector<std::uint32_t>;

const ZValue kMatrix(ZType::C1, {1, 2}, {'a', 'b'});

/// What Call returns for blocks as they stand, having checked that its result says the same.
int Dispatch(const std::string& root, const char* command, const Words& right,
             const Words& left = {}) {
  ZBlock result;
  ZBlock leftResult;
  const int code = Lib().Call(root.c_str(), command, right.empty() ? nullptr : right.data(),
                              left.empty() ? nullptr : left.data(), &result, &leftResult);
  if (code != 0) {
    EXPECT_EQ(result.Value(), ZValue::Vector<std::int32_t>(ZType::I4, {20, code}));
  }
  return code;
}

Words With(Words z, std::size_t byte, int value) {
  reinterpret_cast<unsigned char*>(z.data())[byte] = static_cast<unsigned char>(value);
  return z;
}

const Words kDot = ZValue(".").Encode();

TEST(Call, BeforeAnyInitIsAlwaysAnsweredAlike) {
  RunApart([] {
    EXPECT_EQ(Dispatch("R", "ATree", kDot), 1044);
    EXPECT_EQ(Dispatch("R", "NoSuch", kDot), 1044);
    EXPECT_EQ(Dispatch("R", "ATree", With(kDot, 7, 1)), 1044);
  });
}

TEST(Call, ThatIsNotDispatchedGivesTheReason) {
  const TestRoot root;
  EXPECT_EQ(Dispatch("NoSuchRoot", "ATree", kDot), 1006);
  EXPECT_EQ(Dispatch(root.Root(), "NoSuch", kDot), 1003);
  EXPECT_EQ(Dispatch(root.Root(), "atree", kDot), 1003);
  for (const char* both : {"AWaitZ", "ASendZ", "ARespondZ"}) {
    EXPECT_EQ(Dispatch(root.Root(), both, kDot), 1004) << both;
    EXPECT_EQ(Dispatch(root.Root(), both, {}, kDot), 1004) << both;
  }
  for (const char* one : {"AClose", "ATree", "ASetProp", "AGetProp", "ASrv", "AClt", "ASetRelay"}) {
    EXPECT_EQ(Dispatch(root.Root(), one, kDot, kDot), 1004) << one;
    EXPECT_EQ(Dispatch(root.Root(), one, {}), 1004) << one;
  }
  EXPECT_EQ(Dispatch(root.Root(), "ATree", kDot), 0);
}

TEST(Call, RefusesBlocksThatAreNotWhatTheySay) {
  const Dialled t("blkraw");
  const Words text = ZValue("text").Encode();
  const Words list = Args({"a", "b"}).Encode();
  const struct {
    const char* what;
    Words block;
    int code;
  } cases[] = {
      {"as it is", text, 0},
      {"of a classic interpreter", With(text, 7, 0xA0), 0},
      {"of a big-endian one", With(text, 7, 0xA1), 1131},
      {"length 0", With(text, 3, 0), 1131},
      {"length without the elements", With(text, 3, 32), 1131},
      {"no kind of array", With(text, 8 + 8, 0x20), 1131},
      {"no element type", With(text, 8 + 9, 15), 1131},
      {"rank 15 without the shape", With(text, 8 + 8, 0xFF), 1131},
      {"more elements than there are", With(text, 8 + 16, 200), 1131},
      {"more items than there are", With(list, 8 + 16, 3), 1131},
  };
  for (const auto& c : cases)
    EXPECT_EQ(Dispatch(t.root.Root(), "ATree", c.block), c.code) << c.what;

  ZBlock result;
  ZBlock none;
  const Words to = Args({"C", 0}).Encode();
  EXPECT_EQ(t.root.Call("ASendZ", to.data(), With(text, 8 + 16, 200).data(), &result, &none), 0);
  EXPECT_EQ(result.Code(), 1131) << "a mode that reads what it sends";
}

TEST(Call1, PutsTheCodeWhereTheCommandLeavesTheLeftArgument) {
  const TestRoot root;
  const auto call1 = reinterpret_cast<decltype(&::Call1)>(Entry("Call1"));
  const auto give =
      reinterpret_cast<decltype(&::FreeUsedTessorResult)>(Entry("FreeUsedTessorResult"));
  for (const auto& [command, code] : {std::pair{"ATree", 0}, {"NoSuch", 1003}}) {
    Words text = kDot;
    std::uint32_t* right = text.data();
    std::uint32_t* left = nullptr;
    EXPECT_EQ(call1(root.Root().c_str(), command, &right, &left), code);
    EXPECT_EQ(ZBlock(left, give).Value(), ZValue(code));
    give(right);
  }
  give(nullptr);
}

TEST(Init, RefusesASecondRootOfOneNameUntilTheFirstIsClosed) {
  const TestRoot root;
  const auto kick = reinterpret_cast<decltype(&::KickStart)>(Entry("KickStart"));
  EXPECT_EQ(Lib().Init(root.Root()), 1043);
  EXPECT_EQ(kick(root.Root().c_str()), 0);
  EXPECT_EQ(root.Code("AClose", "."), 0);
  EXPECT_EQ(root.Code("ATree", "."), 1006);
  EXPECT_EQ(kick(root.Root().c_str()), 1006);
  EXPECT_EQ(Lib().Init(root.Root()), 0);
  EXPECT_EQ(root.Code("ATree", "."), 0);
}

TEST(ErrorText, IsCutToItsBuffersAndNeverWritesBehindThem) {
  const auto errorText = reinterpret_cast<decltype(&::ErrorText)>(Entry("ErrorText"));
  const auto tell = [&](int code, std::int32_t room) {
    std::string name(72, '#');
    std::string text = name;
    std::int32_t nameSize = room;
    std::int32_t textSize = room;
    EXPECT_EQ(errorText(code, name.data(), &nameSize, text.data(), &textSize), code);
    EXPECT_EQ(static_cast<int>(name.find('#')), nameSize + 1) << "a NUL ends it";
    EXPECT_EQ(static_cast<int>(text.find('#')), textSize + 1);
    return std::string(name.c_str()) + "|" + text.c_str();
  };
  EXPECT_EQ(tell(1010, 64), "ERR_OBJECT_NOT_FOUND|Object not found");
  EXPECT_EQ(tell(1010, 8), "ERR_OBJ|Object ");
  EXPECT_EQ(tell(111, 64), "OS Error|Connection refused");
  EXPECT_EQ(tell(1049, 8), "OS Erro|Unknown");
  EXPECT_EQ(tell(111, 1), "|");
}

TEST(Close, TakesObjectsByTheirNameAndFreesTheirPort) {
  const Paired t("command");
  for (const char* none : {"none", "S.none", ".x", "..", ""})
    EXPECT_EQ(t.root.Code("AClose", none), 1010) << none;
  const auto create = [&](const char* command, const char* name) {
    return t.root.Code(command, OptionList(AtPort(t.port, "command", name, {})));
  };
  for (const char* command : {"ASrv", "AClt"}) EXPECT_EQ(create(command, "C"), 1009);
  for (const char* name : {"C", "S"}) EXPECT_EQ(t.root.Code("AClose", name), 0);
  EXPECT_TRUE(Eventually([&] { return create("ASrv", "S") == 0; }));
}

TEST(Close, TwiceWhileThePeerStaysIsNoError) {
  Dialled t("text");
  EXPECT_EQ(t.root.Code("AClose", "C"), 0);
  EXPECT_EQ(t.root.Code("AClose", "C"), 0);
  EXPECT_EQ(t.root.Wait("C", 0).code, 100) << "a close of one's own is no event";
  EXPECT_EQ(t.peer.ReceiveAll(), "");
  t.peer.Close();
  EXPECT_EQ(t.root.Told("C"), "code 1010");
}

TEST(Arguments, OfTheWrongKindGiveTheCodeOfTheReadFromEveryCommand) {
  const TestRoot root;
  root.Serve("command");
  const ZValue several = Args({"a", "b"});
  const struct {
    const char* command;
    ZValue right;
    int code;
    std::optional<ZValue> left{};
  } cases[] = {
      {"AClose", kMatrix, 1082},
      {"AClose", Args({several, 1}), 1081},
      {"ASetProp", Args({".", "EventMode"}), 1081},
      {"ASetProp", Args({".", "EventMode", several}), 1084},
      {"ASetProp", Args({".", "BufferBlkSize", 0}), 1037},
      {"AGetProp", Args({std::string(65, 'x'), "EventMode"}), 1081},
      {"ASetRelay", Args({"S", "S", "x"}), 1084},
      {"ASetRelay", Args({"S", "S", 100, "text"}), 1086},
      {"ASrv", Args({kMatrix}), 1046},
      {"ASrv", Args({Args({7, "S2"}), Args({"Port", "0"})}), 1045},
      {"AWaitZ", "S", 1081, 1},
      {"AWaitZ", Args({"S", "x"}), 1084, 1},
      {"AWaitZ", Args({"S", several}), 1086, 1},
      {"AWaitZ", Args({kMatrix, 0}), 1082, 1},
      {"ASendZ", Args({"S", "f"}), 1084, 1},
      {"ASendZ", Args({std::string(97, 'x'), 0}), 1081, 1},
      {"ARespondZ", Args({"S"}), 1081, 1},
      {"ARespondZ", Args({kMatrix, 0}), 1082, 1},
  };
  for (const auto& c : cases)
    EXPECT_EQ(root.Code(c.command, c.right, c.left), c.code) << c.command << " " << &c - cases;
  EXPECT_EQ(root.Children("."), Lines{"S"});
}

TEST(Wait, ThatIsAPollComesBackAtOnceAndATimeOutMayBeAnEvent) {
  const TestRoot root;
  root.Serve("command");
  for (const int millis : {0, 20}) {
    root.SetProp(".", "EventMode", 0);
    EXPECT_EQ(root.Wait("S", millis).code, 100);
    root.SetProp(".", "EventMode", 1);
    EXPECT_EQ(Tell(root.Wait("S", millis)), "Timeout S 100");
    EXPECT_EQ(Tell(root.Wait("", millis)), "Timeout  100");
  }
  EXPECT_EQ(root.Wait("none", 0).code, 1010);
}

TEST(Wait, SeesWhatLiesBelowItsObjectAndNothingElse) {
  const Paired t("command");
  t.root.Dial("command", t.port, {}, "C2");
  EXPECT_EQ(t.root.Told("."), "Connect S.CON00000001 0");
  t.root.Send("C.a", 1);
  t.root.Send("C2.b", 2);
  EXPECT_EQ(t.root.Told("S.CON00000001"), "Receive S.CON00000001.b 2");
  EXPECT_EQ(t.root.Wait("S.CON00000001", 0).code, 100);
  EXPECT_EQ(t.root.Told("S.CON00000000.a"), "Receive S.CON00000000.a 1");
  EXPECT_EQ(t.root.Wait("C", 0).code, 100);
}

TEST(Wait, EndsWhenItsObjectVanishes) {
  const Paired t("command");
  auto one = std::async(std::launch::async, [&] { return t.root.Told("S"); });
  auto other = std::async(std::launch::async, [&] { return t.root.Told(t.name); });
  // The line of the root counts its semaphores: one for each thread that waits at the same time.
  EXPECT_TRUE(Eventually([&] { return t.root.Tree().At(0).At(4).Integer() >= 2; }));
  t.root.Close("S");
  EXPECT_EQ(one.get(), "code 1010");
  EXPECT_EQ(other.get(), "code 1010");
}

TEST(Wait, OfSeveralThreadsOnOneObjectGivesEachAnEventOfItsOwnOrATimeOut) {
  const TestRoot root;
  const int port = root.Serve("command");
  std::vector<std::future<std::string>> waiting;
  const auto wait = [&](int millis) {
    waiting.push_back(
        std::async(std::launch::async, [&, millis] { return Tell(root.Wait("S", millis)); }));
  };
  for (int i = 0; i < 4; ++i) wait(20 * i);
  for (auto& w : waiting) EXPECT_EQ(w.get(), "code 100");

  waiting.clear();
  for (int i = 0; i < 4; ++i) wait(kBoundMillis);
  std::vector<RawPeer> peers;
  Lines expected;
  for (int i = 0; i < 4; ++i) {
    peers.emplace_back(port);
    expected.push_back("Connect S.CON0000000" + std::to_string(i) + " 0");
  }
  Lines told;
  for (auto& w : waiting) told.push_back(w.get());
  EXPECT_EQ(Sorted(told), expected);
  EXPECT_EQ(root.Wait("S", 0).code, 100);
}

TEST(HttpDate, IsToldByTheRootAndCannotBeSet) {
  const TestRoot root;
  const std::string date(root.GetProp(".", "httpdate").Text());
  tm parts{};
  const char* const end = strptime(date.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &parts);
  ASSERT_TRUE(end && *end == 0) << date;
  EXPECT_LT(std::time(nullptr) - timegm(&parts), 60);
  EXPECT_EQ(root.Code("ASetProp", Args({".", "HttpDate", date})), 1037);
}

TEST(Fork, LeavesTheParentsRootAloneWhateverTheChildDoes) {
  const TestRoot root;
  const int port = root.Serve("command");
  GTEST_FLAG_SET(death_test_style, "fast");  // a child that goes on from here
  EXPECT_EXIT(_exit(root.Wait("S", 0).code != 0 && root.Code("AClose", ".") == 0 ? 0 : 1),
              testing::ExitedWithCode(0), "");
  const RawPeer peer(port);
  EXPECT_EQ(root.Told("S"), "Connect S.CON00000000 0");
}

}  // namespace
}  // namespace support
