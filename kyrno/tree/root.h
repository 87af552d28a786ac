// root.h - the object of a root node: its work thread, what wakes it, and the defaults of
// everything below it.
//
// Work and sleep:
//
//   whoever changes something:  put the node on Touched, then
//                               get the role --> do it at once, look at Touched again
//                               or else      --> whoever has the role looks at Touched behind it,
//                                                the work thread before it sleeps
//
// So a sleeping work thread is woken only for what it alone may do: callbacks, time limits, freeing
// sockets, the end. The message is one SI4 through a pair of sockets: 0 wakes, the process id ends
// the thread. A forked child writes another id, so it can't end its parent's thread.
#pragma once

#include "kyrno/tree/gate.h"
#include "kyrno/tree/readyqueue.h"
#include "kyrno/tree/rpcobjs.h"
#include "kyrno/tree/workrole.h"
#include "util/freed.h"
#include "util/ref.h"

class RootCerts;
class SessionCache2;

/// A strategy: searches from a node, takes what it finds, and leaves it in *found as well.
using PFNREADY = PHIERAKI (*)(PHIERAKI node, PHIERAKI* found);
inline constexpr SI4 kStrategies = 5;

/// The words of PROTOCOL.
extern const PCH10 protocolname[PMAX];

/// What the walk of sanitizer builds remembers, see shadow.h.
struct SUSPECT {
  PHIERAKI node = nullptr;  // not followed
  UI4 since = 0;            // epoch in which it was first seen
  UI4 seen = 0;             // the last walk that saw it
};
struct SHADOW {
  void Suspect(PHIERAKI node, UI4 epoch);
  SUSPECT suspects[8];
  UI4 walks = 0;
  UI4 turns = 0;
  UI4 nodes = 0;  // of the last walk
};

/// Owner:   its node, which the ring of roots holds until RPCUnload.
/// Threads: properties and changes by any thread inside the gate; the turn in the work thread's
///          role.
/// Errors:  lErrorObj is 1138 once the work thread has ended.
class ROOT : public RPCOBJS {
 public:
  ROOT();
  ~ROOT() override;

  /// Opens the sockets and starts the work thread. A code other than 0: the root is unusable.
  [[nodiscard]] SI4 RootInit(PHIERAKI item);
  /// Asks the work thread to end and waits for that. Not in a forked child.
  void Endwork();
  /// The work thread's last act: from now on the root answers 1138.
  void WorkEnded();
  /// True in the process that made the root; elsewhere there is no work thread.
  bool IsOwnProcess() const { return Sets.ss.IsOwnProcess(); }
  /// After a fork, in the child: locks and waiters of other threads are gone.
  void ForkedChild();
  void CloseAfterFork() override;
  READYQUEUE* OwnQueue() override { return &Queue; }

  // --- something has changed. Any thread inside the gate; the code of a work thread that has
  // ended, else 0. In a forked child nothing happens but the mark.
  /// At this node: looked at before this returns, unless another thread has the role.
  SI4 Changed(PHIERAKI node);
  /// At this node: the same, but an application that answers in quick succession, with more events
  /// waiting for it, has it looked at together with what it does next. Flush, the next change or,
  /// at the latest after two milliseconds, the work thread looks at it.
  SI4 ChangedInBurst(PHIERAKI node, F8 now = Micros());
  /// The same for an event that is being delivered at this time: the last one of a burst too is
  /// likely to be answered in a moment.
  SI4 DeliveredInBurst(PHIERAKI node, F8 now);
  /// Looks at what a burst has left: at once, or if it has been left for long.
  void Flush();
  void FlushOld(F8 now);
  /// At this node: left to the work thread, because it may take long.
  SI4 ChangedSoon(PHIERAKI node);
  /// Anywhere: the work thread looks at the whole tree.
  SI4 Dirty();
  /// Notes the node. The caller has the role, or calls one of the above afterwards.
  void Mark(PHIERAKI node) { Touched.Add(node); }
  /// Something may be on the list of touched nodes.
  bool IsTouched() const { return !Touched.IsEmpty(); }

  // --- the turn
  /// Notes the touched nodes and what they want to send and receive; their connections become due.
  void TakeTouched() WORK_ONLY;
  /// This node, which has a socket, is to have its turn.
  void MakeDue(PHIERAKI node) WORK_ONLY;
  void SetTimer(PHIERAKI node, F8 due) WORK_ONLY { Timers.Set(&node->Timer, due); }
  void ClearTimer(PHIERAKI node) WORK_ONLY { Timers.Clear(&node->Timer); }
  /// True in the work thread, false while another one has its role.
  bool IsWorkThread() const WORK_ONLY { return inTurn; }
  /// Only the work thread may do what this node needs now: to free a socket, which a wait that has
  /// just ended may have brought.
  void LeaveToWorkThread(PHIERAKI node) WORK_ONLY;
  /// On a root that works out of stream: this node's callback is called at the end of the turn.
  void Tell(PHIERAKI node) WORK_ONLY;
  /// Unlinks a finished node with all below it and retires it.
  void TakeOut(PHIERAKI node) WORK_ONLY;
  /// Puts another object, which the node then owns, in the place of the one that is there: its
  /// state is the one it brings, what goes on is taken over (RPCOBJS::TakeOver), and the name, the
  /// children, the touched mark, the time limit, the waiters and what the socket is watched for
  /// stay with the node. The other object was connected; a close that has met it meanwhile goes on
  /// at this one.
  void Replace(PHIERAKI node, RPCOBJS* fresh) WORK_ONLY;
  /// An interpreter thread inside the gate waits for the work thread's role, to do at once what
  /// must have nothing of the work thread in between; then what has become due is done.
  void TakeRoleFromCall() TSA(acquire_capability(WorkThreadRole));
  void GiveRoleFromCall() TSA(release_capability(WorkThreadRole));
  /// Makes the room for bytes that are read ahead; 1012.
  [[nodiscard]] SI4 OpenReadAhead() WORK_ONLY;
  /// Room for bytes that are read ahead, kReadAhead of them, for as long as the caller has the
  /// role.
  PCH1 ReadAhead() WORK_ONLY { return pReadAhead; }
  static constexpr UI4 kReadAhead = 65536;

  /// One turn of the work thread. `brought` sockets have been brought by the last wait, or, after
  /// an error, less than 1.
  void Turn(SI4 brought) WORK_ONLY;
  /// Sleeps until there is something to do; outside the role.
  [[nodiscard]] SI4 Sleep(SI4* brought);
  /// Closes every socket below a node and its own, at the end of the work thread.
  void CloseSockets(PHIERAKI item);
  /// Waits for the role, in which the work thread makes a turn, and gives it up.
  void TakeRole() TSA(acquire_capability(WorkThreadRole)) { Role.Take(); }
  void GiveRole() TSA(release_capability(WorkThreadRole));

  [[nodiscard]] SI4 SetRPCProp(PHIERAKI root, PCH10 name, PAA value) override;
  [[nodiscard]] SI4 GetRPCProp(PCH10 name, PAA args, PPAA out) override;
  SI4 Check(PFDSETS sets) override WORK_ONLY;
  SI4 Execute(PFDSETS sets) override WORK_ONLY;

  GATE* const pGate;  // one reference is the root's
  WAITPOOL Waiters;
  READYQUEUE Queue;
  FDSETS Sets;    // the work thread's role; IsOwnProcess any thread
  SHADOW Shadow;  // the work thread's role

  // Defaults for new objects.
  WORD<PROTOCOL> DefProt{PAny};
  WORD<SI4> EventMode{0};
  WORD<UI4> CompLevel{0};
  WORD<SI4> UseFnsReady{2};              // "ReadyStrategy"; below 0: callbacks instead of waits
  PFNREADY pfnsReady[kStrategies] = {};  // constant once the root is in the ring
  UI4 NextNumber() { return NameCnt.fetch_add(1, std::memory_order_relaxed); }

  // --- of secure sockets, which may outlive the root
  /// Whom they trust.
  const REF<RootCerts>& TrustedCerts() const { return pRootCerts; }
  /// What its clients need to resume sessions; made on first use. None without memory.
  REF<SessionCache2> ClientSessions();

 private:
  [[nodiscard]] SI4 SetRootCertDir(PAA value);
  [[nodiscard]] SI4 GetRootCertDir(PPAA out);
  void RenewClientSessions(SI4 size);
  SI4 WritePair(SI4 message);
  SI4 LeaveInBurst(PHIERAKI node, F8 now);
  SI4 Wake();
  void Help();
  void LookAt(PHIERAKI node) WORK_ONLY;
  void LookAtAll(PHIERAKI node) WORK_ONLY;
  void RunDue() WORK_ONLY;
  void CallBack() WORK_ONLY;
  bool Collect() WORK_ONLY;
  void Forget() WORK_ONLY;
  void Housekeeping() WORK_ONLY;
  void CloseAll(PHIERAKI node) WORK_ONLY;

  std::atomic<UI4> NameCnt{0};  // tally of generated names
  WORKROLE Role;
  TOUCHLIST Touched;
  // Of a single order with Touched and the role (seq_cst), so that no change meets a sleeper.
  std::atomic<bool> lookAtAll{false};   // of Dirty
  std::atomic<bool> wanted{false};      // the work thread is to make one more turn
  std::atomic<bool> asleep{false};      // it is about to wait, or waits
  std::atomic<F8> sleepsUntil{0};       // Micros; until when without anything else
  std::atomic<F8> lastDelivery{0};      // Micros, tally
  std::atomic<F8> leftSince{0};         // Micros, tally: the first change that was left; 0 for none
  std::atomic<bool> leftLately{false};  // changes were left since the last turn: another comes soon

  PHIERAKI pPending WORK_DATA =
      nullptr;  // borrowed; touched, taken off the list, not looked at yet
  // Connections and the root go first, so that a server accepts after they have been served.
  PHIERAKI pDue[2] WORK_DATA = {nullptr, nullptr};  // borrowed; the last of a ring
  PHIERAKI pTold WORK_DATA = nullptr;  // borrowed; first and last whose callback is due
  PHIERAKI pToldLast WORK_DATA = nullptr;
  TIMERS Timers WORK_DATA;
  PCH1 pReadAhead WORK_DATA = nullptr;  // owned
  UI4 retired WORK_DATA = 0;            // nodes since the last Collect
  bool inTurn WORK_DATA = false;
  bool retiredSocket WORK_DATA = false;  // one of them has a socket, which a wait may have brought
  F8 tickUntil WORK_DATA = 0;            // Micros
  F8 poolDue WORK_DATA = 0;              // Micros of the next purge of waiters; 0 for none
  F8 storeDue WORK_DATA = 0;             // ... of the store of large blocks

  PRPCSOCK pClt = nullptr;          // owned; the interpreter's end
  PRPCSOCK pWork = nullptr;         // owned; the work thread's end
  PQLNTHREAD pQlnThread = nullptr;  // owned
  pid_t pid = 0;                    // constant after RootInit

  const REF<RootCerts> pRootCerts;
  MUTEX CertLock;
  REF<SessionCache2> pClientSessionDB GUARDED_BY(CertLock);  // none before the first client
  TEXT pCertRootDir GUARDED_BY(CertLock);                    // null for none
};
using PROOT = ROOT*;
