// talk_test.cpp - lines that wait for a session, blocks that are counted, and how they are shown.
#include "host/talk.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "host/commands.h"

namespace {

using host::Console;
using host::Talk;

/// Standard input of a talk.
struct Input {
  Input() { EXPECT_EQ(pipe(ends), 0); }
  ~Input() {
    close(ends[0]);
    End();
  }
  void Write(const std::string& text) const {
    EXPECT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void End() { close(std::exchange(ends[1], -1)); }

  int ends[2];
};

TEST(Talk, ReadsWhileASessionStandsAndEndsWithTheLastLine) {
  const Console console(false);
  Input input;
  Talk talk(console, {.waitMillis = 0}, input.ends[0]);
  EXPECT_EQ(talk.InputFd(), -1);
  talk.Connected();

  input.Write("one\n\ntwo");
  ASSERT_EQ(talk.InputFd(), input.ends[0]);
  talk.ReadInput();
  for (const char* const line : {"one", ""}) {
    ASSERT_TRUE(talk.Line());
    EXPECT_EQ(*talk.Line(), line);
    EXPECT_EQ(talk.InputFd(), -1);
    talk.Sent();
  }
  EXPECT_FALSE(talk.Line());

  input.End();
  talk.ReadInput();
  ASSERT_TRUE(talk.Line());
  EXPECT_EQ(*talk.Line(), "two");
  EXPECT_FALSE(talk.IsOver());
  talk.Sent();
  EXPECT_TRUE(talk.IsOver());
}

TEST(Talk, EchoesAsManyBlocksAsCount) {
  const Console console(false);
  Talk talk(console, {.echo = true, .count = 2, .waitMillis = 0}, -1);
  talk.Connected();
  for (const char* const block : {"a", ""}) {
    EXPECT_FALSE(talk.IsOver());
    const std::string* const back = talk.Block(block);
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, block);
  }
  EXPECT_TRUE(talk.IsOver());
  EXPECT_FALSE(talk.Block("c"));
}

TEST(Talk, ShowsEachBlockOnOneLine) {
  EXPECT_EQ(host::BlockText("[\"Execute\",{\"text\":\"\u2374\"}]"),
            "[\"Execute\",{\"text\":\"\u2374\"}]");
  EXPECT_EQ(host::BlockText("a\nb"), "\"a\\nb\"");
  EXPECT_EQ(host::BlockText("\xff\x01"), "[255,1]");
}

TEST(Meeting, IsACallOrAListenerOrAUrl) {
  const host::Meeting call = host::ParseMeeting("[::1]:4502", "");
  EXPECT_EQ(call.end.address, "::1");
  EXPECT_FALSE(call.listens || call.url);
  const host::Meeting listener = host::ParseMeeting("", "4502");
  EXPECT_EQ(listener.end.port, "4502");
  EXPECT_TRUE(listener.listens && listener.end.address.empty());
  const host::Meeting web = host::ParseMeeting("wss://h:8080/x", "");
  ASSERT_TRUE(web.url);
  EXPECT_EQ(web.end.port, "8080");
  for (const auto& [peer, listen] :
       {std::pair{"", ""}, {"h:1", "2"}, {"4502", ""}, {"http://h/", ""}})
    EXPECT_THROW(host::ParseMeeting(peer, listen), std::invalid_argument) << peer;
}

}  // namespace
