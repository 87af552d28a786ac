// hieraki.cpp - the tree of named nodes.
#include "kyrno/tree/hieraki.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <new>

#include "kyrno/base/log.h"
#include "kyrno/tree/readyqueue.h"
#include "kyrno/tree/rpcobjs.h"

static constexpr UI4 MODULE = 0x00000040;

namespace {

constexpr UI8 kStep = UI8{1} << 32;  // between the order numbers of two siblings, if there is room
constexpr UI8 kSteps = 1024;         // for which room is left otherwise

class TSA(scoped_lockable) READHOLD {
 public:
  explicit READHOLD(CMutexRW& rw) TSA(acquire_shared_capability(rw)) : held(rw) {
    held.Lock_DataRead();
  }
  ~READHOLD() TSA(release_capability()) { held.Unlock_DataRead(); }
  READHOLD(const READHOLD&) = delete;
  READHOLD& operator=(const READHOLD&) = delete;

 private:
  CMutexRW& held;
};

class TSA(scoped_lockable) WRITEHOLD {
 public:
  explicit WRITEHOLD(CMutexRW& rw) TSA(acquire_capability(rw)) : held(rw) { held.Lock_DataWrite(); }
  ~WRITEHOLD() TSA(release_capability()) { held.Unlock_DataWrite(); }
  WRITEHOLD(const WRITEHOLD&) = delete;
  WRITEHOLD& operator=(const WRITEHOLD&) = delete;

 private:
  CMutexRW& held;
};

/// The lock of a ready queue, taken behind that of the ring. A tree without a root has none: to the
/// analysis it is held all the same, and its users test for null.
class TSA(scoped_lockable) QUEUEHOLD {
 public:
  explicit QUEUEHOLD(READYQUEUE* queue) TSA(acquire_capability(queue->Lock))
      TSA(no_thread_safety_analysis)
      : held(queue) {
    if (held) held->Lock.Lock();
  }
  ~QUEUEHOLD() TSA(release_capability()) TSA(no_thread_safety_analysis) {
    if (held) held->Lock.Unlock();
  }
  QUEUEHOLD(const QUEUEHOLD&) = delete;
  QUEUEHOLD& operator=(const QUEUEHOLD&) = delete;

 private:
  READYQUEUE* held;
};

}  // namespace

HIERAKI::HIERAKI(PCH10 name, PRPCOBJS obj) : pObj(obj) {
  strncpy(Name, name, kMaxName);
  Name[kMaxName] = 0;
  memcpy(Magic, MagicString, sizeof Magic);
  if (!obj) return;
  obj->pItem = this;
  pQueue = obj->OwnQueue();
}

HIERAKI::~HIERAKI() {
  LOG(2, ("Deleting: %s", Name));
  if (PHIERAKI const last = LastSub()) {
    PHIERAKI t = last->Next();
    while (t != last) {
      PHIERAKI const next = t->Next();
      delete t;
      t = next;
    }
    delete last;
  }
  delete Obj();
  // A pointer that outlived the node trips over this.
  memcpy(Magic, "Nakket-- ", sizeof Magic);
}

void HIERAKI::CheckMagic() const { assert(memcmp(Magic, MagicString, sizeof Magic) == 0); }

PHIERAKI HIERAKI::Top() {
  PHIERAKI t = this;
  while (PHIERAKI const up = t->Parent()) t = up;
  return t;
}

PHIERAKI HIERAKI::FirstChild() {
  PHIERAKI last = nullptr;
  return Ends(&last);
}

PHIERAKI HIERAKI::Ends(PHIERAKI* last) {
  if (!LastSub()) return nullptr;
  // Under the lock: while a node is being added, the one before it is followed by the new one, and
  // a walk that took that for the oldest would send the newest message first.
  READHOLD hold(lock);
  *last = LastSub();
  return *last ? (*last)->Next() : nullptr;
}

SI4 HIERAKI::CountChildren() {
  SI4 count = 0;
  auto one = [](PHIERAKI, void* p) -> PHIERAKI {
    ++*static_cast<SI4*>(p);
    return nullptr;
  };
  LoopSub(one, &count);
  return count;
}

PHIERAKI HIERAKI::AddNew(PCH10 name, PRPCOBJS obj) {
  LOG(3, ("This %p %s", static_cast<void*>(this), name));
  const CH1* const dot = strrchr(name, '.');
  const CH1* const leaf = dot ? dot + 1 : name;
  PHIERAKI const parent = FindParent(name);
  if (!parent) {
    LOG(1, ("%s (%s)", "Parent not found", name));
    return nullptr;
  }
  PHIERAKI const node = new (std::nothrow) HIERAKI(leaf, obj);
  if (!node) return nullptr;

  {
    WRITEHOLD hold(parent->lock);
    if (parent->IsLinked() && !parent->IsTaken(leaf)) {
      parent->Link(node);
      parent->names.Add(parent, node);
      return node;
    }
  }
  LOG(1, ("%s (%s)", "Name exists", leaf));
  if (obj) obj->pItem = nullptr;
  node->pObj.store(nullptr, std::memory_order_release);
  delete node;
  return nullptr;
}

void HIERAKI::Link(PHIERAKI child) {
  child->pParent.store(this, std::memory_order_release);
  child->pQueue = pQueue;

  QUEUEHOLD hold(pQueue);
  if (PHIERAKI const last = LastSub()) {
    if (Room() == 0) {
      Renumber();
      if (pQueue) pQueue->Renumbered(this);
    }
    const UI8 step = std::clamp<UI8>(Room() / kSteps, 1, kStep);
    child->order.store(last->Order() + step, std::memory_order_relaxed);
    PHIERAKI const first = last->Next();
    child->pPrev = last;
    child->pNext.store(first, std::memory_order_release);
    first->pPrev = child;
    last->pNext.store(child, std::memory_order_release);
  }
  pSub.store(child, std::memory_order_release);
  if (pQueue) pQueue->Linked(child);
}

UI8 HIERAKI::Room() const {
  PHIERAKI const last = LastSub();
  // Modulo 2^64: an only child leaves all numbers but its own.
  return last->Next()->Order() - last->Order() - 1;
}

void HIERAKI::Renumber() {
  PHIERAKI const last = LastSub();
  PHIERAKI t = last;
  UI8 number = 0;
  do {
    t = t->Next();
    t->order.store(number, std::memory_order_relaxed);
    number += kStep;
  } while (t != last);
}

void HIERAKI::Unlink(PHIERAKI child) {
  WRITEHOLD hold(lock);
  if (child->Parent() != this || !child->IsLinked()) return;
  {
    QUEUEHOLD holdQueue(pQueue);
    if (pQueue) pQueue->Leaves(child);
    PHIERAKI const before = child->pPrev;
    PHIERAKI const behind = child->Next();
    // The anchor first: a child process that was forked in between finds a ring that ends.
    if (child == LastSub())
      pSub.store(before == child ? nullptr : before, std::memory_order_release);
    if (before != child) before->pNext.store(behind, std::memory_order_release);
    behind->pPrev = before;
    child->linked.store(false, std::memory_order_release);
  }
  names.Remove(child);
}

void HIERAKI::Shut() {
  // Under the lock: a child is either there for the walk that follows, or is not added.
  WRITEHOLD hold(lock);
  linked.store(false, std::memory_order_release);
}

PHIERAKI HIERAKI::SetSub(PHIERAKI h) {
  WRITEHOLD hold(lock);
  PHIERAKI const last = LastSub();
  // Found before the lock was taken, h may have been unlinked since.
  if (h == last || h->Parent() != this || !h->IsLinked()) return last;
  QUEUEHOLD holdQueue(pQueue);
  pSub.store(h, std::memory_order_release);
  // What a search finds below this node depends on where it begins.
  if (pQueue) pQueue->UpdateLocked(this);
  return last;
}

PRPCOBJS HIERAKI::Replace(PRPCOBJS obj) {
  obj->pItem = this;
  PRPCOBJS const old = pObj.exchange(obj, std::memory_order_acq_rel);
  if (pQueue) pQueue->Update(this);
  return old;
}

PHIERAKI HIERAKI::LoopSub(PFNH fn, void* p) {
  CheckMagic();
  if (!LastSub()) return nullptr;
  READHOLD hold(lock);
  PHIERAKI const last = LastSub();
  if (!last) return nullptr;
  PHIERAKI t = last;
  for (;;) {
    t = t->Next();
    t->CheckMagic();
    PHIERAKI const found = fn(t, p);
    if (found || t == last) return found;
  }
}

bool HIERAKI::IsNamed(PCH10 name, size_t len) const {
  return len <= kMaxName && strncmp(Name, name, len) == 0 && Name[len] == 0;
}

PHIERAKI HIERAKI::FindChild(PCH10 name, size_t len) {
  if (!LastSub()) return nullptr;
  READHOLD hold(lock);
  return FindHeld(name, len);
}

PHIERAKI HIERAKI::FindHeld(PCH10 name, size_t len) {
  PHIERAKI found = nullptr;
  if (names.Find(name, len, &found)) return found;
  PHIERAKI const last = LastSub();
  if (!last) return nullptr;
  PHIERAKI t = last;
  do {
    t = t->Next();
    if (t->IsNamed(name, len)) return t;
  } while (t != last);
  return nullptr;
}

bool HIERAKI::IsTaken(PCH10 name) {
  // Deliberate: by the whole text, so that a name of 32 characters or more is never found taken.
  const size_t len = strlen(name);
  return len == 0 || (len < kMaxName && FindHeld(name, len));
}

PHIERAKI HIERAKI::FindLeaf(PCH10 path) {
  PHIERAKI node = this;
  for (;;) {
    const CH1* const dot = strchr(path, '.');
    const size_t len = dot ? static_cast<size_t>(dot - path) : strlen(path);
    if (len > kMaxName) return nullptr;
    if (len == 0) return node;
    // Deliberate: as a last part, a name of 32 characters is not found.
    if (!dot) return len == kMaxName ? nullptr : node->FindChild(path, len);
    node = node->FindChild(path, len);
    if (!node) return nullptr;
    path = dot + 1;
  }
}

PHIERAKI HIERAKI::FindParent(PCH10 path) {
  PHIERAKI node = this;
  while (const CH1* const dot = strchr(path, '.')) {
    node = node->FindChild(path, static_cast<size_t>(dot - path));
    if (!node) return nullptr;
    path = dot + 1;
  }
  return node;
}

SI4 HIERAKI::FullName(PCH1 buf, SI4 size) {
  PHIERAKI const parent = Parent();
  if (!parent) {
    if (!buf || size < 0) return -1;
    *buf = 0;
    return 0;
  }
  const SI4 n = parent->FullName(buf, size);
  SI4 len = static_cast<SI4>(strlen(Name));
  const bool full = len == kMaxName;
  if (full) len += static_cast<SI4>(sizeof MagicString - 1);
  const SI4 more = len + (n != 0 ? 1 : 0);
  if (n < 0) return n - more;
  if (size < n + more) return -n - more;
  assert(buf);  // without one the root has answered -1

  PCH1 at = buf + n;
  if (n != 0) *at++ = '.';
  strcpy(at, Name);
  if (full) strcpy(at + kMaxName, MagicString);
  return n + more;
}

PHIERAKI HIERAKI::Add(PHIERAKI ring, PHIERAKI h) {
  if (!ring) return h;
  if (!h) return ring;
  PHIERAKI const first = ring->Next();
  ring->pNext.store(h->Next(), std::memory_order_release);
  h->pNext.store(first, std::memory_order_release);
  return h;
}

PHIERAKI HIERAKI::Find(PHIERAKI ring, PCH10 name) {
  if (!ring) return nullptr;
  PHIERAKI t = ring;
  do {
    t = t->Next();
    t->CheckMagic();
    if (strcmp(t->Name, name) == 0) return t;
  } while (t != ring);
  return nullptr;
}

PHIERAKI HIERAKI::Remove(PHIERAKI ring, PHIERAKI h) {
  if (!ring) return nullptr;
  PHIERAKI before = ring;
  while (before->Next() != h) {
    before = before->Next();
    if (before == ring) return ring;
  }
  if (before == h) return nullptr;
  before->pNext.store(h->Next(), std::memory_order_release);
  h->pNext.store(h, std::memory_order_release);
  return h == ring ? before : ring;
}

void HIERAKI::ForkedChild() {
  new (&lock) CMutexRW;
  {
    WRITEHOLD hold(lock);
    names.Abandon();
  }
  PHIERAKI const last = LastSub();
  if (!last) return;
  PHIERAKI t = last;
  do {
    t = t->Next();
    t->ForkedChild();
  } while (t != last);
}
