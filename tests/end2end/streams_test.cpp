// streams_test.cpp - the modes "raw" and "text": how a stream without framing becomes blocks.
#include <gtest/gtest.h>

#include "tests/support/rawpeer.h"
#include "tests/support/session.h"

namespace support {
namespace {

using host::ZType;
using host::ZValue;
using Lines = std::vector<std::string>;

/// What arrives, each piece read apart, and what is told of it. The last one is what the close
/// leaves over.
struct Cut {
  const char* what;
  host::Options options;
  Lines pieces;
  Lines blocks;
};

const Cut kCuts[] = {
    {"no stop list: every read", {}, {"abc", "def"}, {"abc", "def", ""}},
    {"nothing at all", {}, {}, {""}},
    {"nothing at all, with a stop list", {{"EOM", "\n"}}, {}, {""}},
    {"two kinds of line end",
     {{"EOM", Args({"\r\n", "\n"})}},
     {"a\nb\r\n\nrest"},
     {"a\n", "b\r\n", "\n", "rest"}},
    {"stop across reads", {{"EOM", "END"}}, {"xE", "N", "Dy", "zEND"}, {"xEND", "yzEND", ""}},
    {"false start of a stop", {{"EOM", "aab"}}, {"aa", "ab", "a"}, {"aaab", "a"}},
    {"case blind unless told otherwise", {{"EOM", "END"}}, {"1end2End3"}, {"1end", "2End", "3"}},
    {"case aware", {{"EOM", "END"}, {"IgnoreCase", "No"}}, {"1end2END3"}, {"1end2END", "3"}},
    {"earliest stop wins, then the first of the list",
     {{"EOM", Args({"b", "abc", "ab"})}},
     {"xabcx"},
     {"xabc", "x"}},
    {"a list of one", {{"EOM", Args({";"})}}, {"a;b;"}, {"a;", "b;", ""}},
    {"longer than the buffer",
     {{"EOM", "\n"}, {"BufferSize", 4}},
     {"abcdefg", "\n"},
     {"abcd", "efg\n", ""}},
    {"a buffer of one byte", {{"BufferSize", 1}}, {"abc"}, {"a", "b", "c", ""}},
};

Lines Expected(const Lines& blocks, const std::string& name) {
  Lines lines;
  for (const std::string& block : blocks) lines.push_back("Block " + name + " " + block);
  lines.back().replace(0, 5, "BlockLast");
  return lines;
}

class Streams : public testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(Modes, Streams, testing::Values("raw", "text"));

TEST_P(Streams, OfAServersPeersAreCutByItsRules) {
  for (const Cut& c : kCuts) {
    const TestRoot root;
    RawPeer peer(root.Serve(GetParam(), c.options));
    const std::string name = root.Next("S").name;
    for (const std::string& piece : c.pieces) peer.SendApart(piece, piece.size());
    peer.Close();
    EXPECT_EQ(root.Told("S", static_cast<int>(c.blocks.size())), Expected(c.blocks, name))
        << c.what;
    EXPECT_EQ(root.Told(name), "code 1010") << "no event follows the last block: " << c.what;
  }
}

TEST_P(Streams, OfAClientAreCutByItsOwnRules) {
  for (const Cut& c : kCuts) {
    const TestRoot root;
    RawListener listener;
    root.Dial(GetParam(), listener.Port(), c.options);
    RawPeer peer = listener.Accept();
    for (const std::string& piece : c.pieces) peer.SendApart(piece, piece.size());
    peer.Close();
    EXPECT_EQ(root.Told("C", static_cast<int>(c.blocks.size())), Expected(c.blocks, "C")) << c.what;
  }
}

TEST_P(Streams, ThatFillTheBufferAreSearchedFirstOnlyForAListOfTheirOwn) {
  const host::Options options{{"EOM", "\n"}, {"BufferSize", 4}};
  const TestRoot root;
  RawPeer peer(root.Serve(GetParam(), options));
  const std::string name = root.Next("S").name;
  peer.Send("a\nbc");
  EXPECT_EQ(root.Told("S"), "Block " + name + " a\nbc");

  RawListener listener;
  root.Dial(GetParam(), listener.Port(), options);
  RawPeer other = listener.Accept();
  other.Send("a\nbc");
  EXPECT_EQ(root.Told("C"), "Block C a\n");
  other.Send("\n");
  EXPECT_EQ(root.Told("C"), "Block C bc\n");
}

TEST_P(Streams, LoseNoneOfManyBlocksInOneRead) {
  const TestRoot root;
  RawPeer peer(root.Serve(GetParam(), {{"EOM", "\n"}}));
  const std::string name = root.Next("S").name;
  std::string bytes;
  Lines expected;
  for (int i = 0; i < 3000; ++i) {
    bytes += std::to_string(i) + "\n";
    expected.push_back(std::to_string(i) + "\n");
  }
  expected.emplace_back();
  peer.Send(bytes);
  peer.Close();
  EXPECT_EQ(root.Told("S", 3001), Expected(expected, name));
}

TEST_P(Streams, DeliverTheTypeOfTheModeAndSendBytesAsTheyAre) {
  const TestRoot root;
  RawPeer peer(root.Serve(GetParam()));
  const std::string name = root.Next("S").name;
  const std::string all("\0\1\x7F\x80\xFF", 5);
  peer.Send(all);
  const host::Event told = root.Next("S");
  EXPECT_EQ(told.value.Bytes(), all);
  EXPECT_EQ(told.value.Type(), GetParam() == std::string("raw") ? ZType::I2 : ZType::C1);

  root.Respond(name, told.value, host::kSendPlain);
  root.Send(name, "!", host::kSendReport);
  EXPECT_EQ(root.Told("S"), "Sent " + name + ".Auto00000001 0");
  root.Send(name, "", host::kSendAndClose);
  EXPECT_EQ(peer.ReceiveAll(), all + "!");
}

TEST_P(Streams, TakeANewStopListWhileTheyRun) {
  const TestRoot root;
  RawPeer peer(root.Serve(GetParam(), {{"EOM", "\n"}}));
  const std::string name = root.Next("S").name;
  root.SetProp("S", "EOM", ";");
  peer.Send("a\nb;c");
  EXPECT_EQ(root.Told("S"), "Block " + name + " a\nb;");
}

TEST(StreamOptions, ThatCannotBeReadGiveACode) {
  const struct {
    const char* mode;
    host::Options options;
    int code;
    bool stays;  // the object is there all the same, and for the application to close
  } cases[] = {
      {"raw", {{"EOM", 7}}, 1047, true},
      {"raw", {{"EOM", Args({"a", 7})}}, 1047, true},
      {"text", {{"EOM", ZValue(ZType::C1, {1, 2}, {'a', 'b'})}}, 1047, true},
      {"command", {{"EOM", "a"}}, 1008, true},
      {"blktext", {{"EOM", "a"}}, 1008, true},
      {"raw", {{"BufferSize", 0}}, 1045, false},
      {"text", {{"BufferSize", 0}}, 1045, false},
      {"blkraw", {{"BufferSize", 0}}, 1045, false},
      {"raw", {{"BufferSize", "many"}}, 1045, false},
      {"nosuch", {}, 1045, false},
      {"raw", {{"NoSuch", 1}}, 1045, false},
  };
  RawListener listener;
  for (const auto& c : cases)
    for (const char* command : {"ASrv", "AClt"}) {
      const TestRoot root;
      const bool server = command == std::string("ASrv");
      host::Options options{{"Name", "X"},
                            {"Address", "127.0.0.1"},
                            {"Port", server ? "0" : std::to_string(listener.Port())},
                            {"Mode", c.mode}};
      options.insert(options.end(), c.options.begin(), c.options.end());
      EXPECT_EQ(root.Code(command, host::OptionList(options)), c.code) << command << " " << c.mode;
      EXPECT_EQ(root.Children("."), c.stays ? Lines{"X"} : Lines{}) << command << " " << c.mode;
    }
}

}  // namespace
}  // namespace support
