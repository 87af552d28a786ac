// touched.h - the nodes that the work thread has to look at: whoever changes something that
// concerns it puts the node on this list.
//
//   any thread --Add--> last -> ... -> first        work thread --TakeAll--> first ... last
//
// A node is on the list at most once. Its mark is taken off before the work thread looks, so a
// change behind the look puts it there again and none is lost.
#pragma once

#include <atomic>

class HIERAKI;

/// A node's part.
struct TOUCHENTRY {
  std::atomic<bool> on{false};
  HIERAKI* pNext = nullptr;  // guarded by `on`: who has set it, then the work thread
};

/// Owner:   the root. Borrows the nodes: one that is unlinked stays until TakeAll has passed it,
///          see ROOT::Collect.
/// Threads: Add any, inside the gate; TakeAll in the work thread's role.
class TOUCHLIST {
 public:
  /// False when the node is on the list already.
  bool Add(HIERAKI* node);
  /// Empties the list; the first touched comes first, linked through Touched.pNext. The nodes keep
  /// their marks: Unmark each before looking at it.
  HIERAKI* TakeAll();
  static void Unmark(HIERAKI* node);
  /// Of the single order in which threads give up roles, go to sleep and touch.
  bool IsEmpty() const { return last.load(std::memory_order_seq_cst) == nullptr; }

 private:
  std::atomic<HIERAKI*> last{nullptr};
};
