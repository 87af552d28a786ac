// closing_test.cpp - a command that is closed in the middle of something.
#include <gtest/gtest.h>

#include "tests/support/rawpeer.h"
#include "tests/support/session.h"

namespace support {
namespace {

std::string Message(IpmType type, const std::string& name, const std::string& sub = "") {
  return Ipm{type, name, ZBytes(std::string(1000, 'x')), sub}.Bytes();
}

TEST(Closing, ACommandWhoseReportOrAnswerComesInKeepsTheStreamInStep) {
  for (const IpmType type : {kIpmProgress, kIpmAnswer}) {
    Dialled t("command");
    t.root.Send("C.gone", 1, host::kSendReport);
    t.root.Send("C.stays", 1);
    Ipm::Read(t.peer);
    Ipm::Read(t.peer);

    // Half of it has been read when the command goes: "Sent" waits, so an answer can't be told yet.
    const std::string half = Message(type, "gone", type == kIpmProgress ? "p" : "");
    t.peer.SendApart(half.substr(0, 600), 600);
    t.root.Close("C.gone");
    EXPECT_TRUE(Eventually([&] { return t.root.Code("ATree", "C.gone") == 1010; }));
    t.peer.Send(half.substr(600) + Message(kIpmAnswer, "stays"));
    EXPECT_EQ(t.root.Next("C").name, "C.stays") << type;
  }
}

TEST(Closing, ACommandWaitsForItsHalfSentReport) {
  Served t("command");
  const TestRoot& root = t.root;
  const std::string& name = t.name;
  t.peer.Send(Message(kIpmCommand, "a") + Message(kIpmCommand, "b"));
  EXPECT_EQ(root.Next("S").name, name + ".a");
  EXPECT_EQ(root.Next("S").name, name + ".b");

  // More than the sockets hold: it is half out when its command goes.
  root.Code("ARespondZ", Args({name + ".a", 0}), std::string(16 << 20, 'r'));
  constexpr int kSending = 7;
  const std::string report = name + ".a.Progress00000000";
  EXPECT_TRUE(Eventually([&] { return root.State(report) == kSending; }));
  EXPECT_EQ(root.Code("AClose", report), 1127);
  root.Close(name + ".a");
  root.Code("ARespondZ", Args({name + ".b", 1}), 1);
  EXPECT_EQ(Ipm::Read(t.peer).subname, "Progress00000000");
  EXPECT_EQ(Ipm::Read(t.peer).name, "b");
}

}  // namespace
}  // namespace support
