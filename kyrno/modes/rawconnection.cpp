// rawconnection.cpp - modes "raw" and "text".
#include "kyrno/modes/rawconnection.h"

#include <strings.h>

#include <memory>
#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/modes/message.h"
#include "util/itoa.h"

static constexpr UI4 MODULE = 0x00000080;

RAWCONNECTION::RAWCONNECTION(UI4 maxBlockSize, OBJMODE mode)
    : MaxBlockSize(maxBlockSize), pShared(nullptr) {
  Begin(mode);
}

RAWCONNECTION::RAWCONNECTION(UI4 maxBlockSize, OBJMODE mode, PRPCSOCK socket, STOPRULE* shared)
    : CONNECTION(socket), MaxBlockSize(maxBlockSize), pShared(shared) {
  Begin(mode);
}

void RAWCONNECTION::Begin(OBJMODE mode) { Mode = mode; }

PBUFFER RAWCONNECTION::NewHeader() { return new (std::nothrow) BUFFER(MaxBlockSize); }

SI4 RAWCONNECTION::SetRPCProp(PHIERAKI root, PCH10 name, PAA value) {
  if (strcasecmp(name, "EOM") != 0) return CONNECTION::SetRPCProp(root, name, value);
  return ReplaceStop(&own, value, Mode == MAscii);
}

/// Makes a complete buffer, which it owns, a unit in a ready state.
SI4 RAWCONNECTION::Deliver(PHIERAKI item, PBUFFER bytes, OBJSTATE state) {
  std::unique_ptr<BUFFER> unit(bytes);
  if (!unit) return ERR_MEMORY_ALLOC;
  std::unique_ptr<MESSAGE> message(new (std::nothrow) MESSAGE(unit.get(), state));
  if (!message) return ERR_MEMORY_ALLOC;
  (void)unit.release();
  message->Mode = OBJMODE{Mode};
  if (state == SAPLLast) message->NextPState = SFinished;
  CH1 name[kMaxName];
  NumberedName(name, "Blk", Count++);
  LOG(4, ("New block received %s size %d remaining Header %d", name, bytes->TotalSize(),
          pHeader ? pHeader->SizeProcessed() : 0));
  PHIERAKI const child = item->AddNew(name, message.get());
  if (!child) return ERR_NAME_IN_USE;
  (void)message.release();
  Ready4Apl(child);
  return 0;
}

/// All that has come in since the last unit, leaving pHeader empty.
PBUFFER RAWCONNECTION::TakeAll() {
  // Nothing has ever come.
  if (!pHeader) return new (std::nothrow) BUFFER(0);
  const UI4 n = pHeader->SizeProcessed();
  PBUFFER all = nullptr;
  if (n > MaxBlockSize / 2) {
    // Much of it is not copied: the buffer itself goes, and a new one takes its place.
    std::unique_ptr<BUFFER> fresh(new (std::nothrow) BUFFER(MaxBlockSize));
    if (!fresh || fresh->lError) return nullptr;
    all = pHeader;
    all->Resize(n);
    pHeader = fresh.release();
  } else {
    all = pHeader->Take(n);
  }
  pHeader->Rewind();
  return all;
}

SI4 RAWCONNECTION::HeaderRecv(PFDSETS sets, PHIERAKI item) {
  STOPRULE* const rule = own.IsSet() ? &own : pShared;
  if (!rule || !rule->IsSet()) return HeaderComplete(sets, item);
  // All units that are there are cut first and dropped together: one move of the rest, not one
  // each.
  UI4 cut = 0;
  SI4 code = 0;
  while (code == 0) {
    const SI4 n = rule->Find(pHeader, cut, &mark);
    const UI4 end = n < 0 ? 0 : static_cast<UI4>(n);
    // An empty stop would cut nothing off for ever.
    if (end <= cut) break;
    code = Deliver(item, pHeader->Take(end - cut, cut), SAPL);
    cut = end;
  }
  pHeader->Drop(cut);
  mark.searched -= cut < mark.searched ? cut : mark.searched;
  return code;
}

SI4 RAWCONNECTION::HeaderComplete(PFDSETS sets, PHIERAKI item) {
  if (own.IsSet()) {
    if (const SI4 code = HeaderRecv(sets, item)) return code;
    if (!pHeader->Complete()) return 0;
  }
  // Deliberate: without a search when the list is the server's, and never looking back later.
  mark.searched = 0;
  return pHeader->SizeProcessed() ? Deliver(item, TakeAll(), SAPL) : 0;
}

SI4 RAWCONNECTION::PassiveClose(PFDSETS sets, PHIERAKI item) {
  if (const SI4 code = Deliver(item, TakeAll(), SAPLLast)) return code;
  return CONNECTION::PassiveClose(sets, item);
}
