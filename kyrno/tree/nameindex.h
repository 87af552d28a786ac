// nameindex.h - the children of a node by name, so that finding one among thousands takes as long
// as among ten.
//
// A ring of a few children is walked. From kIndexed on they are in a hash table too, whose chains
// go through the nodes. Without memory for a table, or for a larger one, names are found all the
// same, only slower.
#pragma once

#include <cstddef>

#include "sys/linux/qlntypes.h"

class HIERAKI;

/// A node's part.
struct NAMEENTRY {
  HIERAKI* pNext = nullptr;  // borrowed; next in the chain
  UI4 hash = 0;
};

/// Threads: guarded by the ring lock of the node whose children it holds.
class NAMEINDEX {
 public:
  static constexpr UI4 kIndexed = 16;  // children from which on there is a table

  NAMEINDEX() = default;
  ~NAMEINDEX();
  NAMEINDEX(const NAMEINDEX&) = delete;
  NAMEINDEX& operator=(const NAMEINDEX&) = delete;

  /// Notes a child that has just been linked below `parent`.
  void Add(HIERAKI* parent, HIERAKI* child);
  /// Forgets a child, which may have been unlinked already.
  void Remove(HIERAKI* child);
  /// False when there is no table: the ring has to be walked. Else *found is the child with exactly
  /// these characters, the oldest of several, or null.
  bool Find(const CH1* name, size_t len, HIERAKI** found) const;
  UI4 Count() const { return count; }
  /// In a forked child: gives the table up as it is, because a thread that doesn't exist here may
  /// have been changing it. From now on every ring is walked, and nothing is counted.
  void Abandon();

 private:
  HIERAKI** Chain(UI4 hash) const { return &table[hash & (size - 1)]; }
  UI4 HashOf(const CH1* name, size_t len) const;
  void Put(HIERAKI* child);
  /// Makes a table for all children that the ring of `parent` has now. False without memory.
  bool Grow(HIERAKI* parent);

  UI4 count = 0;              // children
  UI4 size = 0;               // of the table, a power of 2; 0 for none
  HIERAKI** table = nullptr;  // owned
  bool abandoned = false;
};
