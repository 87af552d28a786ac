// blocks_test.cpp - the modes "blkraw" and "blktext", and what may be sent in the modes that carry
// bytes: vectors, and vectors with a file behind them.
#include <gtest/gtest.h>

#include "tests/support/rawpeer.h"
#include "tests/support/session.h"

namespace support {
namespace {

using host::Event;
using host::ZType;
using host::ZValue;
using Lines = std::vector<std::string>;

constexpr int kMagic = 0x4B594E4F;

/// A block server "S" with one peer.
struct Served {
  TestRoot root;
  RawPeer peer;
  std::string name;

  explicit Served(const std::string& mode, const host::Options& more = {})
      : peer(root.Serve(mode, more)), name(root.Next("S").name) {}
};

/// A client "C" whose peer the test plays itself.
struct Dialled {
  TestRoot root;
  RawListener listener;
  RawPeer peer;

  explicit Dialled(const std::string& mode, const host::Options& more = {})
      : peer((root.Dial(mode, listener.Port(), more), listener.Accept())) {}
};

TEST(Blocks, ArriveAsTheyWereSentInTheTypeOfTheMode) {
  for (const auto& [mode, type] : {std::pair{"blkraw", ZType::I2}, std::pair{"blktext", ZType::C1}})
    for (const int magic : {0, kMagic}) {
      const TestRoot root;
      const host::Options options{{"Magic", magic}};
      root.Dial(mode, root.Serve(mode, options), options);
      const std::string peer = root.Next("S").name;
      const std::string all = std::string("\0\1\xFE\xFF", 4) + "text";
      root.Send("C", all);
      root.Send("C", "");
      root.Send("C", "last");

      const Event first = root.Next("S");
      EXPECT_EQ(first.event, "Block");
      EXPECT_EQ(first.name, peer);
      EXPECT_EQ(first.value.Type(), type);
      EXPECT_EQ(first.value.Bytes(), all);
      EXPECT_EQ(root.Told("S", 2), (Lines{"Block " + peer + " ", "Block " + peer + " last"}));

      root.Respond(peer, "back", 0);
      EXPECT_EQ(root.Told("C"), "Block C back");
    }
}

TEST(Blocks, GoOutBehindTheirLengthAndMagic) {
  for (const int magic : {0, kMagic}) {
    Dialled t("blkraw", {{"Magic", magic}});
    const auto expect = [&](const std::string& payload) {
      const std::string block = magic ? Block(payload, kMagic) : Block(payload);
      EXPECT_EQ(t.peer.Receive(block.size()), block);
    };
    t.root.Send("C", "bytes");
    expect("bytes");
    t.root.Send("C", ZValue::Vector<signed char>(ZType::I1, {-1, 65}));
    expect("\xFF\x41");
    t.root.Send("C", ZValue::Vector<std::int16_t>(ZType::I2, {-128, 255, 65}));
    expect("\x80\xFF\x41");
    t.root.Send("C", "");
    expect("");
  }
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

TEST(Blocks, HaveALimitThatCountsTheirHeader) {
  const std::string largest(92, 'x');
  Served t("blktext", {{"Magic", kMagic}, {"BufferSize", 100}});
  t.peer.Send(Block(largest, kMagic) + Block(largest + "x", kMagic));
  EXPECT_EQ(t.root.Told("S", 2),
            (Lines{"Block " + t.name + " " + largest, "Error " + t.name + " 1135"}));
}

TEST(Blocks, WithAWrongHeaderEndTheirConnection) {
  const struct {
    const char* what;
    int magic;
    std::string header;
    int code;
  } cases[] = {{"another magic", kMagic, Word(12) + Word(kMagic + 1), 1130},
               {"length 0", 0, Word(0), 1130},
               {"length 3", 0, Word(3), 1130},
               {"length 7", kMagic, Word(7) + Word(kMagic), 1130},
               {"length 4 GiB", 0, Word(0xFFFFFFFF), 1135}};
  for (const auto& c : cases) {
    Served t("blkraw", {{"Magic", c.magic}});
    t.peer.Send(c.header + "more");
    EXPECT_EQ(t.root.Told("S"), "Error " + t.name + " " + std::to_string(c.code)) << c.what;
  }
}

TEST(Blocks, CutOffByACloseAreDroppedAndTheCloseIsTold) {
  Served t("blktext");
  t.peer.Send(Block("whole") + Block("half").substr(0, 6));
  t.peer.Close();
  EXPECT_EQ(t.root.Told("S", 2),
            (Lines{"Block " + t.name + " whole", "Error " + t.name + " 1119"}));
}

TEST(Blocks, MayBeAskedToReportAndToClose) {
  Dialled t("blktext");
  t.root.Send("C", "one", host::kSendReport);
  EXPECT_EQ(t.root.Told("C"), "Sent C.Auto00000000 0");
  t.root.Send("C", "two", host::kSendAndClose);
  EXPECT_EQ(t.peer.ReceiveAll(), Block("one") + Block("two"));
}

TEST(Files, GoOutBehindTheirHeadAndAreFramedWithIt) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{5}, std::size_t{131068},
                                 std::size_t{131072}, std::size_t{700001}}) {
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i) content[i] = static_cast<char>(i * 31 >> 3);
    const TempFile file(content);
    for (const std::string head : {"", "head"}) {
      Dialled raw("raw");
      raw.root.Send("C", Args({head, file.Path()}));
      EXPECT_EQ(raw.peer.Receive(head.size() + size), head + content);

      Dialled block("blkraw", {{"Magic", kMagic}});
      block.root.Send("C", Args({head, file.Path()}));
      const std::string expected = Block(head + content, kMagic);
      EXPECT_TRUE(block.peer.Receive(expected.size()) == expected) << head << size;
    }
  }
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
      {"a NUL in the name", Args({"head", file.Path() + std::string(1, '\0')}), 1039},
      {"a NUL inside the name", Args({"head", file.Path() + std::string("\0.txt", 5)}), 1039},
      {"no name", Args({"head", ""}), 1039},
      {"three parts", Args({"head", file.Path(), "tail"}), 1001},
      {"a matrix", ZValue(ZType::C1, {1, 2}, {'a', 'b'}), 1002},
      {"integers of four bytes", ZValue::Vector<std::int32_t>(ZType::I4, {1, 2}), 1001},
      {"an integer that is no byte", ZValue::Vector<std::int16_t>(ZType::I2, {256}), 1004},
      {"floating numbers", ZValue(2.5), 1001},
  };
  for (const char* mode : {"raw", "blktext"}) {
    Dialled t(mode);
    for (const auto& c : cases)
      EXPECT_EQ(t.root.Code("ASendZ", Args({"C", 0}), c.value), c.code) << mode << ": " << c.what;
    t.root.Send("C", "alive", host::kSendAndClose);
    EXPECT_EQ(t.peer.ReceiveAll(), mode == std::string("raw") ? "alive" : Block("alive"));
  }
}

}  // namespace
}  // namespace support
