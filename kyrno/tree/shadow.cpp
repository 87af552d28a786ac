// shadow.cpp - does the list of touched nodes hold all that it should?
#include "kyrno/tree/shadow.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KYRNO_SHADOW
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KYRNO_SHADOW
#endif
#endif

#ifdef KYRNO_SHADOW

#include <cassert>

namespace {

constexpr UI4 kAlways = 200;
constexpr UI4 kOtherwise = 64;

bool LooksMissed(PHIERAKI node, ROOT* root) WORK_ONLY {
  RPCOBJS* const obj = node->Obj();
  if (!node->IsLinked() || !obj || node->isDue) return false;
  if (node->Touched.on.load(std::memory_order_seq_cst)) return false;
  // Half sent, it or a report below it: it goes when the rest is out.
  if (obj->GetState() == SFinished)
    return obj->Type != TRoot && !obj->isOut && !node->FirstChild() && !obj->Lingers();
  return !obj->IsSettled(node) || !root->Queue.IsRight(node);
}

void Look(PHIERAKI node, ROOT* root, UI4 epoch) WORK_ONLY {
  SHADOW& shadow = root->Shadow;
  ++shadow.nodes;
  if (LooksMissed(node, root)) shadow.Suspect(node, epoch);
  node->WalkSub([&](PHIERAKI child) {
    AssumeWorkThread();
    Look(child, root, epoch);
  });
}

}  // namespace

void AssertNothingMissed(ROOT* root, PHIERAKI item) {
  SHADOW& shadow = root->Shadow;
  if (shadow.nodes > kAlways && ++shadow.turns % kOtherwise != 0) return;
  const UI4 epoch = root->pGate->Advance();
  shadow.nodes = 0;
  for (SUSPECT& s : shadow.suspects) {
    // Nodes that are gone are no longer remembered: what a pointer says is only compared.
    if (s.seen != shadow.walks) s = {};
  }
  ++shadow.walks;
  Look(item, root, epoch);
}

void SHADOW::Suspect(PHIERAKI node, UI4 epoch) {
  for (SUSPECT& s : suspects) {
    if (s.node != node && s.node) continue;
    if (!s.node) s = {node, epoch, 0};
    s.seen = walks;
    // Two epochs on, nobody is inside who was there when it was first seen.
    assert(epoch - s.since < 3);
    return;
  }
}

#else

void AssertNothingMissed(ROOT*, PHIERAKI) {}

#endif
