// bufferfile_test.cpp - a file sent through one array.
#include "kyrno/net/bufferfile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "kyrno/base/error.h"

namespace {

// The window is small, so that short files are refilled too.
class BufferFile : public testing::Test {
 protected:
  void SetUp() override { BufferBlkSize = 16; }
  void TearDown() override { BufferBlkSize = 131072; }
};

std::string Text(size_t n) {
  std::string text(n, '\0');
  for (size_t i = 0; i < n; ++i) text[i] = static_cast<CH1>('a' + i % 23);
  return text;
}

int FileOf(const std::string& content) {
  const int file = open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  EXPECT_EQ(write(file, content.data(), content.size()), static_cast<ssize_t>(content.size()));
  return file;
}

// Everything that a sender with a socket of this capacity would send.
std::string SendAll(BUFFER& b, UI4 capacity) {
  std::string sent;
  while (!b.Complete() && !b.lError) {
    const UI4 n = std::min(b.NextSize(), capacity);
    sent.append(b.Next(), n);
    b.NextProcessed(n);
  }
  return sent;
}

TEST_F(BufferFile, SendsTheLeadingPartsAndThenTheWholeFile) {
  for (const size_t lead : {0u, 1u, 15u, 16u, 17u, 40u}) {
    for (const size_t length : {0u, 1u, 15u, 16u, 17u, 31u, 32u, 33u, 100u}) {
      for (const UI4 capacity : {1u, 5u, 16u, 1000u}) {
        SCOPED_TRACE(testing::Message() << lead << " + " << length << " by " << capacity);
        const std::string head = Text(lead), content = Text(length);
        const UI4 cut = static_cast<UI4>(lead / 3);
        BUFFERFILE b(cut, head.data(), static_cast<UI4>(lead) - cut, head.data() + cut,
                     FileOf(content));
        ASSERT_EQ(b.lError, 0);
        EXPECT_LE(b.TotalSize(), std::max<size_t>(lead, 16));
        EXPECT_EQ(SendAll(b, capacity), head + content);
      }
    }
  }
}

TEST_F(BufferFile, WhatHasNoLengthIsRefusedAndClosed) {
  const int directory = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (const int file : {directory, -1}) EXPECT_EQ(BUFFERFILE(4, "head", file).lError, ERR_FILE);
  EXPECT_EQ(fcntl(directory, F_GETFD), -1);
}

}  // namespace
