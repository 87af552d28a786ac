// blocks_test.cpp - the modes "blkraw" and "blktext", and what may be sent in the modes that carry
// bytes: vectors, and vectors with a file behind them.
#include <algorithm>

#include "tests/support/session.h"

namespace support {
namespace {

constexpr int kMagic = 0x4B594E4F;

TEST(Blocks, ArriveAsTheyWereSentInTheTypeOfTheMode) {
  for (const auto& [mode, type] : {std::pair{"blkraw", ZType::I2}, std::pair{"blktext", ZType::C1}})
    for (const int magic : {0, kMagic}) {
      const Paired t(mode, {{"Magic", magic}});
      const std::string all = std::string("\0\1\xFE\xFF", 4) + "text";
      for (const std::string& sent : {all, std::string(), std::string("last")})
        t.root.Send("C", sent);
      const Event first = t.root.Next("S");
      EXPECT_EQ(first.value.Type(), type);
      EXPECT_EQ(Tell(first), "Block " + t.name + " " + all);
      EXPECT_EQ(t.root.Told("S", 2), (Lines{"Block " + t.name + " ", "Block " + t.name + " last"}));
      t.root.Respond(t.name, "back", 0);
      EXPECT_EQ(t.root.Told("C"), "Block C back");
    }
}

TEST(Blocks, GoOutBehindTheirLengthAndMagic) {
  Dialled plain("blkraw");
  Dialled marked("blkraw", {{"Magic", kMagic}});
  const std::pair<ZValue, std::string> cases[] = {
      {"bytes", "bytes"},
      {ZValue::Vector<signed char>(ZType::I1, {-1, 65}), "\xFF\x41"},
      {ZValue::Vector<std::int16_t>(ZType::I2, {-128, 255, 65}), "\x80\xFF\x41"},
      {"", ""}};
  for (const auto& [value, payload] : cases) {
    plain.root.Send("C", value);
    EXPECT_EQ(plain.peer.Receive(4 + payload.size()), Block(payload));
    marked.root.Send("C", value);
    EXPECT_EQ(marked.peer.Receive(8 + payload.size()), Block(payload, kMagic));
  }
  plain.root.Send("C", "one", host::kSendReport);
  EXPECT_EQ(plain.root.Told("C"), "Sent C.Auto00000004 0");
  plain.root.Send("C", "two", host::kSendAndClose);
  EXPECT_EQ(plain.peer.ReceiveAll(), Block("one") + Block("two"));
}

TEST(Blocks, MayArriveInPiecesOrManyAtOnce) {
  Served t("blktext", {{"Magic", kMagic}});
  const std::string one = Block("piece", kMagic);
  for (std::size_t piece = 1; piece <= one.size(); ++piece) {
    t.peer.SendApart(one, piece);
    ASSERT_EQ(t.root.Told("S"), "Block " + t.name + " piece");
  }
  std::string many;
  Lines expected;
  for (int i = 0; i < 500; ++i) {
    many += Block(std::to_string(i), i % 2 ? kMagic : 0);  // no magic at all passes as well
    expected.push_back("Block " + t.name + " " + std::to_string(i));
  }
  t.peer.Send(many);
  EXPECT_EQ(t.root.Told("S", 500), expected);
}

TEST(Blocks, WithAWrongHeaderOrEndFailBehindTheWholeOnes) {
  const std::string most(92, 'x');  // the limit counts the header
  const struct {
    const char* what;
    int magic;
    std::string bytes;
    int code;
  } cases[] = {{"another magic", kMagic, Word(12) + Word(kMagic + 1) + "more", 1130},
               {"length 0", 0, Word(0) + "more", 1130},
               {"length 3", 0, Word(3) + "more", 1130},
               {"length 7", kMagic, Word(7) + Word(kMagic), 1130},
               {"length 4 GiB", 0, Word(0xFFFFFFFF) + "more", 1135},
               {"one byte too many", kMagic, Block(most + "x", kMagic), 1135},
               {"cut off by the close", 0, Block("half").substr(0, 6), 1119}};
  for (const auto& c : cases) {
    Served t("blktext", {{"Magic", c.magic}, {"BufferSize", 100}});
    t.peer.Send((c.magic ? Block(most, kMagic) : Block(most)) + c.bytes);
    if (c.code == 1119) t.peer.EndSending();
    EXPECT_EQ(t.root.Told("S", 2), (Lines{"Block " + t.name + " " + most,
                                          "Error " + t.name + " " + std::to_string(c.code)}))
        << c.what;
  }
}

TEST(Files, GoOutBehindTheirHeadAndAreFramedWithIt) {
  Dialled raw("raw");
  Dialled block("blkraw", {{"Magic", kMagic}});
  // Around the window that is read at a time.
  for (const std::size_t window : {16UL, 131072UL})
    for (const auto& [size, head] : std::initializer_list<std::pair<std::size_t, std::string>>{
             {0, ""},
             {0, "head"},
             {window - 4, "head"},
             {window - 1, ""},
             {window, "head"},
             {window + 1, "longer than a small window"},
             {5 * window + 3, ""},
             {5 * window + 3, "head"}}) {
      for (Dialled* t : {&raw, &block})
        t->root.SetProp(".", "BufferBlkSize", static_cast<int>(window));
      std::string content(size, '\0');
      for (std::size_t i = 0; i < size; ++i) content[i] = static_cast<char>(i * 31 >> 3);
      const TempFile file(content);
      const std::string expected = head + content;
      raw.root.Send("C", Args({head, file.path}));
      EXPECT_TRUE(raw.peer.Receive(expected.size()) == expected) << head << size;
      block.root.Send("C", Args({head, file.path}));
      EXPECT_TRUE(block.peer.Receive(8 + expected.size()) == Block(expected, kMagic)) << size;
    }
}

TEST(Files, GoOutOneAfterTheOtherToAPeerThatReadsLate) {
  std::string content(1500007, '\0');
  for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 31 >> 3);
  const TempFile file(content);
  Dialled t("raw");
  std::string expected;
  for (int i = 0; i < 40; ++i) {
    const std::string head = "<" + std::to_string(i) + ">";
    t.root.Send("C", Args({head, file.path}));
    expected += head + content;
  }
  // Each read frees room for a part of a window.
  std::string all;
  while (all.size() < expected.size())
    all += t.peer.Receive(std::min<std::size_t>(40009, expected.size() - all.size()));
  EXPECT_TRUE(all == expected);
}

TEST(Files, ThatCannotBeSentGiveACodeAndTheConnectionLives) {
  const TempFile file("content");
  const struct {
    const char* what;
    ZValue value;
    int code;
  } cases[] = {
      {"missing", Args({"head", "/nowhere/at/all"}), 1039},
      {"a directory", Args({"head", "/tmp"}), 1039},
      {"a NUL inside the name", Args({"head", file.path + std::string("\0.txt", 5)}), 1039},
      {"no name", Args({"head", ""}), 1039},
      {"three parts", Args({"head", file.path, "tail"}), 1001},
      {"a matrix", ZValue(ZType::C1, {1, 2}, {'a', 'b'}), 1002},
      {"integers of four bytes", ZValue::Vector<std::int32_t>(ZType::I4, {1, 2}), 1001},
      {"an integer that is no byte", ZValue::Vector<std::int16_t>(ZType::I2, {256}), 1004},
  };
  for (const std::string mode : {"raw", "blktext"}) {
    Dialled t(mode);
    for (const auto& c : cases)
      EXPECT_EQ(t.root.Code("ASendZ", Args({"C", 0}), c.value), c.code) << mode << ": " << c.what;
    t.root.Send("C", "alive", host::kSendAndClose);
    EXPECT_EQ(t.peer.ReceiveAll(), mode == "raw" ? "alive" : Block("alive"));
  }
}

}  // namespace
}  // namespace support
