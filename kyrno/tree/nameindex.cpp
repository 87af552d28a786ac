// nameindex.cpp - the children of a node by name.
#include "kyrno/tree/nameindex.h"

#include <bit>
#include <cstring>
#include <new>

#include "kyrno/tree/hieraki.h"

namespace {

constexpr UI4 kKept = 64;  // entries of a table that is kept without children

/// Mixes eight bytes in.
UI8 Mixed(UI8 hash, UI8 bytes) {
  hash = (hash ^ bytes) * UI8{0x9e3779b97f4a7c15};
  return hash ^ hash >> 32;
}

}  // namespace

// As in HIERAKI::IsNamed, nothing behind a terminator counts.
UI4 NAMEINDEX::HashOf(const CH1* name, size_t len) const {
  size_t n = strnlen(name, len);
  // Peers choose names: where the index lies is nothing that they know.
  UI8 hash = Mixed(n, reinterpret_cast<uintptr_t>(this));
  UI8 word;
  for (; n >= sizeof word; n -= sizeof word, name += sizeof word) {
    memcpy(&word, name, sizeof word);
    hash = Mixed(hash, word);
  }
  word = 0;
  for (size_t i = 0; i < n; ++i) word = word << 8 | static_cast<UI1>(name[i]);
  return static_cast<UI4>(Mixed(hash, word));
}

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
  // A small one stays: children who come and go would make one each time.
  if (count >= kIndexed / 2 || size <= kKept) return;
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
