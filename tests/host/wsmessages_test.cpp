// wsmessages_test.cpp - messages from their frames.
#include "host/wsmessages.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "host/notation.h"

namespace {

using host::TextValue;
using host::WsMessage;
using host::ZValue;

ZValue Frame(const ZValue& data, bool last) { return ZValue::List({data, last ? 1 : 0, 1}); }

TEST(WsMessage, JoinsFramesOfDifferentWidths) {
  WsMessage message;
  EXPECT_FALSE(message.Add(Frame(TextValue("caf\u00e9 "), false)));
  EXPECT_FALSE(message.Add(Frame(TextValue(""), false)));
  EXPECT_EQ(message.Add(Frame(TextValue("\u03c0 \U0001F980"), true)),
            TextValue("caf\u00e9 \u03c0 \U0001F980"));
  EXPECT_EQ(message.Add(Frame("next", true)), ZValue("next"));
}

TEST(WsMessage, EndsAMessageThatNeverEnds) {
  const ZValue part(std::string(host::kMaxMessageBytes / 2, 'x'));
  WsMessage message;
  EXPECT_FALSE(message.Add(Frame(part, false)));
  EXPECT_FALSE(message.Add(Frame(part, false)));
  EXPECT_THROW(message.Add(Frame("x", false)), std::length_error);
}

}  // namespace
