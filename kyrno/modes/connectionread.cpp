// connectionread.cpp - what a stream endpoint receives: from the socket to whoever it belongs to.
#include <memory>
#include <utility>

#include "kyrno/base/error.h"
#include "kyrno/modes/connection.h"
#include "kyrno/modes/relay.h"
#include "kyrno/tree/root.h"

namespace {

constexpr UI4 kReadsPerTurn = 16;
constexpr UI4 kOwnBytes = 8192;  // from here on a payload is read to its place at once

}  // namespace

void CONNECTION::Receive(PHIERAKI child, PBUFFER buffer) {
  phRead = child;
  pRead = buffer;
}

SI4 CONNECTION::ReadSome(PFDSETS sets, PHIERAKI item) {
  // A read that got all it asked for is likely to have left more, but not so much is taken in one
  // turn that the others wait.
  bool filled = true;
  for (UI4 i = 0; filled && i < kReadsPerTurn; ++i) {
    if (GetState() != SConnected || HasEnded() || item->Obj() != this || !Reads()) return 0;
    filled = false;
    if (const SI4 code = ReadOnce(sets, item, &filled)) return code;
    // What comes in after the application has added a relay goes to the relay.
    if (filled && RootOf(item)->IsTouched()) RootOf(item)->TakeTouched();
  }
  return 0;
}

SI4 CONNECTION::ReadOnce(PFDSETS sets, PHIERAKI item, bool* filled) {
  SI4 code;
  if (Skip == 0 && !phRead && phRelay)
    code = ReadRelay(sets, item, filled);
  else if (Skip == 0 && !phRead && !ReadsAhead())
    code = ReadHeader(sets, item, filled);
  else
    code = ReadAhead(sets, item, filled);
  if (code != ERR_CLOSED) return code;
  heardEnd = lastSent;
  return lastSent ? 0 : PassiveClose(sets, item);
}

SI4 CONNECTION::ReadRelay(PFDSETS, PHIERAKI, bool* filled) {
  RELAY* const relay = static_cast<RELAY*>(phRelay->Obj());
  relay->Move(SReadyToRecv, SReceiving);
  PBUFFER const buffer = relay->GetBuffer();
  if (const SI4 code = pCon->Read(buffer)) return code;
  *filled = buffer->Complete();
  return relay->RelayBuf(phRelay, pHeader);
}

/// A relay has been added: what was read ahead goes out now, since nothing may follow.
SI4 CONNECTION::RelayAhead() {
  if (!phRelay || phRead || Skip > 0 || !pHeader || pHeader->SizeProcessed() == 0) return 0;
  RELAY* const relay = static_cast<RELAY*>(phRelay->Obj());
  relay->Move(SReadyToRecv, SReceiving);
  return relay->Forward(phRelay, pHeader, nullptr, 0);
}

SI4 CONNECTION::ReadHeader(PFDSETS sets, PHIERAKI item, bool* filled) {
  if (!pHeader) pHeader = NewHeader();
  if (!pHeader || pHeader->lError) return ERR_MEMORY_ALLOC;
  if (const SI4 code = pCon->Read(pHeader)) return code;
  *filled = pHeader->Complete();
  return *filled ? HeaderComplete(sets, item) : HeaderRecv(sets, item);
}

/// Reads what a child still lacks to its place, when that is much, and whatever follows, or little
/// things, to the room that all connections share. Of a peer that has to wait, nothing that
/// follows.
SI4 CONNECTION::ReadAhead(PFDSETS sets, PHIERAKI item, bool* filled) {
  iovec pieces[2];
  int n = 0;
  UI4 own = 0;
  UI4 most = ROOT::kReadAhead;
  if (!TakesMore() && Skip < most) most = Skip;
  if (Skip == 0 && phRead && (pRead->Remaining() >= kOwnBytes || most == 0)) {
    PCH1 at;
    if (const SI4 code = pRead->Room(&at, &own)) return code;
    pieces[n++] = {at, own};
  }
  PCH1 const ahead = RootOf(item)->ReadAhead();
  if (most > 0 && (n == 0 || own == pRead->Remaining())) pieces[n++] = {ahead, most};

  size_t got = 0;
  if (const SI4 code = pCon->ReadV(pieces, n, &got)) return code;
  size_t all = 0;
  for (int i = 0; i < n; ++i) all += pieces[i].iov_len;
  *filled = got == all;
  if (got == 0) return 0;
  sets->now = Micros();

  const UI4 mine = static_cast<UI4>(got < own ? got : own);
  if (mine > 0) {
    pRead->NextProcessed(mine);
    if (const SI4 code = ChildRead(sets)) return code;
  }
  return Feed(sets, item, ahead, static_cast<UI4>(got - mine));
}

SI4 CONNECTION::ChildRead(PFDSETS sets) {
  PHIERAKI const child = phRead;
  if (!pRead->Complete()) return ReadRecv(sets, child);
  phRead = nullptr;
  pRead = nullptr;
  return ReadComplete(sets, child);
}

SI4 CONNECTION::Feed(PFDSETS sets, PHIERAKI item, PCH10 data, UI4 n) {
  while (n > 0) {
    PCONNECTION const now = static_cast<PCONNECTION>(item->Obj());
    // Closed or ended meanwhile: nothing more is cut.
    if (now->GetState() != SConnected || now->HasEnded()) return 0;
    if (const SI4 code = now->FeedTaken(sets, item)) return code;
    UI4 used = 0;
    if (const SI4 code = now->FeedSome(sets, item, data, n, &used)) return code;
    data += used;
    n -= used;
  }
  return 0;
}

/// What the object before this one had read ahead, as far as its own framing had taken it.
SI4 CONNECTION::FeedTaken(PFDSETS sets, PHIERAKI item) {
  if (!pTaken) return 0;
  const std::unique_ptr<BUFFER> taken(std::exchange(pTaken, nullptr));
  const UI4 n = taken->SizeProcessed();
  taken->Rewind();
  return Feed(sets, item, taken->Start(), n);
}

SI4 CONNECTION::FeedSome(PFDSETS sets, PHIERAKI item, PCH10 data, UI4 n, UI4* used) {
  if (Skip > 0) {
    *used = n < Skip ? n : Skip;
    Skip -= *used;
    return 0;
  }
  if (phRead) {
    const UI4 left = pRead->Remaining();
    *used = n < left ? n : left;
    pRead->Append(data, *used);
    return pRead->lError ? pRead->lError : ChildRead(sets);
  }
  if (phRelay) {
    RELAY* const relay = static_cast<RELAY*>(phRelay->Obj());
    relay->Move(SReadyToRecv, SReceiving);
    *used = n;
    return relay->Forward(phRelay, pHeader, data, n);
  }
  return HeaderBytes(sets, item, data, n, used);
}

SI4 CONNECTION::HeaderBytes(PFDSETS sets, PHIERAKI item, PCH10 data, UI4 n, PUI4 used) {
  if (!pHeader) pHeader = NewHeader();
  if (!pHeader || pHeader->lError) return ERR_MEMORY_ALLOC;
  const UI4 left = pHeader->Remaining();
  *used = n < left ? n : left;
  pHeader->Append(data, *used);
  if (pHeader->lError) return pHeader->lError;
  return pHeader->Complete() ? HeaderComplete(sets, item) : HeaderRecv(sets, item);
}
