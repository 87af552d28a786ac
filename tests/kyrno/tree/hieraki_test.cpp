// hieraki_test.cpp - the tree: names, paths, rings.
#include "kyrno/tree/hieraki.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "kyrno/tree/rpcobjs.h"

namespace {

class Hieraki : public testing::Test {
 protected:
  PHIERAKI Add(const char* path) {
    auto* obj = new RPCOBJS(TMessage);
    PHIERAKI const node = root.AddNew(path, obj);
    if (!node) delete obj;
    return node;
  }
  std::string Names() {
    AssumeWorkThread();
    std::string all;
    root.WalkSub([&](PHIERAKI node) { all += std::string(node->GetName()) + " "; });
    return all;
  }
  static std::string FullName(PHIERAKI node, SI4 size = kFullNameSize) {
    CH1 text[kFullNameSize + 1] = {0};
    const SI4 n = node->FullName(text, size);
    return n < 0 ? std::to_string(n) : text;
  }
  HIERAKI root{"ROOT", nullptr};
};

TEST_F(Hieraki, FindsNodesByPathAndRefusesNamesThatAreTakenOrHaveNoPlace) {
  PHIERAKI const a = Add("a");
  PHIERAKI const b = Add("a.b");
  for (const auto& [path, node] :
       {std::pair{"a", a}, {"a.b", b}, {"", &root}, {"a.", a}, {"A", nullptr}, {"x.b", nullptr}}) {
    EXPECT_EQ(root.FindLeaf(path), node) << path;
  }
  for (const char* path : {"a", "", "a.", "x.b"}) EXPECT_FALSE(Add(path)) << path;
  EXPECT_EQ(FullName(b, 3), "a.b");
  EXPECT_EQ(FullName(b, 2), "-3");
  EXPECT_EQ(FullName(&root), "");
}

TEST_F(Hieraki, NamesOfFullLengthAreInnerPartsOnly) {
  const std::string full(32, 'b'), longer(33, 'c');
  PHIERAKI const b = Add(full.c_str());
  ASSERT_TRUE(b && Add(longer.c_str()));
  EXPECT_EQ(root.FindLeaf(full.c_str()), nullptr);
  PHIERAKI const below = Add((full + ".x").c_str());
  EXPECT_EQ(below->Parent(), b);
  EXPECT_EQ(root.FindLeaf((full + ".x").c_str()), below);
  EXPECT_EQ(root.FindLeaf((longer + ".x").c_str()), nullptr);
  EXPECT_EQ(FullName(b), full + "Quillon0");
}

TEST_F(Hieraki, RingsKeepTheirOrderAndRotate) {
  PHIERAKI const a = Add("a");
  PHIERAKI const b = Add("b");
  PHIERAKI const c = Add("c");
  EXPECT_EQ(Names(), "a b c ");
  EXPECT_EQ(root.SetSub(a), c);
  EXPECT_EQ(Names(), "b c a ");
  for (PHIERAKI gone : {c, b, a}) {
    root.Unlink(gone);
    root.Unlink(gone);  // not there any more: nothing happens
    delete gone;
  }
  EXPECT_EQ(Names(), "");
}

TEST_F(Hieraki, AWalkMeetsTheOldestFirstWhileThreadsAddEachNameOnce) {
  AssumeWorkThread();
  constexpr int kNames = 2000;
  PHIERAKI const oldest = Add("oldest");
  std::atomic<int> added{0};
  const auto add = [&] {
    for (int n = 0; n < kNames; ++n)
      if (Add(("n" + std::to_string(n)).c_str())) ++added;
  };
  std::thread threads[] = {std::thread(add), std::thread(add), std::thread(add)};
  int wrong = 0;
  for (SI4 seen = 0; seen < kNames + 1;) {
    seen = 0;
    root.WalkSub([&](PHIERAKI node) {
      if (seen++ == 0 && node != oldest) ++wrong;
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(added, kNames);
  EXPECT_EQ(root.CountChildren(), kNames + 1);
}

}  // namespace
