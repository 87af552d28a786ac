// ready_model_test.cpp - the ready queue against the walk that defines what it finds, on pairs of
// random trees: one is searched by the walk, its twin by the queue.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kyrno/base/error.h"
#include "kyrno/boundary/ready.h"
#include "kyrno/tree/readyqueue.h"
#include "tests/support/session.h"

namespace {

struct OBJECT : RPCOBJS {
  OBJECT(OBJTYPE type, size_t id, READYQUEUE* own) : RPCOBJS(type), number(id), queue(own) {}
  bool ClosesSilently() const override { return silent; }
  READYQUEUE* OwnQueue() override { return queue; }

  const size_t number;
  READYQUEUE* const queue;
  bool silent = false;
};

OBJECT* At(PHIERAKI node) { return static_cast<OBJECT*>(node->Obj()); }

/// All that a pick may change.
std::string Tell(PHIERAKI node) {
  const OBJECT* const object = At(node);
  std::string all = "node";
  for (const UI4 n :
       {static_cast<UI4>(object->number), UI4{object->GetState()}, UI4{object->IsSeized()},
        UI4{OBJSTATE{object->LastState}}, UI4{OBJSTATE{object->NextState}},
        static_cast<UI4>(object->lErrorObj), static_cast<UI4>(node->Delivering)})
    all += " " + std::to_string(n);
  return all;
}

// ---- the walk

/// Gone, Passage, ...: see readyentry.h.
PART Look(const OBJECT* object) {
  if (object->IsSeized()) return Passage;
  const OBJSTATE state = object->GetState();
  const bool endpoint =
      object->Type == TClient || object->Type == TConnection || object->Type == TUdp;
  if (state == SFinished || state == SMarkedForDeletion) return Gone;
  if (state == SSocketClosed) return object->ClosesSilently() ? EndedSilently : Ended;
  if (!IsReadyState(state)) return Passage;
  if (state == SError && endpoint) return Ended;
  return object->Type == TCommand && (state == SAPL || state == SError) ? Command : Itself;
}

struct FIND {
  PHIERAKI node = nullptr;
  F8 time = 0;
  bool finish = false;
};

class SEARCH {
 public:
  SEARCH(ORDER how, SI4 descents, bool withFailures)
      : order(how), depth(descents), failures(withFailures) {}

  /// True when the rest of this ring need not be looked at.
  bool Visit(PHIERAKI node) {
    const PART part = Look(At(node));
    if (part == Gone) return false;
    return part == Passage ? VisitPassage(node) : VisitEvent(node, part);
  }

  FIND best;

 private:
  static PHIERAKI Step(PHIERAKI node, void* search) {
    return static_cast<SEARCH*>(search)->Visit(node) ? node : nullptr;
  }

  FIND Below(PHIERAKI node, PART part) const {
    if (part == Itself) return {};
    if (part == Command) {
      SEARCH reports(order, 1, failures);
      node->LoopSub(Step, &reports);
      return reports.best;
    }
    for (const bool withFailures : {false, true}) {
      if (withFailures && !failures) break;
      SEARCH units(order, depth - 1, withFailures);
      node->LoopSub(Step, &units);
      if (!units.best.node) continue;
      if (At(node)->GetState() == SSocketClosed && order == InBudget) units.best.finish = true;
      return units.best;
    }
    return {};
  }

  bool VisitEvent(PHIERAKI node, PART part) {
    const OBJSTATE state = At(node)->GetState();
    const bool ended = part == Ended || part == EndedSilently;
    if (order == InBudget && depth < 2 && ended && (state == SSocketClosed || node->HasSub()))
      return false;
    FIND find = Below(node, part);
    if (!find.node) {
      if (part == EndedSilently || (state == SError && !failures)) return false;
      if (part == Ended && node->Delivering > 0) return false;
      find = {node, At(node)->timeReady};
    }
    if (!best.node || best.time > find.time) best = find;
    if (order == InTree) return true;
    return order != ByTime && IsReadyState(state);
  }

  bool VisitPassage(PHIERAKI node) {
    const OBJTYPE type = At(node)->Type;
    const bool inRings = order == ByTimeInRings || order == InBudget;
    if (inRings && (type == TMessage || type == TRelay || type > TUdpPeer)) return false;
    if (order == InBudget && depth-- < 1) return false;
    const bool found = node->LoopSub(Step, this) != nullptr;
    return order == InTree && found;
  }

  const ORDER order;
  SI4 depth;
  const bool failures;
};

PHIERAKI PickByWalk(PHIERAKI node, ORDER order, SI4 budget) {
  SEARCH search(order, budget, true);
  search.Visit(node);
  const FIND& find = search.best;
  if (!find.node) return nullptr;
  OBJECT* const object = At(find.node);
  const OBJSTATE state = object->GetState();
  EXPECT_TRUE(object->Pick(state));
  object->LastState = state == SSocketClosed ? SError : state;
  if (state == SSocketClosed) object->lErrorObj = ERR_CLOSED;
  if (find.finish) object->NextState = SFinished;
  if (PHIERAKI const parent = find.node->Parent()) ++parent->Delivering;
  return find.node;
}

// ---- the twins

struct STRATEGY {
  ORDER order;
  SI4 budget;
  bool turns;  // round robin
};

const STRATEGY kStrategyTable[] = {
    {InTree, 0, false},    {InTree, 0, true},    {ByTime, 0, false},  {ByTimeInRings, 0, false},
    {InBudget, 10, false}, {InBudget, 3, false}, {InBudget, 1, false}};

PHIERAKI PickByWalk(PHIERAKI node, const STRATEGY& s) {
  PHIERAKI const found = PickByWalk(node, s.order, s.budget);
  if (!s.turns) return found;
  for (PHIERAKI n = found; n && n != node; n = n->Parent()) {
    const OBJTYPE above = At(n->Parent())->Type;
    if (above == TRoot || above == TServer) n->Parent()->SetSub(n);
  }
  return found;
}

PHIERAKI PickByQueue(PHIERAKI node, const STRATEGY& s) {
  if (!s.turns) return node->pQueue->PickNext(node, s.order, s.budget);
  PHIERAKI found = nullptr;
  return FindReadyRR(node, &found);
}

/// A node of the walk's tree and its twin in the queue's.
struct PAIR {
  PHIERAKI walked;
  PHIERAKI queued;
};

class TWINS {
 public:
  TWINS(UI4 seed, size_t size, bool oneRing) : random(seed) {
    pairs.push_back({new HIERAKI("root", new OBJECT(TRoot, 0, nullptr)),
                     new HIERAKI("root", new OBJECT(TRoot, 0, &queue))});
    Set(0, SRootInit);
    while (pairs.size() < size) Add(oneRing ? 0 : Draw(pairs.size()));
  }
  ~TWINS() {
    delete pairs[0].walked;
    delete pairs[0].queued;
  }
  TWINS(const TWINS&) = delete;
  TWINS& operator=(const TWINS&) = delete;

  size_t Draw(size_t n) { return random() % n; }
  size_t Size() const { return live; }

  /// One change such as the work thread and the commands make.
  void Change();
  /// Picks in both trees; whether there was something, or fails.
  bool Pick();
  void EndADelivery();
  void ExpectEqual();

 private:
  bool IsThere(size_t i) const { return pairs[i].walked != nullptr; }
  bool IsPicked(size_t i) const { return std::count(picked.begin(), picked.end(), i) > 0; }
  size_t Any();
  OBJTYPE TypeOf(size_t i) const { return At(pairs[i].walked)->Type; }

  template <typename FN>
  void Both(size_t i, FN fn) {
    fn(pairs[i].walked);
    fn(pairs[i].queued);
  }
  void Set(size_t i, OBJSTATE state);
  OBJSTATE DrawState();
  void Add(size_t parent);
  void Remove(size_t i);
  void Forget(PHIERAKI walked);
  void Turn(size_t i);

  std::mt19937 random;
  READYQUEUE queue;
  std::vector<PAIR> pairs;     // by number; null once removed
  std::vector<size_t> picked;  // and not yet delivered
  size_t live = 1;
};

size_t TWINS::Any() {
  for (;;) {
    const size_t i = Draw(pairs.size());
    if (IsThere(i)) return i;
  }
}

OBJSTATE TWINS::DrawState() {
  static constexpr OBJSTATE ready[] = {SIncoming, SAPL, SAPL, SError, SAPLLast, SSent};
  static constexpr OBJSTATE ended[] = {SSocketClosed, SSocketClosed, SError};
  static constexpr OBJSTATE idle[] = {SNew,     SListen,    SConnected,    SReadyToSend,
                                      SSending, SReceiving, SListenPaused, SProcessing};
  switch (Draw(8)) {
    case 0:
    case 1:
    case 2:
      return ready[Draw(std::size(ready))];
    case 3:
      return ended[Draw(std::size(ended))];
    case 4:
      return Draw(2) ? SFinished : SMarkedForDeletion;
    default:
      return idle[Draw(std::size(idle))];
  }
}

void TWINS::Set(size_t i, OBJSTATE state) {
  const F8 time = static_cast<F8>(Draw(6));
  const bool silent = Draw(4) == 0;
  Both(i, [&](PHIERAKI node) {
    // What the state tells is stored before it, out of a state of which no search takes it.
    At(node)->SetState(SProcessing);
    At(node)->timeReady = time;
    At(node)->silent = silent;
    At(node)->SetState(state);
  });
}

void TWINS::Add(size_t parent) {
  static constexpr OBJTYPE types[][4] = {
      {TServer, TClient, TUdp, TServer},  // below TRoot
      {TConnection, TConnection, TConnection, TConnection},
      {TCommand, TMessage, TMessage, TRelay},    // below TClient
      {TCommand, TMessage, TCommand, TRelay},    // below TConnection
      {TMessage, TMessage, TMessage, TMessage},  // below TCommand
      {TMessage, TMessage, TMessage, TMessage},
      {TMessage, TMessage, TMessage, TMessage},
      {TUdpPeer, TUdpPeer, TMessage, TMessage},  // below TUdp
      {TMessage, TMessage, TMessage, TMessage},
  };
  if (!IsThere(parent)) return;
  OBJTYPE type = types[TypeOf(parent)][Draw(4)];
  // Strange trees too, only that a command has messages and no others.
  if (TypeOf(parent) != TCommand && Draw(4) == 0) type = static_cast<OBJTYPE>(1 + Draw(8));
  const size_t number = pairs.size();
  const std::string name = std::to_string(number);
  const F8 time = static_cast<F8>(Draw(6));
  const OBJSTATE state = DrawState();
  auto add = [&](PHIERAKI above) {
    OBJECT* const object = new OBJECT(type, number, nullptr);
    object->timeReady = time;
    object->SetState(state);
    return above->AddNew(name.c_str(), object);
  };
  pairs.push_back({add(pairs[parent].walked), add(pairs[parent].queued)});
  ++live;
}

void TWINS::Forget(PHIERAKI walked) {
  auto one = [](PHIERAKI node, void* twins) -> PHIERAKI {
    static_cast<TWINS*>(twins)->Forget(node);
    return nullptr;
  };
  walked->LoopSub(one, this);
  const size_t i = At(walked)->number;
  picked.erase(std::remove(picked.begin(), picked.end(), i), picked.end());
  pairs[i] = {nullptr, nullptr};
  --live;
}

void TWINS::Remove(size_t i) {
  if (i == 0) return;
  if (IsPicked(i)) {
    Both(i, [](PHIERAKI node) { At(node)->Finish(); });
    EndADelivery();
    if (IsPicked(i)) return;
  }
  const PAIR gone = pairs[i];
  Both(i, [](PHIERAKI node) { node->Parent()->Unlink(node); });
  // A late step on an unlinked node is harmless.
  Both(i, [](PHIERAKI node) { At(node)->SetState(SAPL); });
  Forget(gone.walked);
  delete gone.walked;
  delete gone.queued;
}

/// Rotates the ring of which i is a member.
void TWINS::Turn(size_t i) {
  if (i == 0) return;
  Both(i, [](PHIERAKI node) { node->Parent()->SetSub(node); });
}

void TWINS::Change() {
  const size_t i = Any();
  switch (Draw(16)) {
    case 0:
      return Add(i);
    case 1:
      return live > 5 ? Remove(i) : Add(i);
    case 2:
      return Turn(i);
    case 3:
      return Both(i, [](PHIERAKI node) { At(node)->Finish(); });
    case 4: {
      const OBJSTATE next = DrawState();
      if (!IsPicked(i) && At(pairs[i].walked)->IsSeized())
        return Both(i, [&](PHIERAKI node) { At(node)->Settle(At(node)->GetState(), next); });
      return Both(i, [](PHIERAKI node) { At(node)->Seize(At(node)->GetState()); });
    }
    case 5:
    case 6:
    case 7:
      return EndADelivery();
    default:
      if (!IsPicked(i) && i != 0) Set(i, DrawState());
  }
}

void TWINS::EndADelivery() {
  if (picked.empty()) return;
  const size_t at = Draw(picked.size());
  const size_t i = picked[at];
  picked.erase(picked.begin() + static_cast<std::ptrdiff_t>(at));
  const OBJSTATE next = Draw(3) ? SFinished : DrawState();
  Both(i, [&](PHIERAKI node) { At(node)->Unpick(next); });
  if (PHIERAKI const parent = pairs[i].walked->Parent()) --parent->Delivering;
  if (PHIERAKI const parent = pairs[i].queued->Parent()) queue.Delivered(parent);
}

bool TWINS::Pick() {
  const STRATEGY& s = kStrategyTable[Draw(std::size(kStrategyTable))];
  const size_t from = Draw(2) ? 0 : Any();
  PHIERAKI const walked = PickByWalk(pairs[from].walked, s);
  PHIERAKI const queued = PickByQueue(pairs[from].queued, s);
  EXPECT_EQ(walked != nullptr, queued != nullptr)
      << "from " << from << " by " << &s - kStrategyTable;
  if (!walked || !queued) return false;
  EXPECT_EQ(At(walked)->number, At(queued)->number)
      << "from " << from << " by " << &s - kStrategyTable;
  EXPECT_EQ(At(walked)->LastState, At(queued)->LastState);
  EXPECT_EQ(At(walked)->NextState, At(queued)->NextState);
  picked.push_back(At(walked)->number);
  return true;
}

void TWINS::ExpectEqual() {
  for (size_t i = 0; i < pairs.size(); ++i) {
    if (!IsThere(i)) continue;
    PHIERAKI const a = pairs[i].walked;
    PHIERAKI const b = pairs[i].queued;
    ASSERT_EQ(Tell(a), Tell(b));
    ASSERT_TRUE(queue.IsRight(b)) << "node " << i;
    ASSERT_EQ(a->HasSub(), b->HasSub());
    if (!a->HasSub()) continue;
    PHIERAKI s = a->LastSub();
    PHIERAKI t = b->LastSub();
    do {
      s = s->Next();
      t = t->Next();
      ASSERT_EQ(At(s)->number, At(t)->number) << "in the ring of " << i;
    } while (s != a->LastSub());
    ASSERT_EQ(t, b->LastSub());
  }
}

/// Drives one pair of trees; the number of finds.
int Drive(UI4 seed, size_t size, bool oneRing, int searches) {
  const std::string trace = "seed " + std::to_string(seed) + " size " + std::to_string(size);
  SCOPED_TRACE(trace);
  TWINS twins(seed, size, oneRing);
  int finds = 0;
  for (int n = 0; n < searches && !::testing::Test::HasFailure(); ++n) {
    for (size_t k = twins.Draw(6); k > 0; --k) twins.Change();
    if (twins.Pick()) ++finds;
    // Of large trees a part of the steps, to be through in time.
    if (n % static_cast<int>(1 + twins.Size() / 30) == 0) twins.ExpectEqual();
  }
  twins.ExpectEqual();
  return finds;
}

constexpr int kShare = support::kSanitized ? 20 : 1;

TEST(ReadyModel, TheQueuePicksWhatTheWalkPicks) {
  int finds = 0;
  for (UI4 seed = 1; finds < 200000 / kShare && !HasFailure(); ++seed)
    finds += Drive(seed, 5 + seed * 7 % 40, false, 400);
  for (UI4 seed = 1; seed <= 10 && !HasFailure(); ++seed)
    finds += Drive(seed, 300, seed % 2, 2000 / kShare);
  if (!HasFailure()) finds += Drive(1, 2000, true, 3000 / kShare);
  RecordProperty("finds", finds);
}

/// A node of any type below `above`.
PHIERAKI AddTo(PHIERAKI above, OBJTYPE type, OBJSTATE state, size_t number) {
  OBJECT* const object = new OBJECT(type, number, nullptr);
  object->timeReady = static_cast<F8>(number);
  object->SetState(state);
  return above->AddNew(std::to_string(number).c_str(), object);
}

TEST(ReadyModel, TheOrderSurvivesNewOrderNumbers) {
  READYQUEUE queue;
  HIERAKI root("root", new OBJECT(TRoot, 0, &queue));
  AddTo(&root, TClient, SIncoming, 3);
  PHIERAKI const first = AddTo(&root, TClient, SIncoming, 1);
  AddTo(&root, TClient, SIncoming, 2);
  // In front of the first there is room for some numbers only.
  root.SetSub(first->Next()->Next());
  const UI8 order = first->Order();
  size_t n = 3;
  for (; first->Order() == order && n < 100000; ++n)
    AddTo(&root, TClient, n % 1000 == 0 ? SIncoming : SConnected, n + 1);
  ASSERT_NE(first->Order(), order);
  EXPECT_TRUE(queue.IsRight(&root));

  std::vector<size_t> found;
  while (PHIERAKI const node = queue.PickNext(&root, InTree, 0)) found.push_back(At(node)->number);
  EXPECT_GT(found.size(), 3u);
  EXPECT_TRUE(std::is_sorted(found.begin(), found.end()));
}

/// The least time of some picks, in ns, from a server with so many connections, of which the fifth
/// or each one has a unit.
F8 TimeOfPicks(const STRATEGY& s, size_t connections, bool allReady) {
  READYQUEUE queue;
  HIERAKI root("root", new OBJECT(TRoot, 0, &queue));
  PHIERAKI const server = AddTo(&root, TServer, SListen, 0);
  for (size_t n = 0; n < connections; ++n) {
    PHIERAKI const connection = AddTo(server, TConnection, SConnected, n);
    if (allReady || n == 4) AddTo(connection, TMessage, SAPL, n);
  }
  F8 now = static_cast<F8>(connections);
  F8 least = kNothing;
  for (int batch = 0; batch < 20; ++batch) {
    const auto start = std::chrono::steady_clock::now();
    for (int n = 0; n < 500; ++n) {
      PHIERAKI const found = PickByQueue(&root, s);
      if (!found) return kNothing;
      At(found)->Unpick(SProcessing);
      queue.Delivered(found->Parent());
      At(found)->timeReady = ++now;
      At(found)->SetState(SAPL);
    }
    const std::chrono::duration<F8, std::nano> time = std::chrono::steady_clock::now() - start;
    least = std::min(least, time.count());
  }
  return least / 500;
}

TEST(ReadyModel, APickAmongTenThousandCostsAsMuchAsAmongTen) {
  for (const STRATEGY& s : kStrategyTable) {
    if (s.order == InBudget && s.budget < 10) continue;
    for (const bool allReady : {false, true}) {
      const F8 few = TimeOfPicks(s, 10, allReady);
      const F8 many = TimeOfPicks(s, 10000, allReady);
      // A walk would take 1,000 times as long, the logarithm four times.
      EXPECT_LT(many, 10 * few) << &s - kStrategyTable << allReady;
    }
  }
}

TEST(ReadyModel, EachEventIsFoundOnceWhileOthersCome) {
  constexpr int kEvents = 5000;
  READYQUEUE queue;
  HIERAKI root("root", new OBJECT(TRoot, 0, &queue));
  std::vector<PHIERAKI> nodes;
  for (size_t c = 0; c < 4; ++c) {
    nodes.push_back(AddTo(&root, TClient, SConnected, nodes.size()));
    PHIERAKI const connection = nodes.back();
    for (int k = 0; k < 3; ++k)
      nodes.push_back(AddTo(connection, TMessage, SProcessing, nodes.size()));
  }

  std::atomic<int> delivered{0};
  auto deliverOne = [&](size_t turn) {
    const STRATEGY& s = kStrategyTable[turn % 5];
    PHIERAKI const found = PickByQueue(turn % 2 ? &root : nodes[turn % nodes.size()], s);
    if (!found) return false;
    ++delivered;
    At(found)->Unpick(At(found)->Type == TClient ? SConnected : SProcessing);
    if (found->Parent()) queue.Delivered(found->Parent());
    return true;
  };
  std::atomic<bool> over{false};
  auto deliver = [&] {
    for (size_t turn = 0; !over; ++turn)
      if (!deliverOne(turn)) std::this_thread::yield();
  };
  std::thread waiters[] = {std::thread(deliver), std::thread(deliver)};
  int made = 0;
  for (UI4 step = 0; made < kEvents; ++step) {
    OBJECT* const object = At(nodes[step * 7 % nodes.size()]);
    const bool client = object->Type == TClient;
    // A closed connection is an event once its units are through.
    made += client ? object->Move(SConnected, SSocketClosed) : object->Move(SProcessing, SAPL);
  }
  over = true;
  for (std::thread& t : waiters) t.join();
  while (deliverOne(1)) {
  }
  EXPECT_EQ(delivered, made);
  EXPECT_TRUE(queue.IsRight(&root));
  for (PHIERAKI node : nodes) EXPECT_TRUE(queue.IsRight(node));
}

}  // namespace
