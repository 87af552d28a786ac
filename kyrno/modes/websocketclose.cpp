// websocketclose.cpp - mode "websocket": the frames that it sends by itself, and how the connection
// ends.
//
// Ends that begin with a close frame, which is the last frame:
//
//   who               told                        over when the frame is out and
//   AClose, strict    nothing                     the peer has answered, a client: and has closed
//   peer, strict      "Error" 1119                nothing more, a client: it has closed
//   peer's mistake    "Error" with its code       nothing more
//
// It is over in any case 60 seconds after the frame was queued, and sooner where only the peer's
// end of TCP is still to come. After a mistake the socket lingers: to close it while the peer still
// sends would reset the connection and destroy the close frame on its way.
#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/modes/message.h"
#include "kyrno/modes/websocket.h"
#include "kyrno/tree/root.h"
#include "util/itoa.h"

static constexpr UI4 MODULE = 0x00000080;

namespace {

constexpr F8 kLingerMicros = 2e6;  // how long the peer's end of TCP is waited for
constexpr UI4 kMostAnswers = 64;   // so much waits to be sent: more answers would not help the peer

/// The payloads of close frames. Deliberate: 1002 goes with a NUL at its end.
struct REASON {
  UI2 code;
  UI4 size;
  PCH10 payload;
};
constexpr REASON kReasons[] = {
    {WSNormal, 20, "\x03\xE8Kyrno Over and Out"},
    {WSProtocolError, 17, "\x03\xEAProtocol Error"},
    {WSBadText, 15, "\x03\xEFInvalid UTF-8"},
    {WSTooBig, 17, "\x03\xF1Message Too Big"},
};

const REASON& ReasonOf(UI2 code) {
  const REASON* row = kReasons;
  while (row->code != code) ++row;
  return *row;
}

}  // namespace

PBUFFER WEBSOCKET::NewClose(UI2 code) const {
  const REASON& reason = ReasonOf(code);
  return NewFrame(WSClose, reason.payload, reason.size);
}

SI4 WEBSOCKET::Close(PHIERAKI item) {
  const OBJSTATE state = GetState();
  if (state == SReceiving || state == SSending) return ERR_OBJECT_ACTIVITY;
  if (!IsOpen()) {
    Finish();
    return RootOf(item)->ChangedSoon(item);
  }
  ActiveClose = Micros();
  if (closing.load(std::memory_order_acquire)) return RootOf(item)->ChangedSoon(item);
  PBUFFER const frame = NewClose(WSNormal);
  if (!frame) return ERR_MEMORY_ALLOC;
  CH1 name[kMaxName];
  OwnName(name);
  if (strict) {
    const SI4 code = SendClose(item, name, frame);
    return code == ERR_CLOSED ? 0 : code;
  }
  // Deliberate: it stays connected, without a limit of time, until the peer answers.
  if (const SI4 code = CONNECTION::SendBuffer(item, name, frame, 0)) return code;
  return RootOf(item)->ChangedSoon(item);
}

/// The last frame of this side, which it owns. ERR_CLOSED when there is one already.
SI4 WEBSOCKET::SendClose(PHIERAKI item, PCH1 name, PBUFFER frame) {
  if (closing.exchange(true, std::memory_order_acq_rel)) {
    delete frame;
    return ERR_CLOSED;
  }
  const F8 now = Micros();
  ActiveClose = now;
  closeDue = now + kDrainMicros;
  const SI4 code = CONNECTION::SendBuffer(item, name, frame, 1);
  if (!code) return 0;
  // Without its frame it ends at once: others have seen that it closes.
  closeDue = now;
  (void)RootOf(item)->ChangedSoon(item);
  return code;
}

void WEBSOCKET::OwnName(PCH1 name) {
  NumberedName(name, "WSMsg", cntOwn.fetch_add(1, std::memory_order_relaxed));
}

// ---- in the work thread's role

/// Queues a frame, which it owns; null is one for which there was no memory.
SI4 WEBSOCKET::QueueOwn(PHIERAKI item, PBUFFER frame, bool last) {
  std::unique_ptr<BUFFER> owned(frame);
  if (!frame) return ERR_MEMORY_ALLOC;
  MESSAGE* const message = new (std::nothrow) MESSAGE(frame, SReadyToSend);
  if (!message) return ERR_MEMORY_ALLOC;
  (void)owned.release();
  message->Mode = OBJMODE{Mode};
  if (last) message->NextPState = SShutdown;
  CH1 name[kMaxName];
  OwnName(name);
  sendsOwn = true;
  const SI4 code = QueueFromTurn(item, name, message);
  sendsOwn = false;
  return code;
}

SI4 WEBSOCKET::Pong(PHIERAKI item) {
  std::unique_ptr<BUFFER> answer(NewFrame(WSPong, controlData, controlSize));
  if (!answer) return ERR_MEMORY_ALLOC;
  // A peer that does not read gets an answer to its last ping only, which the RFC allows.
  delete pPong;
  pPong = answer.release();
  return MayPong() ? QueueOwn(item, std::exchange(pPong, nullptr), false) : 0;
}

/// Not behind a close frame that is still to leave: what is queued there is dropped with it.
bool WEBSOCKET::MayPong() const {
  return CountOut() < kMostAnswers && (closeOut || !closing.load(std::memory_order_acquire));
}

SI4 WEBSOCKET::PeerCloses(PHIERAKI item) {
  if (!strict) {
    if (ActiveClose > 0) {
      // It may have crossed with this side's: what was sent in front of that goes out first.
      peerDone = true;
      closeDue = Micros() + kDrainMicros;
      return 0;
    }
    // The first is answered however much waits: the peer waits for that.
    if (std::exchange(closeAnswered, true) && CountOut() >= kMostAnswers) return 0;
    return QueueOwn(item, NewClose(WSNormal), false);
  }
  if (const UI2 fault = CloseFault(controlData, controlSize)) return Fail(item, fault);
  peerDone = true;
  if (!closing.exchange(true, std::memory_order_acq_rel)) {
    closeDue = Micros() + kDrainMicros;
    const UI4 n = std::min<UI4>(controlSize, sizeof(UI2));
    return QueueOwn(item, NewFrame(WSClose, controlData, n), true);
  }
  HandshakeOver(item);
  return 0;
}

SI4 WEBSOCKET::PassiveClose(PFDSETS sets, PHIERAKI item) {
  if (!peerDone || closeOut) return CONNECTION::PassiveClose(sets, item);
  // It has only nothing more to say: what is queued, and the last frame, go out.
  peerGone = true;
  return 0;
}

/// The peer has made a mistake: it is told by a close frame, and when that is out the application.
SI4 WEBSOCKET::Fail(PHIERAKI item, UI2 code) {
  LOG(1, ("%s: peer's mistake %d", item->GetName(), code));
  failed = ErrorOfClose(code);
  if (phJoined) Drop(phJoined);
  if (!closing.exchange(true, std::memory_order_acq_rel)) {
    closeDue = Micros() + kDrainMicros;
    return QueueOwn(item, NewClose(code), true);
  }
  HandshakeOver(item);
  return 0;
}

/// The same, except that the application hears nothing.
SI4 WEBSOCKET::EndQuietly(PHIERAKI item, UI2 code) {
  peerDone = true;
  if (closing.exchange(true, std::memory_order_acq_rel)) return 0;
  const F8 now = Micros();
  ActiveClose = now;
  closeDue = now + kDrainMicros;
  return QueueOwn(item, NewClose(code), true);
}

void WEBSOCKET::SentLast(PHIERAKI item) {
  if (!strict && !failed) {
    CONNECTION::SentLast(item);
    return;
  }
  closeOut = true;
  // Sent by others while this side closed: nothing follows a close frame.
  item->WalkSub([&](PHIERAKI child) {
    if (child->Obj()->Move(SReadyToSend, SFinished)) RootOf(item)->Mark(child);
  });
  HandshakeOver(item);
}

void WEBSOCKET::Send(PHIERAKI child) {
  // A pong is still due while the peer has not closed.
  if (!closeOut || sendsOwn) {
    CONNECTION::Send(child);
  } else if (child->Obj()->Move(SReadyToSend, SFinished)) {
    RootOf(child)->Mark(child);
  }
}

void WEBSOCKET::HandshakeOver(PHIERAKI item) {
  if (!closeOut || HasEnded()) return;
  const F8 soon = Micros() + kLingerMicros;
  if (failed) {
    pCon->Shutdown();
    EndStream(item, SError, failed);
    // An application that has closed too hears nothing, and the socket is closed already.
    if (pCon->isValid()) lingerDue = soon;
  } else if (peerDone && (Type == TConnection || peerGone)) {
    EndStream(item, SSocketClosed, ERR_CLOSED);
  } else if (peerDone) {
    // A client waits until the server has closed.
    closeDue = std::min(F8{closeDue}, soon);
  }
}

bool WEBSOCKET::Lingers() const { return lingerDue > 0 && HasEnded() && GetState() != SConnected; }

bool WEBSOCKET::Abandon(PHIERAKI item) {
  // A client's name is the application's, which may want it for its next try.
  return !(Lingers() && Type == TConnection) && CONNECTION::Abandon(item);
}

SI4 WEBSOCKET::Execute(PFDSETS sets) {
  if (!Lingers() || sets->closeAllSockets) return CONNECTION::Execute(sets);
  PHIERAKI const item = sets->pItem;
  iovec piece = {RootOf(item)->ReadAhead(), ROOT::kReadAhead};
  size_t dropped = 0;
  (void)pCon->Flush();
  const bool over = pCon->Ready4R(&sets->ss) && pCon->ReadV(&piece, 1, &dropped) != 0;
  if (over || Micros() >= lingerDue) EndLinger(item);
  return 0;
}

void WEBSOCKET::EndLinger(PHIERAKI item) {
  lingerDue = 0;
  RootOf(item)->Mark(item);
}

void WEBSOCKET::EndStream(PHIERAKI item, OBJSTATE to, SI4 code) {
  // However it comes to its end, it is the mistake that the application hears of.
  if (failed) {
    to = SError;
    code = failed;
  }
  if (strict && ActiveClose > 0) to = SSocketClosed;
  CONNECTION::EndStream(item, to, code);
}

SI4 WEBSOCKET::Resume(PFDSETS, PHIERAKI item) {
  if (closeDue > 0 && Micros() >= closeDue) EndStream(item, SSocketClosed, ERR_CLOSED);
  return 0;
}

SI4 WEBSOCKET::Check(PFDSETS sets) {
  PHIERAKI const item = sets->pItem;
  if (Lingers()) {
    pCon->Want();
    (void)pCon->Wait4R(&sets->ss);
    RootOf(item)->SetTimer(item, lingerDue);
    const SI4 code = pCon->Settle(&sets->ss);
    if (code) EndLinger(item);
    return code;
  }
  if (GetState() == SConnected && !HasEnded()) {
    if (pPong && MayPong())
      if (const SI4 code = QueueOwn(item, std::exchange(pPong, nullptr), false))
        EndStream(item, SError, code);
    if (!strict && peerDone && CountOut() == 0 && !pCon->OwnWants() && !HasEnded())
      EndStream(item, SSocketClosed, ERR_CLOSED);
    if (const F8 due = closeDue; due > 0) RootOf(item)->SetTimer(item, due);
  }
  return CONNECTION::Check(sets);
}

bool WEBSOCKET::IsSettled(PHIERAKI item) {
  if (!Lingers()) return CONNECTION::IsSettled(item);
  return pCon->Watched() == (EPOLLIN | pCon->OwnWants());
}
