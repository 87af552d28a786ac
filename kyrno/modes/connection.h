// connection.h - the base of every stream endpoint: a client, or a server's connection to one peer.
//
// It knows no wire format. It owns one socket and one framing buffer, and moves bytes between the
// socket and whichever child wants them; the modes override the phase operations.
//
//   select says readable ---> a child in SReceiving has claimed the socket?
//                               yes: into its buffer      ReadRecv, ReadComplete
//                               no:  into pHeader         HeaderRecv, HeaderComplete
//   select says writable ---> out of the claiming child   WriteSend, WriteComplete
//
// The messages in flight are the children in the tree; the tree is the queue. The first child in
// SReadyToSend gets the socket next, one in SSending keeps it until it is through.
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
// first. One that an interpreter thread has in its hands just now is told at the next turn, so the
// connection stays in SConnected, without a stream, until all have been told (EndTo).
#pragma once

#include "kyrno/tree/rpcobjs.h"

inline constexpr F8 kDrainMicros = 60e6;      // how long a closed connection waits for its peer
inline constexpr F8 kHandshakeMicros = 60e6;  // how long a peer may take to shake hands

class CONNECTION : public RPCOBJS {
 public:
  /// A client.
  CONNECTION();
  /// An accepted peer. Owns the socket. lErrorObj tells when it is unusable.
  explicit CONNECTION(PRPCSOCK socket);
  ~CONNECTION() override;

  /// Connects in the calling thread, which may block: outside the gate. Nobody else knows the
  /// object yet.
  [[nodiscard]] SI4 Connect(PCH10 address, PCH10 port, PROTOCOL prot);

  [[nodiscard]] SI4 Close(PHIERAKI item) override;
  [[nodiscard]] SI4 SendBuffer(PHIERAKI item, PCH1 name, PBUFFER buffer, UI4 flag) override;
  [[nodiscard]] SI4 SendZ(PHIERAKI item, PCH1 name, PUI4 z, UI4 size, UI4 flag) override;
  [[nodiscard]] SI4 SetRPCProp(PHIERAKI root, PCH10 name, PAA value) override;
  [[nodiscard]] SI4 GetRPCProp(PCH10 name, PAA args, PPAA out) override;
  void ChildFailed(PHIERAKI item, SI4 code) override;
  void CloseAfterFork() override;
  TPOOSFN Callback() override { return pOOSfn; }

  SI4 Setinfo(PFDSETS sets) override WORK_ONLY;
  SI4 Check(PFDSETS sets) override WORK_ONLY;
  SI4 Execute(PFDSETS sets) override WORK_ONLY;

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

  /// The connection to which a node below it belongs.
  static CONNECTION* Above(PHIERAKI item);
  /// n bytes of the stream belong to nobody any more: they are read and dropped.
  void SkipBytes(UI4 n) WORK_ONLY { Skip += n; }
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
  /// Links the child, which it owns, under item and wakes the work thread. 1009, or 1119 when the
  /// connection has ended meanwhile.
  [[nodiscard]] SI4 Queue(PHIERAKI item, PCH10 leaf, RPCOBJS* child);
  /// The magic of the block modes.
  virtual UI4 GetMagic() { return 0; }
  virtual void SetMagic(UI4) {}

  PBUFFER pHeader WORK_DATA = nullptr;  // owned; null until the mode has made its own
  PRPCSOCK pCon = nullptr;              // owned; constant once the object is linked

 private:
  bool ReportInstead(PHIERAKI item, SI4 code);
  void TakeClaims(PFDSETS sets) WORK_ONLY;
  void ClaimAnew(PFDSETS sets, PHIERAKI item) WORK_ONLY;
  void EndStream(PHIERAKI item, OBJSTATE to, SI4 code) WORK_ONLY;
  void TryEnd(PHIERAKI item) WORK_ONLY;
  void Handshake(PHIERAKI item) WORK_ONLY;
  SI4 ReadSome(PFDSETS sets, PHIERAKI item) WORK_ONLY;
  SI4 ReadChild(PFDSETS sets, PHIERAKI item) WORK_ONLY;
  SI4 ReadHeader(PFDSETS sets, PHIERAKI item) WORK_ONLY;
  SI4 ReadSkipped(PFDSETS sets, PHIERAKI item) WORK_ONLY;
  SI4 WriteSome(PFDSETS sets) WORK_ONLY;
  void Drain() WORK_ONLY;

  std::atomic<UI4> NameCnt{0};           // tally of generated names
  std::atomic<bool> streamEnded{false};  // hand-over: EndTo is set
  std::atomic<SI4> lChildFailed{0};      // hand-over: data that proved bad while it was delivered

  PBUFFER pRead WORK_DATA = nullptr;  // borrowed, from Check to Execute
  PBUFFER pWrite WORK_DATA = nullptr;
  PHIERAKI phRead WORK_DATA = nullptr;
  PHIERAKI phWrite WORK_DATA = nullptr;
  bool holdRead WORK_DATA = false;
  UI4 Skip WORK_DATA = 0;                   // bytes to drop
  OBJSTATE EndTo WORK_DATA = SDoNotChange;  // what the connection becomes when all have been told
  SI4 EndCode WORK_DATA = 0;
  bool filled WORK_DATA = false;    // the last read got all it asked for
  bool shutDown WORK_DATA = false;  // the sending half is closed
};
using PCONNECTION = CONNECTION*;
