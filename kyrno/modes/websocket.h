// websocket.h - mode "websocket": what an HTTP connection becomes by its upgrade (RFC 6455). Ping,
// pong and close are answered here; each data frame is one unit for the application.
//
//   SIncoming    made by an automatic upgrade     "WSUpgrade", then SConnected
//   SConnected   made by "WSAccept"
//
// WSStrict holds the connection to the letter of the RFC, both ways:
//
//                    without                              with WSStrict
//   fragments out    all with the message's own opcode    the later ones with opcode 0
//   fragments in     text is checked one by one           a character may be split
//   wrong frames     mostly taken as they are             close 1002, 1007 or 1009, then "Error"
//   Close            close 1000, then as long as it       the same, 60 seconds at the most
//                    takes until the peer answers
//   peer's close     answered with 1000; it closes        answered with its own code, and the
//                                                         server closes
//
// Receiving: websocket.cpp. Sending: websocketsend.cpp. Its own frames and its end:
// websocketclose.cpp.
#pragma once

#include "Apl/utf8check.h"
#include "kyrno/modes/connection.h"
#include "kyrno/modes/wsmsg.h"

// "WSFeatures", a property of an HTTP server or connection.
inline constexpr UI4 WSAutoUpgrade = 1;
inline constexpr UI4 WSReturnAccept = 2;
inline constexpr UI4 WSStrict = 4;
// Not for applications.
/// Only together with WSStrict: the fragments of a message are joined to one unit of at most
/// MaxBlockSize bytes.
inline constexpr UI4 WSWhole = 0x100;
/// Of the HTTP connection before: nothing more is read while a piece waits, and none is longer than
/// MaxBlockSize. For a server that answers requests one by one and wants no bodies.
inline constexpr UI4 HTTPOneByOne = 0x200;
inline constexpr UI4 kInternalFeatures = WSWhole | HTTPOneByOne;

/// Owner and threads as CONNECTION. It takes the stream over from the HTTPCONNECTION that had its
/// node before: ROOT::Replace.
class WEBSOCKET : public CONNECTION {
 public:
  /// type is that of the connection before. `accept`, owned, is the header block of an automatic
  /// upgrade, handed over with "WSUpgrade"; null for one that the application has made itself.
  WEBSOCKET(UI4 maxBlockSize, OBJTYPE type, UI4 features, PBUFFER accept);
  ~WEBSOCKET() override;

  /// Begins the closing handshake; the connection ends with the peer's answer.
  [[nodiscard]] SI4 Close(PHIERAKI item) override;
  // --- websocketsend.cpp
  /// One frame: see ComposeBuffer. Several threads may send whole messages at once; the fragments
  /// of one message come one after the other, each when the send before has returned, and no other
  /// thread sends in between.
  [[nodiscard]] SI4 SendZ(PHIERAKI item, PCH1 name, PUI4 z, UI4 size, UI4 flag) override;
  /// (data, fin, opcode if it is to be another): one frame. What it says of a message under way
  /// holds once SendZ has queued it.
  [[nodiscard]] SI4 ComposeBuffer(PUI4 z, UI4 size, PBUFFER* out) override;
  /// One whole text message. ERR_FILE with a file, ERR_UTF8 for other text when it is strict.
  [[nodiscard]] SI4 ComposeBuffer(PUI1 data, UI4 n, int file, PBUFFER* out) override;
  [[nodiscard]] SI4 SendBuffer(PHIERAKI item, PCH1 name, PBUFFER buffer, UI4 flag) override;

  [[nodiscard]] SI4 GetWaitReturns(PHIERAKI item, PCH1 objname, PCH1 event, OBJSTATE* next,
                                   PUI4* ppZ) override;
  SI4 ReadRecv(PFDSETS sets, PHIERAKI child) override WORK_ONLY;
  SI4 ReadComplete(PFDSETS sets, PHIERAKI child) override WORK_ONLY;
  SI4 PassiveClose(PFDSETS sets, PHIERAKI item) override WORK_ONLY;
  SI4 Execute(PFDSETS sets) override WORK_ONLY;
  SI4 Check(PFDSETS sets) override WORK_ONLY;
  bool Abandon(PHIERAKI item) override WORK_ONLY;
  bool Lingers() const override WORK_ONLY;
  bool IsSettled(PHIERAKI item) override WORK_ONLY;
  void Send(PHIERAKI child) override WORK_ONLY;
  void Forget(PHIERAKI child) override WORK_ONLY;

 protected:
  PBUFFER NewHeader() override WORK_ONLY;
  SI4 HeaderBytes(PFDSETS sets, PHIERAKI item, PCH10 data, UI4 n, PUI4 used) override WORK_ONLY;
  SI4 Resume(PFDSETS sets, PHIERAKI item) override WORK_ONLY;
  bool WantsBytes() const override WORK_ONLY { return failed == 0 && !peerGone; }
  void SentLast(PHIERAKI item) override WORK_ONLY;
  void EndStream(PHIERAKI item, OBJSTATE to, SI4 code) override WORK_ONLY;

 private:
  struct FRAME;
  SI4 BeginFrame(PFDSETS sets, PHIERAKI item, const WSHEAD& head) WORK_ONLY;
  SI4 BeginUnit(PFDSETS sets, PHIERAKI item, const WSHEAD& head) WORK_ONLY;
  SI4 ContinueUnit(PFDSETS sets, const WSHEAD& head) WORK_ONLY;
  /// The frame that comes in, or came last, belongs to a message that is joined and goes on.
  bool GoesOn() const WORK_ONLY { return joins && lastOpcode != 0; }
  WSMSG* JoinedUnit() const WORK_ONLY { return static_cast<WSMSG*>(phJoined->Obj()); }
  void Drop(PHIERAKI child) WORK_ONLY;
  bool TakeText(WSMSG* unit, const UI1* fresh, UI4 n) WORK_ONLY;
  SI4 ControlBytes(PHIERAKI item, PCH10 data, UI4 n, PUI4 used) WORK_ONLY;
  SI4 ControlComplete(PHIERAKI item) WORK_ONLY;

  // --- websocketsend.cpp
  PBUFFER NewFrame(bool fin, UI1 opcode, UI4 n, PCH1* payload) const;
  PBUFFER NewFrame(UI1 opcode, PCH10 data, UI4 n) const;
  void MaskOut(PCH1 payload, UI4 n) const;
  SI4 ChooseOpcode(VATYPES type, bool fin, const SI4* given, FRAME* frame) const;
  SI4 Compose(PUI4 z, UI4 size, FRAME* frame) const;

  // --- websocketclose.cpp
  PBUFFER NewClose(UI2 code) const;
  void OwnName(PCH1 name);
  SI4 SendClose(PHIERAKI item, PCH1 name, PBUFFER frame);
  SI4 QueueOwn(PHIERAKI item, PBUFFER frame, bool last) WORK_ONLY;
  SI4 Pong(PHIERAKI item) WORK_ONLY;
  bool MayPong() const WORK_ONLY;
  SI4 PeerCloses(PHIERAKI item) WORK_ONLY;
  SI4 Fail(PHIERAKI item, UI2 code) WORK_ONLY;
  SI4 EndQuietly(PHIERAKI item, UI2 code) WORK_ONLY;
  void HandshakeOver(PHIERAKI item) WORK_ONLY;
  void EndLinger(PHIERAKI item) WORK_ONLY;

  const UI4 MaxBlockSize;  // of one frame's payload, or of the message that is joined
  const bool strict;
  const bool joins;
  PBUFFER pWSAccept;                // owned; handed over once
  std::atomic<UI4> cntOwn{0};       // tally: names of frames of its own
  std::atomic<UI1> firstOpcode{0};  // tally: of the message that is being sent in fragments, or 0
  // A close frame is queued and this side sends no more data: only when strict, or when the peer
  // has made a mistake. Of several who would close, one sets it.
  std::atomic<bool> closing{false};
  WORD<F8> closeDue{0.0};  // Micros: so long the handshake may take; 0 for no limit

  F8 lingerDue WORK_DATA = 0;    // Micros: so long what a peer still sends is dropped; 0: it isn't
  UI4 Count WORK_DATA = 0;       // names of units
  UI1 lastOpcode WORK_DATA = 0;  // the last one that was no continuation; strict: of the message
  bool controls WORK_DATA = false;       // a control frame is coming
  bool closeOut WORK_DATA = false;       // the close frame has left, and nothing follows it
  bool sendsOwn WORK_DATA = false;       // a frame of its own is being queued just now
  bool closeAnswered WORK_DATA = false;  // not strict: a close frame of the peer
  bool peerDone WORK_DATA = false;       // its close frame has come, or what ends it quietly
  bool peerGone WORK_DATA = false;       // ... and its end of TCP, before all of this side was out
  SI4 failed WORK_DATA = 0;              // the peer's mistake, told when the close frame has left
  WSHEAD controlHead WORK_DATA = {};
  UI4 controlSize WORK_DATA = 0;  // bytes of its payload that have come
  CH1 controlData[kMaxControl] WORK_DATA = {};
  PBUFFER pPong WORK_DATA = nullptr;  // owned; the answer that waits because so much else does
  UTF8CHECK check WORK_DATA;
  PHIERAKI phJoined WORK_DATA = nullptr;  // borrowed; in SReceiving while fragments are to come
  // Strict: the beginning of a character that goes on in the next frame.
  UI1 split[3] WORK_DATA = {};
  UI1 splitSize WORK_DATA = 0;
};
