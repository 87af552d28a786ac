// hieraki_test.cpp - the tree: names, paths, rings.
#include "kyrno/tree/hieraki.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kyrno/tree/rpcobjs.h"

namespace {

const std::string k31(31, 'a');
const std::string k32(32, 'b');
const std::string k33(33, 'c');

class Hieraki : public testing::Test {
 protected:
  PHIERAKI Add(const char* path) {
    auto* obj = new RPCOBJS(TMessage);
    PHIERAKI const node = root.AddNew(path, obj);
    if (!node) delete obj;
    return node;
  }
  std::string Names() {
    std::string all;
    auto one = [](PHIERAKI node, void* p) -> PHIERAKI {
      *static_cast<std::string*>(p) += std::string(node->GetName()) + " ";
      return nullptr;
    };
    root.LoopSub(one, &all);
    return all;
  }
  static std::string FullName(PHIERAKI node, SI4 size = kFullNameSize) {
    CH1 text[kFullNameSize + 1] = {0};
    const SI4 n = node->FullName(text, size);
    return n < 0 ? std::to_string(n) : text;
  }
  HIERAKI root{"ROOT", nullptr};
};

TEST_F(Hieraki, FindsNodesByPath) {
  PHIERAKI const a = Add("a");
  PHIERAKI const b = Add("a.b");
  EXPECT_EQ(root.FindLeaf("a"), a);
  EXPECT_EQ(root.FindLeaf("a.b"), b);
  EXPECT_EQ(root.FindLeaf(""), &root);
  EXPECT_EQ(root.FindLeaf("a."), a);
  EXPECT_EQ(root.FindLeaf("A"), nullptr);
  EXPECT_EQ(root.FindLeaf("a.x"), nullptr);
  EXPECT_EQ(root.FindLeaf("x.b"), nullptr);
  EXPECT_EQ(root.FindParent("a.new"), a);
  EXPECT_EQ(root.FindParent("new"), &root);
  EXPECT_EQ(root.FindParent("x.new"), nullptr);
  EXPECT_EQ(FullName(b), "a.b");
  EXPECT_EQ(FullName(&root), "");
}

TEST_F(Hieraki, RefusesNamesThatAreTakenOrHaveNoPlace) {
  ASSERT_TRUE(Add("a"));
  EXPECT_FALSE(Add("a"));
  EXPECT_FALSE(Add(""));
  EXPECT_FALSE(Add("a."));
  EXPECT_FALSE(Add("x.b"));
  EXPECT_EQ(root.CountChildren(), 1);
}

TEST_F(Hieraki, NamesOfFullLengthAreInnerPartsOnly) {
  PHIERAKI const a = Add(k31.c_str());
  PHIERAKI const b = Add(k32.c_str());
  PHIERAKI const c = Add(k33.c_str());
  ASSERT_TRUE(a && b && c);
  EXPECT_EQ(root.FindLeaf(k31.c_str()), a);
  EXPECT_EQ(root.FindLeaf(k32.c_str()), nullptr);
  PHIERAKI const below = Add((k32 + ".x").c_str());
  EXPECT_EQ(below->Parent(), b);
  EXPECT_EQ(root.FindLeaf((k32 + ".x").c_str()), below);
  EXPECT_EQ(root.FindLeaf((k33 + ".x").c_str()), nullptr);
  EXPECT_EQ(root.FindChild(k33.c_str(), 32), c);
  EXPECT_EQ(FullName(b), k32 + "Quillon0");
}

TEST_F(Hieraki, FullNameSaysHowMuchItNeeds) {
  PHIERAKI const b = (Add("abc"), Add("abc.de"));
  EXPECT_EQ(FullName(b, 6), "abc.de");
  EXPECT_EQ(FullName(b, 5), "-6");
  EXPECT_EQ(FullName(b, 2), "-6");
}

TEST_F(Hieraki, RingsKeepTheirOrderAndRotate) {
  PHIERAKI const a = Add("a");
  PHIERAKI const b = Add("b");
  PHIERAKI const c = Add("c");
  EXPECT_EQ(Names(), "a b c ");
  EXPECT_EQ(root.SetSub(a), c);
  EXPECT_EQ(Names(), "b c a ");
  Add("d");
  EXPECT_EQ(Names(), "b c a d ");

  for (PHIERAKI gone : {c, b, root.FindLeaf("d"), a}) {
    root.Unlink(gone);
    root.Unlink(gone);  // not there any more: nothing happens
    EXPECT_EQ(root.SetSub(gone) == gone, false);
    delete gone;
  }
  EXPECT_EQ(Names(), "");
  EXPECT_EQ(root.FirstChild(), nullptr);
}

TEST_F(Hieraki, RingOfRootsCopesWithNone) {
  auto x = std::make_unique<HIERAKI>("x", nullptr);
  auto y = std::make_unique<HIERAKI>("y", nullptr);
  EXPECT_EQ(HIERAKI::Find(nullptr, "x"), nullptr);
  EXPECT_EQ(HIERAKI::Remove(nullptr, x.get()), nullptr);
  PHIERAKI ring = HIERAKI::Add(nullptr, x.get());
  EXPECT_EQ(HIERAKI::Add(ring, nullptr), ring);
  EXPECT_EQ(HIERAKI::Remove(ring, y.get()), ring);
  ring = HIERAKI::Add(ring, y.get());
  EXPECT_EQ(HIERAKI::Find(ring, "x"), x.get());
  ring = HIERAKI::Remove(ring, y.get());
  EXPECT_EQ(ring, x.get());
  EXPECT_EQ(HIERAKI::Remove(ring, x.get()), nullptr);
}

TEST_F(Hieraki, AWalkMeetsTheOldestFirstWhileOthersAreAdded) {
  AssumeWorkThread();
  PHIERAKI const oldest = Add("oldest");
  std::thread adder([&] {
    for (int n = 0; n < 2000; ++n) Add(("n" + std::to_string(n)).c_str());
  });
  int wrong = 0;
  for (SI4 seen = 0; seen < 2001;) {
    seen = 0;
    root.WalkSub([&](PHIERAKI node) {
      if (seen++ == 0 && node != oldest) ++wrong;
    });
  }
  adder.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(Hieraki, OneNameIsTakenOnceByManyThreads) {
  constexpr int kNames = 500;
  std::atomic<int> added{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      for (int n = 0; n < kNames; ++n)
        if (Add(("n" + std::to_string(n)).c_str())) ++added;
    });
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(added, kNames);
  EXPECT_EQ(root.CountChildren(), kNames);
}

}  // namespace
