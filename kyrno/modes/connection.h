// connection.h - the base of every stream endpoint: a client, or a server's connection to one peer.
//
// It knows no wire format. It owns one socket and one framing buffer, and moves bytes between the
// socket and whichever child wants them; the modes override the phase operations.
//
//   readable ---> read ahead, as far as the framing allows, and fed piece by piece to
//                   a relay, once nothing else receives      RELAY::Forward
//                   the child in SReceiving                  ReadRecv, ReadComplete
//                   pHeader                                  HeaderRecv, HeaderComplete
//   something to send ---> gathered from the children in the order of the tree, a command's
//                   progress before the command; one write takes as many as fit into
//                   BufferBlkSize                            WriteSend, WriteComplete
//
// The messages in flight are the children in the tree; the tree is the queue. The list pOut holds
// those which are to be sent: who queues one touches it, and Check puts it there. A child that is
// half sent is always the first and the only one in SSending.
//
// States, stored by W, the work thread, or A, an interpreter thread:
//
//   from           on                             to             by  then
//   SNew           Connect                        SConnected     A
//   (accepted)     socket fine                    SIncoming      W   linked, Ready4Apl
//   (accepted)     handshake goes on              SSSL           W   NextState SIncoming
//   SSSL           Handshake gives 0              SIncoming      W   Ready4Apl
//   SSSL           Handshake fails, 60 s          SFinished      W   no event
//   SIncoming      AWaitZ                         SProcessing    A   LastState SIncoming
//   SProcessing    event told                     SConnected     A   "Connect"
//   SConnected     Read, Write or a phase fails   SError         W   see below
//   SConnected     peer closed                    SSocketClosed  W   see below
//   SConnected     Close                          SSocketClosed  A   ActiveClose; W shuts down
//   SConnected     a flag-1 buffer is out         SSocketClosed  W   ActiveClose, shut down
//   SError         AWaitZ                         SProcessing, SFinished
//   SSocketClosed  AWaitZ, ActiveClose 0          SProcessing, SFinished
//   SSocketClosed  Close, ActiveClose 0           SFinished      A
//   SSocketClosed  drained or 60 s, ActiveClose   SFinished      W
//
// When the peer closes or something fails, every command that still waits for its answer is told
// first. One that an interpreter thread has in its hands just now is told when it is given back, so
// the connection stays in SConnected, without a stream, until all have been told (EndTo).
#pragma once

#include "kyrno/net/lentbuffer.h"
#include "kyrno/tls/certdata.h"
#include "kyrno/tree/rpcobjs.h"

/// Units that may wait on a connection before relays that send there are held back.
inline constexpr UI4 kMostQueued = 16;
/// Pieces and frames that may wait for the application before their peer has to wait: each takes
/// far more memory than the few bytes that can make one.
inline constexpr UI4 kMostWaiting = 1024;
inline constexpr F8 kDrainMicros = 60e6;      // how long a closed connection waits for its peer
inline constexpr F8 kHandshakeMicros = 60e6;  // how long a peer may take to shake hands

class CONNECTION : public RPCOBJS {
 public:
  /// A client.
  CONNECTION();
  /// An accepted peer. Owns the socket. lErrorObj tells when it is unusable.
  explicit CONNECTION(PRPCSOCK socket);
  /// Without a socket: it gets the one of the connection whose node it takes over.
  explicit CONNECTION(OBJTYPE type);
  ~CONNECTION() override;

  /// Connects in the calling thread, which may block: outside the gate. Nobody else knows the
  /// object yet. A null cert makes a plain connection. giveUp as RPCSOCK.
  [[nodiscard]] SI4 Connect(PCH10 address, PCH10 port, PROTOCOL prot, const REF<CERTDATA>& cert,
                            int giveUp = -1);
  /// Is the peer's certificate in the collection? Without a collection everybody is. Any thread,
  /// of a connection that is past its handshake.
  bool IsPeerIn(PCertCollection certs) { return pCon->IsIn(certs); }
  /// As RPCSOCK; nothing happens without a socket. Any thread, or the one that has connected.
  SOCKERR SetKeepalive(UI4 time, UI4 interval);

  [[nodiscard]] SI4 Close(PHIERAKI item) override;
  [[nodiscard]] SI4 SendBuffer(PHIERAKI item, PCH1 name, PBUFFER buffer, UI4 flag) override;
  [[nodiscard]] SI4 SendZ(PHIERAKI item, PCH1 name, PUI4 z, UI4 size, UI4 flag) override;
  [[nodiscard]] SI4 SetRPCProp(PHIERAKI root, PCH10 name, PAA value) override;
  [[nodiscard]] SI4 GetRPCProp(PCH10 name, PAA args, PPAA out) override;
  void ChildFailed(PHIERAKI item, SI4 code) override;
  void CloseAfterFork() override;
  TPOOSFN Callback() override { return pOOSfn; }
  bool ClosesSilently() const override { return ActiveClose > 0; }

  SI4 Execute(PFDSETS sets) override WORK_ONLY;
  SI4 Check(PFDSETS sets) override WORK_ONLY;
  void Leave(PHIERAKI item) override WORK_ONLY;
  /// From another connection, which has not ended: its stream, with what was read ahead and what is
  /// to be sent.
  void TakeOver(RPCOBJS* from) override WORK_ONLY;
  bool IsSettled(PHIERAKI item) override WORK_ONLY;

  // --- phases; a code other than 0 ends the connection with it
  /// More of the header is in, but it is not full.
  virtual SI4 HeaderRecv(PFDSETS sets, PHIERAKI item) WORK_ONLY;
  /// The header is full. It may be rewound, and a child may be made to receive what follows.
  virtual SI4 HeaderComplete(PFDSETS sets, PHIERAKI item) WORK_ONLY;
  /// A child's buffer has got bytes and is not full.
  virtual SI4 ReadRecv(PFDSETS sets, PHIERAKI child) WORK_ONLY;
  /// A child's buffer is full: it becomes ready for the application.
  virtual SI4 ReadComplete(PFDSETS sets, PHIERAKI child) WORK_ONLY;
  virtual SI4 WriteSend(PFDSETS sets, PHIERAKI child) WORK_ONLY;
  /// A child's buffer is out: it takes its next state.
  virtual SI4 WriteComplete(PFDSETS sets, PHIERAKI child) WORK_ONLY;
  /// The peer has closed: what it leaves behind becomes units, before the connection ends.
  virtual SI4 PassiveClose(PFDSETS sets, PHIERAKI item) WORK_ONLY;

  // --- for the objects below
  /// The connection to which a node below it belongs.
  static CONNECTION* Above(PHIERAKI item);
  /// A child in SReadyToSend takes its place among what is to be sent.
  virtual void Send(PHIERAKI child) WORK_ONLY;
  /// A child receives what comes next.
  void Receive(PHIERAKI child, PBUFFER buffer) WORK_ONLY;
  /// A relay takes all that comes, once nothing receives any more.
  void SetRelay(PHIERAKI relay) WORK_ONLY { phRelay = relay; }
  /// A child goes, or is told anew that the stream has ended: forgets what it has noted of it.
  virtual void Forget(PHIERAKI child) WORK_ONLY;
  /// The stream has ended; a child that could not be told yet is asked again.
  void AskAgain(PHIERAKI child) WORK_ONLY;
  bool HasEnded() const WORK_ONLY { return EndTo != SDoNotChange; }
  bool IsReceiving(PHIERAKI child) const WORK_ONLY { return child == phRead; }
  /// Part of this child is out.
  bool IsHalfSent(PHIERAKI child) const WORK_ONLY;
  /// n bytes of the stream belong to nobody any more: they are read and dropped.
  void SkipBytes(UI4 n) WORK_ONLY { Skip += n; }
  /// A child for the application has come, or gone; of the modes whose peers can make many of few
  /// bytes. Above kMostWaiting nothing more is read.
  void UnitAdded() WORK_ONLY { ++cntWaiting; }
  void UnitGone() WORK_ONLY { --cntWaiting; }
  UI4 CountWaiting() const WORK_ONLY { return cntWaiting; }
  /// A child receives, or its rest is dropped.
  bool IsReceiving() const WORK_ONLY { return phRead || Skip > 0; }
  /// Children that wait to be sent.
  UI4 CountOut() const WORK_ONLY { return cntOut; }
  /// A relay is held back until fewer wait here; it is touched then.
  void Hold(PHIERAKI relay) WORK_ONLY;
  void Unhold(PHIERAKI relay) WORK_ONLY;

  /// Bytes that were read for `item`, whatever object it has by now: to whom they belong.
  [[nodiscard]] static SI4 Feed(PFDSETS sets, PHIERAKI item, PCH10 data, UI4 n) WORK_ONLY;
  /// Connected, and the stream has not ended: what is queued now can still go out. Any thread.
  bool IsOpen() const {
    return GetState() == SConnected && !streamEnded.load(std::memory_order_acquire);
  }

  WORD<F8> ActiveClose{0.0};  // Micros when this side began to close; 0: it hasn't
  WORD<UI4> CompLevel{6};     // 0 to 9
  TPOOSFN pOOSfn = nullptr;   // constant once the object is linked

 protected:
  /// Writes the next generated name, ".Auto00000000", of less than kMaxName characters. The result
  /// is the part behind the point.
  PCH10 CompleteName(PCH1 name);
  /// Links the child, which it owns, under item and has it sent. 1009, or 1119 when the connection
  /// has ended meanwhile. What the child's message has been lent is the caller's again.
  [[nodiscard]] SI4 Queue(PHIERAKI item, PCH10 leaf, RPCOBJS* child, LENTBUFFER* lent = nullptr);
  /// The magic of the block modes.
  virtual UI4 GetMagic() { return 0; }
  virtual void SetMagic(UI4) {}
  /// Whether bytes may be read before it is known to whom they belong. A stream without framing
  /// reads into pHeader alone.
  virtual bool ReadsAhead() const { return true; }
  /// A framing buffer of the mode's size; null without memory. Made when the first bytes come.
  virtual PBUFFER NewHeader() WORK_ONLY { return nullptr; }
  /// Bytes that belong to nobody below, n above 0: *used of them are taken, at least one. They go
  /// to pHeader, and HeaderRecv or HeaderComplete follows.
  virtual SI4 HeaderBytes(PFDSETS sets, PHIERAKI item, PCH10 data, UI4 n, PUI4 used) WORK_ONLY;
  /// At the beginning of each turn of a connected stream, for what waits for something else than
  /// bytes.
  virtual SI4 Resume(PFDSETS, PHIERAKI) WORK_ONLY { return 0; }
  /// False to leave what comes in the kernel for now. Who changes that marks the node.
  virtual bool WantsBytes() const WORK_ONLY { return true; }
  /// A buffer that was sent with flag 1 is out, and nothing goes out behind it: closes this side.
  virtual void SentLast(PHIERAKI item) WORK_ONLY;
  /// Links the child, which it owns, under item, and sends it after what is queued already. In the
  /// work thread's role. 1012 without memory for the node, 1009 for a name in use.
  [[nodiscard]] SI4 QueueFromTurn(PHIERAKI item, PCH10 leaf, RPCOBJS* child) WORK_ONLY;
  /// The stream ends: what still waits is told, then the connection becomes `to`, SError or
  /// SSocketClosed, with this code.
  virtual void EndStream(PHIERAKI item, OBJSTATE to, SI4 code) WORK_ONLY;

  PBUFFER pHeader WORK_DATA = nullptr;  // owned; null until bytes have come
  PRPCSOCK pCon = nullptr;              // constant once the object is linked

 private:
  bool ReportInstead(PHIERAKI item, SI4 code);
  bool Reads() const WORK_ONLY;
  bool TakesMore() const WORK_ONLY;
  void CheckClosing(PFDSETS sets, PHIERAKI item) WORK_ONLY;
  void Unwatched(PHIERAKI item, SI4 code) WORK_ONLY;
  void TryEnd(PHIERAKI item) WORK_ONLY;
  void Handshake(PHIERAKI item) WORK_ONLY;
  SI4 ReadSome(PFDSETS sets, PHIERAKI item) WORK_ONLY;
  SI4 ReadOnce(PFDSETS sets, PHIERAKI item, bool* filled) WORK_ONLY;
  SI4 RelayAhead() WORK_ONLY;
  SI4 ReadRelay(PFDSETS sets, PHIERAKI item, bool* filled) WORK_ONLY;
  SI4 ReadHeader(PFDSETS sets, PHIERAKI item, bool* filled) WORK_ONLY;
  SI4 ReadAhead(PFDSETS sets, PHIERAKI item, bool* filled) WORK_ONLY;
  SI4 FeedTaken(PFDSETS sets, PHIERAKI item) WORK_ONLY;
  SI4 FeedSome(PFDSETS sets, PHIERAKI item, PCH10 data, UI4 n, UI4* used) WORK_ONLY;
  SI4 ChildRead(PFDSETS sets) WORK_ONLY;
  SI4 WriteSome(PFDSETS sets, PHIERAKI item) WORK_ONLY;
  SI4 WriteOnce(PFDSETS sets, PHIERAKI item) WORK_ONLY;
  SI4 Sent(PFDSETS sets, PHIERAKI child) WORK_ONLY;
  SI4 EndSending() WORK_ONLY;
  void Unlist(PHIERAKI child) WORK_ONLY;
  void Drain(PHIERAKI item) WORK_ONLY;

  bool ownsCon = true;                   // until another object takes the node over
  std::atomic<UI4> NameCnt{0};           // tally of generated names
  std::atomic<bool> streamEnded{false};  // hand-over: EndTo is set
  std::atomic<SI4> lChildFailed{0};      // hand-over: data that proved bad while it was delivered

  PBUFFER pTaken WORK_DATA = nullptr;  // owned; read ahead by the object before, not cut yet
  PHIERAKI pOut WORK_DATA = nullptr;   // borrowed, all of them; first and last to be sent
  PHIERAKI pOutLast WORK_DATA = nullptr;
  PHIERAKI phRead WORK_DATA = nullptr;   // the child that receives
  PHIERAKI phRelay WORK_DATA = nullptr;  // the relay that takes over, or has
  PHIERAKI phHeld WORK_DATA = nullptr;   // relays of others that wait until less is to be sent here
  PBUFFER pRead WORK_DATA = nullptr;     // of phRead
  UI4 cntOut WORK_DATA = 0;
  UI4 cntWaiting WORK_DATA = 0;             // see UnitAdded
  UI4 cntUntold WORK_DATA = 0;              // children that have still to be told of the end
  UI4 Skip WORK_DATA = 0;                   // bytes to drop
  OBJSTATE EndTo WORK_DATA = SDoNotChange;  // what the connection becomes when all have been told
  SI4 EndCode WORK_DATA = 0;
  bool blocked WORK_DATA = false;    // the socket takes no more until the wait says so
  bool hasShaken WORK_DATA = false;  // hands, in this turn
  bool shutDown WORK_DATA = false;   // the sending half is closed
  bool lastSent WORK_DATA = false;   // the socket has the last of this side, not all of it is out
  bool heardEnd WORK_DATA = false;   // meanwhile the peer has ended
};
using PCONNECTION = CONNECTION*;
