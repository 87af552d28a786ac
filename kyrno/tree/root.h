// root.h - the object of a root node: its work thread, the pair of sockets that wakes it, and the
// defaults of everything below it.
//
//   interpreter threads --Dirty--> pClt ====socket pair==== pWork --> work thread's wait
//
// The message is one SI4: 0 wakes, the process id ends the thread. A forked child writes another
// id, so it can't end its parent's thread.
#pragma once

#include "kyrno/tree/gate.h"
#include "kyrno/tree/rpcobjs.h"

/// A strategy: searches from a node, takes what it finds, and leaves it in *found as well.
using PFNREADY = PHIERAKI (*)(PHIERAKI node, PHIERAKI* found);
inline constexpr SI4 kStrategies = 5;

/// The words of PROTOCOL.
extern const PCH10 protocolname[PMAX];

/// Owner:   its node, which the ring of roots holds until RPCUnload.
/// Threads: properties by any thread inside the gate; Check and Execute by the work thread.
/// Errors:  lErrorObj is 1138 once the work thread has ended.
class ROOT : public RPCOBJS {
 public:
  ROOT();
  ~ROOT() override;

  /// Opens the socket pair and starts the work thread. A code other than 0: the root is unusable.
  [[nodiscard]] SI4 RootInit(PHIERAKI item);
  /// Makes the work thread look at the tree. Any thread; costs a system call only when no wake-up
  /// is on its way. The code of a thread that has ended, else 0.
  SI4 Dirty();
  /// Asks the work thread to end and waits for that. Not in a forked child.
  void Endwork();
  /// The work thread is about to look: a Dirty from now on counts for the next turn.
  void TurnBegins() WORK_ONLY;
  /// Something has changed since the turn began.
  bool IsWakePending() const { return wakePending.load(std::memory_order_acquire); }
  /// The work thread's last act: from now on the root answers 1138.
  void WorkEnded() WORK_ONLY;
  /// True in the process that made the root; elsewhere there is no work thread.
  bool IsOwnProcess() const;
  /// After a fork, in the child: locks and waiters of other threads are gone.
  void ForkedChild() { Waiters.ForkedChild(); }
  void CloseAfterFork() override;

  [[nodiscard]] SI4 SetRPCProp(PHIERAKI root, PCH10 name, PAA value) override;
  [[nodiscard]] SI4 GetRPCProp(PCH10 name, PAA args, PPAA out) override;
  SI4 Check(PFDSETS sets) override WORK_ONLY;
  SI4 Execute(PFDSETS sets) override WORK_ONLY;

  GATE* const pGate;  // one reference is the root's
  WAITPOOL Waiters;

  // Defaults for new objects.
  WORD<PROTOCOL> DefProt{PAny};
  WORD<SI4> EventMode{0};
  WORD<UI4> CompLevel{0};
  WORD<SI4> UseFnsReady{2};              // "ReadyStrategy"; below 0: callbacks instead of waits
  PFNREADY pfnsReady[kStrategies] = {};  // constant once the root is in the ring
  UI4 NextNumber() { return NameCnt.fetch_add(1, std::memory_order_relaxed); }

 private:
  SI4 WritePair(SI4 message);

  std::atomic<UI4> NameCnt{0};           // tally of generated names
  std::atomic<bool> wakePending{false};  // a wake-up is on its way
  pid_t pid = 0;                         // constant after RootInit
  PRPCSOCK pClt = nullptr;               // owned; the interpreter's end
  PRPCSOCK pWork = nullptr;              // owned; the work thread's end
  PQLNTHREAD pQlnThread = nullptr;       // owned
  time_t LastChecked WORK_DATA = 0;      // last purge of the pool
};
using PROOT = ROOT*;
