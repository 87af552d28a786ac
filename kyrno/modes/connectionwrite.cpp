// connectionwrite.cpp - what a stream endpoint sends: the list of what is to go out, in the order
// of the tree, and the gathered write.
#include <memory>

#include "kyrno/base/error.h"
#include "kyrno/modes/connection.h"
#include "kyrno/modes/relay.h"
#include "kyrno/tree/root.h"

namespace {

constexpr UI4 kWritesPerTurn = 16;
constexpr size_t kLargeTimes = 8;  // BufferBlkSize, in one write of one large message
constexpr UI4 kPieces = 256;       // at most, of one write

/// What stands first in the order of the tree of two nodes that are to be sent: commands and
/// messages lie right below the connection, reports below their command.
bool GoesBefore(PHIERAKI a, PHIERAKI b, PHIERAKI connection) {
  PHIERAKI const topA = a->Parent() == connection ? a : a->Parent();
  PHIERAKI const topB = b->Parent() == connection ? b : b->Parent();
  if (topA != topB) return connection->Place(topA) < connection->Place(topB);
  if (a == topA || b == topB) return b == topB;
  return topA->Place(a) < topA->Place(b);
}

}  // namespace

void CONNECTION::Send(PHIERAKI child) {
  RPCOBJS* const obj = child->Obj();
  if (obj->isOut) return;
  PHIERAKI const item = pItem;
  PHIERAKI before = pOutLast;
  if (before) {
    // Its place is nearly always the last one. Half of a message stays in front of all.
    MUTEXHOLD hold(RootOf(item)->Queue.Lock);
    while (before && before->Obj()->GetState() != SSending && GoesBefore(child, before, item))
      before = before->Obj()->pPrevOut;
  }
  obj->pPrevOut = before;
  obj->pNextOut = before ? before->Obj()->pNextOut : pOut;
  (before ? before->Obj()->pNextOut : pOut) = child;
  (obj->pNextOut ? obj->pNextOut->Obj()->pPrevOut : pOutLast) = child;
  obj->isOut = true;
  ++cntOut;
}

void CONNECTION::Unlist(PHIERAKI child) {
  RPCOBJS* const obj = child->Obj();
  if (!obj->isOut) return;
  (obj->pPrevOut ? obj->pPrevOut->Obj()->pNextOut : pOut) = obj->pNextOut;
  (obj->pNextOut ? obj->pNextOut->Obj()->pPrevOut : pOutLast) = obj->pPrevOut;
  obj->pNextOut = obj->pPrevOut = nullptr;
  obj->isOut = false;
  --cntOut;
  while (phHeld && cntOut < kMostQueued) Unhold(phHeld);
}

void CONNECTION::Forget(PHIERAKI child) {
  Unlist(child);
  if (phRead == child) {
    phRead = nullptr;
    pRead = nullptr;
  }
  if (phRelay == child) phRelay = nullptr;
  if (!child->Obj()->isUntold) return;
  child->Obj()->isUntold = false;
  --cntUntold;
}

bool CONNECTION::IsHalfSent(PHIERAKI child) const {
  // Of a stream that has ended nothing more goes out.
  return child == pOut && child->Obj()->isOut && GetState() == SConnected && !HasEnded() &&
         child->Obj()->Outgoing()->SizeProcessed() > 0;
}

void CONNECTION::Hold(PHIERAKI relay) {
  static_cast<RELAY*>(relay->Obj())->HoldAt(pItem, phHeld);
  phHeld = relay;
}

void CONNECTION::Unhold(PHIERAKI relay) {
  PHIERAKI* at = &phHeld;
  while (*at && *at != relay) at = static_cast<RELAY*>((*at)->Obj())->NextHeld();
  RELAY* const object = static_cast<RELAY*>(relay->Obj());
  if (*at) *at = *object->NextHeld();
  object->HoldAt(nullptr, nullptr);
  RootOf(relay)->Mark(relay);
}

SI4 CONNECTION::WriteSome(PFDSETS sets, PHIERAKI item) {
  for (UI4 i = 0; pOut && !blocked && !lastSent && i < kWritesPerTurn; ++i) {
    if (const SI4 code = WriteOnce(sets, item)) return code;
    if (GetState() != SConnected || HasEnded()) return 0;
  }
  return 0;
}

SI4 CONNECTION::WriteOnce(PFDSETS sets, PHIERAKI item) {
  iovec pieces[kPieces];
  PHIERAKI nodes[kPieces];
  size_t sizes[kPieces];  // what each node gives
  const size_t most = BufferBlkSize.load(std::memory_order_relaxed);
  size_t bytes = 0;
  UI4 cntPieces = 0;
  UI4 n = 0;
  for (PHIERAKI child = pOut; child && cntPieces + BUFFER::kPieces <= kPieces && bytes < most;) {
    RPCOBJS* const obj = child->Obj();
    PHIERAKI const next = obj->pNextOut;
    // Closed before its first byte: it is not sent. Those behind the first are only seized, since
    // they may have to stay.
    const bool mine = n > 0 ? obj->Seize(SReadyToSend)
                            : obj->Move(SReadyToSend, SSending) || obj->GetState() == SSending ||
                                  IsHalfSent(child);
    if (!mine) {
      Unlist(child);
      child = next;
      continue;
    }
    PBUFFER const buffer = obj->Outgoing();
    const bool whole = buffer->NextSize() == buffer->Remaining() && !buffer->Refills();
    // A file is sent alone, and a large message begins a write of its own.
    if (n > 0 && (!whole || buffer->lError)) {
      if (!obj->Settle(SReadyToSend, SReadyToSend)) RootOf(item)->Mark(child);
      break;
    }
    if (buffer->lError) return buffer->lError;
    // What is larger than that goes in fewer pieces: each may wake the peer.
    const size_t room = n == 0 && !whole ? kLargeTimes * most : most - bytes;
    const UI4 more = buffer->Gather(pieces + cntPieces, room);
    sizes[n] = 0;
    for (UI4 i = 0; i < more; ++i) sizes[n] += pieces[cntPieces + i].iov_len;
    cntPieces += more;
    bytes += sizes[n];
    nodes[n++] = child;
    // Behind a message that closes the connection nothing is sent.
    if (!whole || obj->NextPState == SShutdown) break;
    child = next;
  }
  if (n == 0) return 0;

  size_t sent = 0;
  const SI4 code = bytes > 0 ? pCon->WriteV(pieces, static_cast<int>(cntPieces), &sent) : 0;
  if (sent < bytes) blocked = true;
  SI4 result = code;
  bool more = code == 0;  // all before this one are out
  for (UI4 i = 0; i < n; ++i) {
    RPCOBJS* const obj = nodes[i]->Obj();
    PBUFFER const buffer = obj->Outgoing();
    buffer->Gathered();
    const size_t take = sent < sizes[i] ? sent : sizes[i];
    sent -= take;
    const bool begun = more && (take > 0 || sizes[i] == 0);
    if (i > 0 && !obj->Settle(SReadyToSend, begun ? SSending : SReadyToSend))
      RootOf(item)->Mark(nodes[i]);
    if (!begun) {
      more = false;
      continue;
    }
    buffer->NextProcessed(static_cast<UI4>(take));
    if (result == 0) result = buffer->lError;
    more = result == 0 && buffer->Complete();
    if (result == 0) result = more ? Sent(sets, nodes[i]) : WriteSend(sets, nodes[i]);
  }
  return result;
}

/// A child's last byte is out.
SI4 CONNECTION::Sent(PFDSETS sets, PHIERAKI child) {
  RPCOBJS* const obj = child->Obj();
  Unlist(child);
  if (obj->NextPState == SShutdown) {
    obj->NextPState = SDoNotChange;
    lastSent = true;
    if (const SI4 code = EndSending()) return code;
  }
  const SI4 code = WriteComplete(sets, child);
  if (child->Obj()->GetState() == SFinished && child->Obj()->Abandon(child))
    RootOf(child)->TakeOut(child);
  // A command that was closed meanwhile has waited for its report to be whole.
  if (child->Parent()->Obj()->GetState() == SFinished) RootOf(child)->Mark(child->Parent());
  return code;
}

/// The last of this side is out when the socket holds nothing back: to close it before loses that.
SI4 CONNECTION::EndSending() {
  if (!lastSent) return 0;
  // Of a failure a read tells, behind what has come, while there is one to be made.
  if (const SI4 code = pCon->Flush()) return heardEnd ? code : 0;
  if (pCon->OwnWants()) return 0;
  lastSent = heardEnd = false;
  SentLast(pItem);
  return 0;
}

void CONNECTION::SentLast(PHIERAKI) {
  ActiveClose = Micros();
  Replace(SConnected, SSocketClosed);
  pCon->Shutdown();
  shutDown = true;
}

SI4 CONNECTION::QueueFromTurn(PHIERAKI item, PCH10 leaf, RPCOBJS* child) {
  std::unique_ptr<RPCOBJS> owned(child);
  PHIERAKI const node = item->AddNew(leaf, child);
  if (!node) return ERR_NAME_IN_USE;
  (void)owned.release();
  Send(node);
  RootOf(item)->MakeDue(item);
  return 0;
}
