// nameindex.cpp - the children of a node by name.
#include "kyrno/tree/nameindex.h"

#include <bit>
#include <new>

#include "kyrno/tree/hieraki.h"

namespace {

/// FNV-1a. As in HIERAKI::IsNamed, nothing behind a terminator counts.
UI4 HashOf(const CH1* name, size_t len) {
  UI4 hash = 2166136261;
  for (size_t i = 0; i < len && name[i]; ++i)
    hash = (hash ^ static_cast<UI1>(name[i])) * UI4{16777619};
  return hash;
}

}  // namespace

NAMEINDEX::~NAMEINDEX() { delete[] table; }

void NAMEINDEX::Add(HIERAKI* parent, HIERAKI* child) {
  if (abandoned) return;
  ++count;
  if (count > size && count >= kIndexed && Grow(parent)) return;  // the child came in with the rest
  if (table) Put(child);
}

void NAMEINDEX::Remove(HIERAKI* child) {
  if (abandoned) return;
  --count;
  if (!table) return;
  HIERAKI** at = Chain(child->nameEntry.hash);
  while (*at != child) at = &(*at)->nameEntry.pNext;
  *at = child->nameEntry.pNext;
  // At half the number that made it, so that children who come and go don't make one each time.
  if (count >= kIndexed / 2) return;
  delete[] table;
  table = nullptr;
  size = 0;
}

bool NAMEINDEX::Find(const CH1* name, size_t len, HIERAKI** found) const {
  *found = nullptr;
  if (!table) return false;
  const UI4 hash = HashOf(name, len);
  for (HIERAKI* t = *Chain(hash); t; t = t->nameEntry.pNext) {
    if (t->nameEntry.hash != hash || !t->IsNamed(name, len)) continue;
    if (!*found || t->Parent()->Place(t) < t->Parent()->Place(*found)) *found = t;
  }
  return true;
}

void NAMEINDEX::Abandon() {
  table = nullptr;
  size = 0;
  abandoned = true;
}

bool NAMEINDEX::Grow(HIERAKI* parent) {
  const UI4 newSize = std::bit_ceil(count + 1);
  HIERAKI** const larger = new (std::nothrow) HIERAKI* [newSize] {};
  if (!larger) return false;
  delete[] table;
  table = larger;
  size = newSize;
  HIERAKI* const last = parent->LastSub();
  HIERAKI* t = last;
  do {
    t = t->Next();
    Put(t);
  } while (t != last);
  return true;
}

void NAMEINDEX::Put(HIERAKI* child) {
  NAMEENTRY& entry = child->nameEntry;
  entry.hash = HashOf(child->Name, kMaxName);
  HIERAKI** const chain = Chain(entry.hash);
  entry.pNext = *chain;
  *chain = child;
}
