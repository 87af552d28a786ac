// ready.cpp - the strategies that choose the next ready object.
#include "kyrno/boundary/ready.h"

#include "kyrno/modes/server.h"
#include "kyrno/tree/readyqueue.h"

namespace {

constexpr SI4 kDescents = 10;        // of the bounded strategy
constexpr SI4 kDescentsStopped = 1;  // on a server that wants its connections only

PHIERAKI Pick(PHIERAKI node, ORDER order, SI4 descents, PHIERAKI* found) {
  const bool canSearch = node && node->Obj() && node->pQueue;
  return *found = canSearch ? node->pQueue->PickNext(node, order, descents) : nullptr;
}

SI4 DescentsFrom(PHIERAKI node) {
  const bool stops = node && node->Obj() && node->Obj()->Type == TServer &&
                     static_cast<SERVER*>(node->Obj())->SearchStop();
  return stops ? kDescentsStopped : kDescents;
}

}  // namespace

PHIERAKI FindReady(PHIERAKI node, PHIERAKI* found) { return Pick(node, InTree, 0, found); }

PHIERAKI FindReadyRR(PHIERAKI node, PHIERAKI* found) {
  Pick(node, InTree, 0, found);
  // The next search at each level begins behind the child that has just had its turn.
  for (PHIERAKI n = *found; n && n != node; n = n->Parent()) {
    const OBJTYPE above = n->Parent()->Obj()->Type;
    if (above == TRoot || above == TServer) n->Parent()->SetSub(n);
  }
  return *found;
}

PHIERAKI FindReadyTO(PHIERAKI node, PHIERAKI* found) { return Pick(node, ByTime, 0, found); }

PHIERAKI FindReadyTS(PHIERAKI node, PHIERAKI* found) { return Pick(node, ByTimeInRings, 0, found); }

PHIERAKI FindReadyTnc(PHIERAKI node, PHIERAKI* found) {
  return Pick(node, InBudget, DescentsFrom(node), found);
}

PHIERAKI PopReady(PHIERAKI node, PHIERAKI* found) {
  *found = nullptr;
  SERVER* const server = static_cast<SERVER*>(node->Obj());
  while (PHIERAKI const next = server->PopReady())
    if (next->pQueue && next->pQueue->PickThis(next)) return *found = next;
  return nullptr;
}
