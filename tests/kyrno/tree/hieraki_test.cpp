// hieraki_test.cpp - the tree: names, paths, rings.
#include "kyrno/tree/hieraki.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

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
  PHIERAKI Child(const std::string& name) { return root.FindChild(name.data(), name.size()); }
  void Drop(PHIERAKI node) {
    root.Unlink(node);
    delete node;
  }
  HIERAKI root{"ROOT", nullptr};
};

class HierakiOfSize : public Hieraki, public testing::WithParamInterface<int> {};

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

TEST_F(Hieraki, PlacesAgreeWithTheRingThroughAddingRotatingAndRemoving) {
  constexpr int kAdded = 100000, kPhase = 30000;
  constexpr size_t kSiblings = 16;
  AssumeWorkThread();
  std::mt19937 random(4711);
  const auto any = [&random](size_t n) {
    return std::uniform_int_distribution<size_t>(0, n - 1)(random);
  };
  std::list<PHIERAKI> ring;
  int renumbered = 0;
  UI8 number = 0;  // of the oldest
  for (int n = 0; n < kAdded; ++n) {
    ring.push_back(root.AddNew(("n" + std::to_string(n)).c_str(), nullptr));
    if (ring.front()->Order() != number) ++renumbered;
    // In every other phase those in the middle go: the new ones share one ever smaller gap.
    const bool mixed = n / kPhase % 2 == 0;
    if (mixed && any(4) == 0) {
      const auto last = std::next(ring.begin(), static_cast<std::ptrdiff_t>(any(ring.size())));
      ASSERT_EQ(root.SetSub(*last), ring.back());
      ring.splice(ring.begin(), ring, std::next(last), ring.end());
    }
    while (ring.size() > kSiblings || (mixed && !ring.empty() && any(2) == 0)) {
      const size_t at = mixed ? any(ring.size()) : 1 + any(ring.size() - 1);
      const auto gone = std::next(ring.begin(), static_cast<std::ptrdiff_t>(at));
      Drop(*gone);
      ring.erase(gone);
    }
    number = ring.empty() ? 0 : ring.front()->Order();

    std::vector<PHIERAKI> walked;
    root.WalkSub([&](PHIERAKI node) { walked.push_back(node); });
    ASSERT_TRUE(std::ranges::equal(walked, ring)) << n;
    for (size_t i = 1; i < walked.size(); ++i)
      ASSERT_LT(root.Place(walked[i - 1]), root.Place(walked[i])) << n;
  }
  EXPECT_GT(renumbered, 0);
}

TEST_F(Hieraki, OneAmongTenThousandIsFoundByExactlyItsName) {
  constexpr size_t kNames = 10000;
  const auto name = [](size_t n) { return "n" + std::to_string(n); };
  std::vector<PHIERAKI> nodes;
  for (size_t n = 0; n < kNames; ++n) nodes.push_back(root.AddNew(name(n).c_str(), nullptr));
  for (size_t n = 0; n < kNames; ++n) ASSERT_EQ(root.FindLeaf(name(n).c_str()), nodes[n]);
  EXPECT_EQ(root.FindChild("n123 and more", 4), nodes[123]);
  for (const char* no : {"", "n", "N5", "n05", "n5 ", "n10000"}) EXPECT_FALSE(Child(no)) << no;
  EXPECT_FALSE(root.AddNew("n5", nullptr));

  for (size_t n = 0; n < kNames; ++n) {
    if (n % 1000 == 5) continue;
    Drop(nodes[n]);
    ASSERT_FALSE(Child(name(n)));
  }
  EXPECT_EQ(Names(), "n5 n1005 n2005 n3005 n4005 n5005 n6005 n7005 n8005 n9005 ");
  EXPECT_EQ(Child("n9005"), nodes[9005]);
  EXPECT_TRUE(root.AddNew("n6", nullptr));
}

TEST_P(HierakiOfSize, OfEqualNamesTheOldestIsFound) {
  const std::string full(32, 'b');
  PHIERAKI const a = Add(full.c_str());
  for (int n = 0; n < GetParam(); ++n) Add(("n" + std::to_string(n)).c_str());
  PHIERAKI const b = Add(full.c_str());
  PHIERAKI const c = Add(full.c_str());
  EXPECT_EQ(Child(full), a);
  root.SetSub(a);  // which makes it the newest
  EXPECT_EQ(Child(full), b);
  Drop(b);
  EXPECT_EQ(Child(full), c);
  Drop(c);
  EXPECT_EQ(Child(full), a);
}
INSTANTIATE_TEST_SUITE_P(WithAndWithoutAnIndex, HierakiOfSize, testing::Values(0, 40));

TEST_F(Hieraki, AnObjectKnowsItsNodeAndCanBeReplacedThere) {
  AssumeWorkThread();
  PHIERAKI const node = Add("a");
  PHIERAKI const below = Add("a.b");
  const std::unique_ptr<RPCOBJS> old(node->Obj());
  EXPECT_EQ(old->pItem, node);
  auto* const refused = new RPCOBJS(TCommand);
  EXPECT_FALSE(root.AddNew("a", refused));
  EXPECT_EQ(refused->pItem, nullptr);

  EXPECT_EQ(node->Replace(refused), old.get());
  EXPECT_EQ(node->Obj(), refused);
  EXPECT_EQ(refused->pItem, node);
  EXPECT_EQ(root.FindLeaf("a"), node);
  EXPECT_EQ(root.FindLeaf("a.b"), below);
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
