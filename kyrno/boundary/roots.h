// roots.h - the roots of the process: how a call finds one, holds it, and how one comes and goes.
//
//   Init --> CreateRoot --> pRoots --> Open ... Leave    any number of calls at once
//                             |
//   AClose "." --> RPCUnload: out of the ring, waiters woken, calls out, work thread ended, freed
//
// A call enters the gate of its root in the same step in which it finds it, and leaves it before it
// blocks. So a root that is found can't go before the call is through or has stepped out.
#pragma once

#include "kyrno/tree/root.h"

/// One call's share of a root.
///
/// Owner:   lives on the stack of the calling thread.
/// Threads: that thread. What Root() leads to may be looked at only while the share is inside.
class ROOTSHARE {
 public:
  ROOTSHARE() = default;
  ~ROOTSHARE();
  ROOTSHARE(const ROOTSHARE&) = delete;
  ROOTSHARE& operator=(const ROOTSHARE&) = delete;

  /// Finds a root by its exact name and steps in. False when there is none.
  [[nodiscard]] bool Open(PCH10 name);
  /// The same with whichever root comes first.
  [[nodiscard]] bool OpenAny();

  /// The root node; null while the share is outside.
  PHIERAKI Root() const { return inside ? node : nullptr; }
  /// The root's object; null while the share is outside.
  ROOT* Object() const { return inside ? static_cast<ROOT*>(node->Obj()) : nullptr; }

  /// Steps out, before the thread does anything that blocks.
  void Leave();
  /// Steps in again. False when the root has gone meanwhile.
  [[nodiscard]] bool Enter();

  /// Steps out for a sleep on a semaphore of the root, whose memory stays until Unpark. Nodes
  /// don't.
  void Park();
  /// Ends Park, after Enter or without it.
  void Unpark() { gate->Unpark(); }
  /// The root is on its way out: nobody wakes those who go to sleep now.
  bool IsClosing() const { return gate->IsClosed(); }

 private:
  bool Hold(PHIERAKI root);

  PHIERAKI node = nullptr;    // borrowed; good while inside
  GATE* gate = nullptr;       // borrowed while inside
  bool hasReference = false;  // one is owned: the share has been outside
  UI4 ticket = 0;
  bool inside = false;
};

/// Opens the support library. Always 0: without it there is no TLS and no compression.
SI4 RPCLoad();
/// Closes the support library, unless roots are left.
void RPCUnloadLibrary();

/// An Init has been tried; never taken back. Hand-over.
inline std::atomic<bool> InitTried{false};

/// Makes a root and starts its work thread. 1043 when there is one of that name, which keeps its
/// load path; else the folder of loadPath is noted.
[[nodiscard]] SI4 CreateRoot(PCH10 name, PCH10 loadPath);

/// Ends the root of a share that is inside, with all it holds, and returns when it is gone. Of
/// several threads at once one does it, the others get 1006. A null share is none: 0.
///
/// In a forked child, which has no work thread, it closes the child's copies of the descriptors.
/// The memory stays as it is: other threads of the parent may have been in the midst of changing
/// it.
[[nodiscard]] SI4 RPCUnload(ROOTSHARE* own);

/// Ends every root.
void UnloadRoots();
