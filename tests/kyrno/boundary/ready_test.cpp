// ready_test.cpp - the strategies on small trees without sockets.
#include "kyrno/boundary/ready.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Apl/vaset.h"
#include "kyrno/base/error.h"
#include "kyrno/modes/connection.h"
#include "kyrno/modes/server.h"

namespace {

struct LISTENER : SERVER {
  LISTENER() : SERVER(MCommand) {}
  RPCOBJS* NewConnection(PRPCSOCK) override { return nullptr; }
};

RPCOBJS* NewObject(OBJTYPE type) {
  if (type == TClient) return new CONNECTION;
  if (type == TServer) return new LISTENER;
  return new RPCOBJS(type);
}

struct NODE {
  PCH10 path;
  OBJTYPE type;
  OBJSTATE state;
  F8 ready;
};

class TREE {
 public:
  explicit TREE(const std::vector<NODE>& nodes = {}) : root(new HIERAKI("root", new ROOT)) {
    for (const NODE& n : nodes) Add(n);
  }
  ~TREE() { delete root; }

  PHIERAKI Add(const NODE& n) {
    RPCOBJS* const object = NewObject(n.type);
    object->timeReady = n.ready;
    object->SetState(n.state);
    return root->AddNew(n.path, object);
  }
  PHIERAKI At(PCH10 path) { return root->FindLeaf(path); }

  /// Takes one object and ends it, as a wait does; its path, or nothing.
  std::string Deliver(PFNREADY fn, PHIERAKI from = nullptr) {
    PHIERAKI found = nullptr;
    if (!fn(from ? from : root, &found)) return "";
    CH1 path[kFullNameSize + 1];
    found->FullName(path, kFullNameSize);
    End(found);
    return path;
  }

  /// The end of a delivery, as in a wait.
  void End(PHIERAKI found) {
    found->Obj()->Unpick(SFinished);
    root->pQueue->Delivered(found->Parent());
  }

  std::string DeliverAll(PFNREADY fn, PHIERAKI from = nullptr) {
    std::string all;
    for (std::string one = Deliver(fn, from); !one.empty(); one = Deliver(fn, from))
      all += (all.empty() ? "" : " ") + one;
    return all;
  }

  PHIERAKI const root;
};

TEST(Ready, EachStrategyHasItsOrder) {
  const std::vector<NODE> nodes = {{"A", TClient, SConnected, 0},  {"A.1", TMessage, SAPL, 5},
                                   {"A.2", TMessage, SAPL, 2},     {"B", TClient, SConnected, 0},
                                   {"B.1", TMessage, SAPL, 1},     {"B.2", TMessage, SSent, 9},
                                   {"C", TClient, SIncoming, 3},   {"D", TClient, SConnected, 0},
                                   {"D.1", TMessage, SSending, 0}, {"D.2", TMessage, SAPLLast, 4}};
  const struct {
    PFNREADY fn;
    PCH10 order;
  } cases[] = {
      {FindReady, "A.1 A.2 B.1 B.2 C D.2"},    {FindReadyRR, "A.1 B.1 C D.2 A.2 B.2"},
      {FindReadyTO, "B.1 A.2 C D.2 A.1 B.2"},  {FindReadyTS, "B.1 C D.2 A.1 A.2 B.2"},
      {FindReadyTnc, "B.1 C D.2 A.1 A.2 B.2"},
  };
  for (const auto& c : cases) {
    TREE tree(nodes);
    EXPECT_EQ(tree.DeliverAll(c.fn), c.order) << &c - cases;
  }
}

TEST(Ready, TheBudgetIsTenDescentsOfTheWholeSearch) {
  TREE tree;
  for (PCH10 name : {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k", "l"})
    tree.Add({name, TClient, SConnected, 0});
  // One descent is the root's, so nine connections are looked at.
  tree.Add({"j.1", TMessage, SAPL, 1});
  EXPECT_EQ(tree.Deliver(FindReadyTnc), "");
  tree.Add({"i.1", TMessage, SAPL, 2});
  EXPECT_EQ(tree.Deliver(FindReadyTnc), "i.1");
  EXPECT_EQ(tree.Deliver(FindReadyTO), "j.1");
}

TEST(Ready, AServerCanBeSearchedForNewConnectionsOnly) {
  TREE tree({{"S", TServer, SListen, 0},
             {"S.A", TClient, SConnected, 0},
             {"S.A.1", TMessage, SAPL, 1},
             {"S.B", TClient, SSocketClosed, 1},
             {"S.C", TClient, SIncoming, 5}});
  const VAHOLD on(VANew(VAI4, 0, nullptr));
  ASSERT_EQ(VASetSI4(on.Get(), 0, 1), 0);
  ASSERT_EQ(tree.At("S")->Obj()->SetRPCProp(tree.root, "ConnectionOnly", on.Get()), 0);
  EXPECT_EQ(tree.DeliverAll(FindReadyTnc, tree.At("S")), "S.C");
}

TEST(Ready, InFifoModeTheOrderIsThatOfArrival) {
  TREE tree({{"S", TServer, SListen, 0},
             {"S.A", TClient, SIncoming, 9},
             {"S.B", TClient, SFinished, 1},
             {"S.C", TClient, SSocketClosed, 1},
             {"S.D", TClient, SIncoming, 1}});
  SERVER* const server = static_cast<SERVER*>(tree.At("S")->Obj());
  for (PCH10 path : {"S.D", "S.B", "S.C", "S.A"}) server->ReadyFn(tree.At(path));
  EXPECT_EQ(tree.DeliverAll(PopReady, tree.At("S")), "S.D S.C S.A");
  EXPECT_EQ(tree.At("S.C")->Obj()->lErrorObj, ERR_CLOSED);
}

}  // namespace
