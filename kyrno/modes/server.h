// server.h - owns one listening socket, accepts peers, filters them by address, and makes each a
// connection of its mode.
//
//   from            on                             to              by
//   SNew            Listen                         SListen         A
//   SListen         Pause 1                        SListenPaused   A   peers queue in the kernel
//   SListen         Pause 2                        SGotoPause      A
//   SGotoPause      the next turn                  SListenPaused   W   no socket any more
//   SListenPaused   Pause 0                        SListen         A   anew without a socket
//   any             Close                          SFinished       A
#pragma once

#include "kyrno/base/mutex.h"
#include "kyrno/modes/stoprule.h"
#include "kyrno/net/ranges.h"
#include "kyrno/tls/certdata.h"
#include "kyrno/tree/rpcobjs.h"

/// Entry of a server's ready ring.
struct READYNODE {
  READYNODE* pNext;
  PHIERAKI ph;  // borrowed; CleanUp takes it out before the node goes
};

class SERVER : public RPCOBJS {
 public:
  explicit SERVER(OBJMODE mode);
  ~SERVER() override;

  /// Listens, in the calling thread, outside the gate. Nobody else knows the object yet.
  [[nodiscard]] SI4 Listen(PCH10 port, PCH10 address, PROTOCOL prot);
  /// Makes the server a secure one; null for a plain one. Before Listen.
  void SetCert(const REF<CERTDATA>& cert) { pCert = cert; }
  /// Whom it lets in and whom it keeps out; null for no filter. Before the object is linked.
  void SetFilters(REF<RANGES> allow, REF<RANGES> deny);

  [[nodiscard]] SI4 SetRPCProp(PHIERAKI root, PCH10 name, PAA value) override;
  [[nodiscard]] SI4 GetRPCProp(PCH10 name, PAA args, PPAA out) override;
  SI4 Check(PFDSETS sets) override WORK_ONLY;
  SI4 Execute(PFDSETS sets) override WORK_ONLY;
  void Leave(PHIERAKI item) override WORK_ONLY;
  bool IsSettled(PHIERAKI item) override WORK_ONLY;
  void CloseAfterFork() override;
  TPOOSFN Callback() override { return pOOSfn; }

  /// The ready search of the bounded strategy looks no deeper than the connections.
  bool SearchStop() const { return OnlyNewReadyConnections; }

  // --- waiting in order of arrival; no property turns it on
  /// Puts a node at the end of the ready ring. Any thread.
  void ReadyFn(PHIERAKI node);
  /// Takes the oldest node that is still of use; null when there is none.
  PHIERAKI PopReady();
  void ChildReady(PHIERAKI child) override;
  SI4 CleanUp(PHIERAKI item) override WORK_ONLY;

  WORD<UI4> CompLevel{0};
  WORD<bool> FIFO{false};
  TPOOSFN pOOSfn = nullptr;  // constant once the object is linked

 protected:
  /// The connection of this mode for an accepted socket, which it owns; null without memory.
  virtual RPCOBJS* NewConnection(PRPCSOCK socket) WORK_ONLY = 0;

 private:
  /// A listening socket of the noted address.
  [[nodiscard]] SI4 OpenSocket();
  [[nodiscard]] SI4 Pause(PHIERAKI root, SI4 value);
  bool Accept(PRPCSOCK listener, PHIERAKI item) WORK_ONLY;
  bool IsWelcome(PRPCSOCK socket) WORK_ONLY;

  PROTOCOL Prot = PAny;       // constant after Listen
  PCH1 Port = nullptr;        // owned; constant after Listen
  PCH1 Address = nullptr;     // owned; may be null; constant after Listen
  REF<CERTDATA> pCert;        // null for a plain one; constant after SetCert
  REF<RANGES> pAllow, pDeny;  // constant once the object is linked

  MUTEX SocketLock;  // guards the pointer: an interpreter thread may look at the socket
  PRPCSOCK pSocket GUARDED_BY(SocketLock) = nullptr;  // owned

  WORD<UI4> timeKeepAlive{0};     // ms; for connections still to come
  WORD<UI4> intevalKeepAlive{0};  // ms
  WORD<bool> OnlyNewReadyConnections{false};
  WORD<SI4> Paused{0};

  UI4 NameCnt WORK_DATA = 0;   // accepted peers
  F8 restUntil WORK_DATA = 0;  // no descriptors left: not before this time again

  MUTEX SemReady;
  READYNODE* pReady GUARDED_BY(SemReady) = nullptr;  // owned; the newest, so its next is the oldest
};

class CMDSERVER : public SERVER {
 public:
  CMDSERVER() : SERVER(MCommand) {}

 protected:
  RPCOBJS* NewConnection(PRPCSOCK socket) override WORK_ONLY;
};

class BLKSERVER : public SERVER {
 public:
  BLKSERVER(UI4 magic, UI4 maxBlockSize, OBJMODE mode)
      : SERVER(mode), Magic(magic), MaxBlockSize(maxBlockSize) {}

 protected:
  RPCOBJS* NewConnection(PRPCSOCK socket) override WORK_ONLY;

 private:
  const UI4 Magic;
  const UI4 MaxBlockSize;
};

class RAWSERVER : public SERVER {
 public:
  RAWSERVER(UI4 maxBlockSize, OBJMODE mode) : SERVER(mode), MaxBlockSize(maxBlockSize) {}
  void SetStop(PLIST list, bool ignoreCase) { Rule.Set(list, ignoreCase); }
  [[nodiscard]] SI4 SetRPCProp(PHIERAKI root, PCH10 name, PAA value) override;

 protected:
  RPCOBJS* NewConnection(PRPCSOCK socket) override WORK_ONLY;

 private:
  const UI4 MaxBlockSize;
  STOPRULE Rule;  // shared by all its connections, which die before it
};
