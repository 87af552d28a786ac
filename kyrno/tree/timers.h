// timers.h - time limits of a root's nodes: a heap, earliest first, through the nodes themselves,
// so that setting one needs no memory.
#pragma once

#include "kyrno/annotate.h"
#include "sys/linux/qlntypes.h"

class TIMERS;

/// One time limit. It is taken out of its heap before it goes.
///
/// Owner:   what it limits.
/// Threads: the work thread's role.
class TIMER {
 public:
  explicit TIMER(PVOID limited = nullptr) : owner(limited) {}
  TIMER(const TIMER&) = delete;
  TIMER& operator=(const TIMER&) = delete;

  bool IsSet() const { return due > 0; }
  F8 Due() const { return due; }
  /// What it limits, as the constructor was told.
  PVOID Owner() const { return owner; }

 private:
  friend class TIMERS;
  PVOID owner;             // borrowed
  F8 due = 0;              // Micros; 0 when it is in no heap
  TIMER* child = nullptr;  // borrowed, all three: of a pairing heap
  TIMER* next = nullptr;
  TIMER* prev = nullptr;  // the sibling before, or the parent
};

/// Threads: the work thread's role.
class TIMERS {
 public:
  TIMERS() = default;
  TIMERS(const TIMERS&) = delete;
  TIMERS& operator=(const TIMERS&) = delete;

  /// Falls due at this time, in Micros, whatever it was set to before.
  void Set(TIMER* timer, F8 due);
  /// Falls due no more. Does nothing to one that is not set.
  void Clear(TIMER* timer);
  /// When the earliest falls due; 0 for none.
  F8 Next() const { return top ? top->due : 0; }
  /// Takes the earliest out that is due by now; null for none.
  TIMER* PopDue(F8 now);

 private:
  /// One heap of two, either of which may be null.
  static TIMER* Meld(TIMER* a, TIMER* b);
  /// One heap of a whole row of siblings, which may be null.
  static TIMER* MeldAll(TIMER* siblings);

  TIMER* top = nullptr;
};
