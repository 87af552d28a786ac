// vatrans_test.cpp - byte tables.
#include "Apl/vatrans.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace {

// Moves every byte on by this many.
void Install(UI1 shift) {
  CH1 table[256];
  for (int i = 0; i < 256; ++i) table[i] = static_cast<CH1>(i + shift);
  SetChar2av(table);
}

TEST(Vatrans, TranslatesAWholeTextByOneTableWhileAnotherIsInstalled) {
  Install(1);
  std::thread installer([&] {
    for (int i = 0; i < 500; ++i) Install(i % 2 ? 1 : 2);
  });
  for (int i = 0; i < 500; ++i) {
    std::string text(100, 'a');
    VA2avn(text.data(), 100);
    EXPECT_EQ(text, std::string(100, text[0]));
    EXPECT_TRUE(text[0] == 'b' || text[0] == 'c');
  }
  installer.join();
  Install(0);
}

}  // namespace
