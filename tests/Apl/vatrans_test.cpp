// vatrans_test.cpp - byte tables and the translate file.
#include "Apl/vatrans.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>
#include <utility>

#include "kyrno/base/error.h"

namespace {

std::string Table(UI1 shift) {
  std::string table(256, '\0');
  for (size_t i = 0; i < 256; ++i) table[i] = static_cast<CH1>(i + shift);
  return table;
}

// A translate file, in use while it lives.
class TransFile {
 public:
  explicit TransFile(const std::string& content) {
    path = testing::TempDir() + "trans" + std::to_string(getpid());
    std::ofstream(path) << content;
    pAPLUnicodeFile = path.c_str();
  }
  ~TransFile() {
    pAPLUnicodeFile = nullptr;
    unlink(path.c_str());
  }

 private:
  std::string path;
};

struct ListFree {
  ~ListFree() {
    while (head) delete std::exchange(head, head->pNextTrans);
  }
  PTRANS head = nullptr;
};

TEST(Vatrans, TranslatesAWholeTextByOneTableWhileAnotherIsInstalled) {
  CH1 untouched[] = "abc";
  EXPECT_STREQ(VA2ascn(untouched, 0), "abc");
  const std::string one = Table(1), two = Table(2);
  SetChar2av(one.data());
  std::thread installer([&] {
    for (int i = 0; i < 500; ++i) SetChar2av(i % 2 ? one.data() : two.data());
  });
  for (int i = 0; i < 500; ++i) {
    std::string text(100, 'a');
    VA2avn(text.data(), 100);
    EXPECT_EQ(text, std::string(100, text[0]));
    EXPECT_TRUE(text[0] == 'b' || text[0] == 'c');
  }
  installer.join();
  SetChar2av(Table(0).data());
}

TEST(Vatrans, NeedsNoTableBetweenEqualNamesAndFindsNoneWithoutAFile) {
  ListFree list;
  PCH10 table = "";
  EXPECT_EQ(FindTrans("noname1", "NONAME2", &list.head, &table), 0);
  EXPECT_EQ(table, nullptr);
  EXPECT_EQ(FindTrans("NONAME", "HOST  ", &list.head, &table), ERR_UNI_CONVERSION);
  EXPECT_EQ(table, nullptr);
  EXPECT_EQ(list.head, nullptr);
}

TEST(Vatrans, BuildsATableFromTheCodePointsThatBothSetsHave) {
  const TransFile file(
      "[APL]\nDefaultChar=63\n0=65,66 67\t300\n4=68\n"
      "[HOST]\nDefaultChar=319\n0=1 2 3 4 67\n5=66 65 66\n");
  ListFree list;
  PCH10 table = nullptr;
  ASSERT_EQ(FindTrans("apl", "HOST  ", &list.head, &table), 0);
  const UI1 expected[] = {6, 5, 4, 63, 63, 63};  // a default of 319 is 63 in a byte
  EXPECT_EQ(memcmp(table, expected, sizeof expected), 0);

  PCH10 again = nullptr;
  ASSERT_EQ(FindTrans("APL   ", "host", &list.head, &again), 0);
  EXPECT_EQ(again, table);
  EXPECT_EQ(FindTrans("HOST", "OTHER", &list.head, &again), ERR_UNI_CONVERSION);
}

}  // namespace
