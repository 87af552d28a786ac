// buffer_test.cpp - what of the byte container no message on the wire shows.
#include "kyrno/net/buffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

namespace {

TEST(Buffer, AWholeOneKeepsItsBytesWhenItOutgrowsItsPiece) {
  for (const UI4 n : {0u, 100u, 1000u, 5000u}) {
    const std::unique_ptr<BUFFER> b(BUFFER::NewWhole(n));
    ASSERT_TRUE(b);
    EXPECT_FALSE(b->Complete() && n > 0);
    if (n > 0) memset(b->Start(), 'w', n);
    b->Resize(n + 2000);
    b->NextProcessed(n);
    b->Append(std::string(2000, 'x').data(), 2000);
    EXPECT_EQ(std::string(b->Start(), b->SizeProcessed()),
              std::string(n, 'w') + std::string(2000, 'x'));
  }
}

}  // namespace
