// streams_test.cpp - the modes "raw" and "text": how a stream without framing becomes blocks.
#include "tests/support/session.h"

namespace support {
namespace {

/// What arrives, each piece read apart, and what is told of it. The last one is what the close
/// leaves over.
struct Cut {
  const char* what;
  Options options;
  Lines pieces;
  Lines blocks;
};

const Cut kCuts[] = {
    {"no stop list: every read", {}, {"abc", "def"}, {"abc", "def", ""}},
    {"nothing at all", {{"EOM", "\n"}}, {}, {""}},
    {"line ends", {{"EOM", Args({"\r\n", "\n"})}}, {"a\nb\r\n\nc"}, {"a\n", "b\r\n", "\n", "c"}},
    {"stop across reads", {{"EOM", "END"}}, {"xE", "N", "Dy", "zEND"}, {"xEND", "yzEND", ""}},
    {"false start of a stop", {{"EOM", "aab"}}, {"aa", "ab", "a"}, {"aaab", "a"}},
    {"case blind unless told otherwise", {{"EOM", "END"}}, {"1end2End3"}, {"1end", "2End", "3"}},
    {"case aware", {{"EOM", "END"}, {"IgnoreCase", "No"}}, {"1end2END3"}, {"1end2END", "3"}},
    {"case blind by any truth", {{"EOM", "E"}, {"IgnoreCase", "  yes"}}, {"1e2"}, {"1e", "2"}},
    {"case aware by no truth", {{"EOM", "E"}, {"IgnoreCase", ""}}, {"1e2E"}, {"1e2E", ""}},
    {"earliest, then first", {{"EOM", Args({"b", "abc", "ab"})}}, {"xabcx"}, {"xabc", "x"}},
    {"no letters", {{"EOM", Args({"{", "\xff"})}}, {"x[{y\xffz"}, {"x[{", "y\xff", "z"}},
    {"an empty stop cuts nothing", {{"EOM", Args({"END", ""})}}, {"1END2"}, {"1END2"}},
    {"over size", {{"EOM", "\n"}, {"BufferSize", 4}}, {"abcdefg", "\n"}, {"abcd", "efg\n", ""}},
    {"a buffer of one byte", {{"BufferSize", 1}}, {"abc"}, {"a", "b", "c", ""}},
};

Lines Expected(const Lines& blocks, const std::string& name) {
  Lines lines;
  for (const std::string& block : blocks) lines.push_back("Block " + name + " " + block);
  lines.back().replace(0, 5, "BlockLast");
  lines.push_back("code 1010");  // no event follows the last block
  return lines;
}

class Streams : public testing::TestWithParam<std::string> {};
INSTANTIATE_TEST_SUITE_P(Modes, Streams, testing::Values("raw", "text"),
                         [](const auto& test) { return test.param; });

TEST_P(Streams, AreCutByTheirRulesAtServersAndClients) {
  const auto expect = [](const Cut& c, auto& t, const std::string& name) {
    for (const std::string& piece : c.pieces) t.peer.SendApart(piece, piece.size());
    t.peer.Close();
    EXPECT_EQ(t.root.Told(name, static_cast<int>(c.blocks.size()) + 1), Expected(c.blocks, name))
        << c.what;
  };
  for (const Cut& c : kCuts) {
    Served served(GetParam(), c.options);
    expect(c, served, served.name);
    Dialled dialled(GetParam(), c.options);
    expect(c, dialled, "C");
  }
}

TEST_P(Streams, ThatFillTheBufferAreSearchedFirstOnlyForAListOfTheirOwn) {
  const Options options{{"EOM", "\n"}, {"BufferSize", 4}};
  Served served(GetParam(), options);
  served.peer.Send("a\nbc");
  EXPECT_EQ(served.root.Told("S"), "Block " + served.name + " a\nbc");

  Dialled dialled(GetParam(), options);
  dialled.peer.Send("a\nbc");
  EXPECT_EQ(dialled.root.Told("C"), "Block C a\n");
  dialled.peer.Send("\n");
  EXPECT_EQ(dialled.root.Told("C"), "Block C bc\n");
}

TEST_P(Streams, LoseNoneOfManyBlocksInOneRead) {
  Served t(GetParam(), {{"EOM", "\n"}});
  std::string bytes;
  Lines blocks;
  for (int i = 0; i < 3000; ++i) bytes += blocks.emplace_back(std::to_string(i) + "\n");
  blocks.emplace_back();
  t.peer.Send(bytes);
  t.peer.Close();
  EXPECT_EQ(t.root.Told(t.name, 3002), Expected(blocks, t.name));
}

TEST_P(Streams, DeliverTheTypeOfTheModeAndSendBytesAsTheyAre) {
  Served t(GetParam());
  const std::string all("\0\1\x7F\x80\xFF", 5);
  t.peer.Send(all);
  const Event told = t.root.Next("S");
  EXPECT_EQ(told.value.Bytes(), all);
  EXPECT_EQ(told.value.Type(), GetParam() == "raw" ? ZType::I2 : ZType::C1);

  t.root.Respond(t.name, told.value, host::kSendPlain);
  t.root.Send(t.name, "!", host::kSendReport);
  EXPECT_EQ(t.root.Told("S"), "Sent " + t.name + ".Auto00000001 0");
  t.root.Send(t.name, "", host::kSendAndClose);
  EXPECT_EQ(t.peer.ReceiveAll(), all + "!");
}

TEST_P(Streams, TakeANewStopListWhileTheyRun) {
  Served t(GetParam(), {{"EOM", "\n"}});
  t.root.SetProp("S", "EOM", ";");
  t.peer.Send("a\nb;c");
  EXPECT_EQ(t.root.Told("S"), "Block " + t.name + " a\nb;");

  // A new list applies to what has been read and searched as well.
  t.peer.SendApart("d|e", 3);
  t.root.SetProp("S", "EOM", "|");
  t.peer.Send("f");
  EXPECT_EQ(t.root.Told("S"), "Block " + t.name + " cd|");
}

}  // namespace
}  // namespace support
