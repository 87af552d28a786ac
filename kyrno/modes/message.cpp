// message.cpp - units of data.
#include "kyrno/modes/message.h"

#include <cstring>

#include "Apl/vatrans.h"
#include "Apl/zblock.h"
#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/modes/command.h"
#include "kyrno/modes/connection.h"

static constexpr UI4 MODULE = 0x00000080;

namespace {

/// The event word of a piece of an HTTP stream: its name without the number.
void PieceWord(PCH10 name, bool last, PCH1 event) {
  static_assert(kMaxName + sizeof "Last" <= kEventSize);
  const size_t n = strcspn(name, "0123456789");
  memcpy(event, name, n);
  strcpy(event + n, last ? "Last" : "");
}

}  // namespace

void PutData(PCH1 to, const CH1* bytes, UI4 n, VATYPES type) {
  if (type == VAC1) {
    if (n > 0) memcpy(to, bytes, n);
    if (!isUnicode()) VA2avn(to, n);
    return;
  }
  for (UI4 i = 0; i < n; ++i) {
    const SI2 element = static_cast<UI1>(bytes[i]);
    memcpy(to + sizeof element * i, &element, sizeof element);
  }
}

PUI4 Data2Z(const CH1* bytes, UI4 n, VATYPES type) {
  PCH1 to = nullptr;
  PUI4 const z = VectorZ(type, n, &to);
  if (z) PutData(to, bytes, n, type);
  return z;
}

BLOCKPLACE PlaceInZ(UI4 n) {
  const UI4 tail = VectorZTail(VAC1, n);
  // At the very end of what a block can hold there is no room for a head.
  if (n > UINT32_MAX - kVectorZHead - tail) return {0, 0, 0};
  return {0, kVectorZHead, tail};
}

MESSAGE::MESSAGE(PBUFFER buffer, OBJSTATE state, F8 now) : RPCOBJS(TMessage, now), pBuf(buffer) {
  NextState = SFinished;
  SetState(state);
}

MESSAGE::~MESSAGE() {
  LOG(2, ("Deleting Message"));
  delete pBuf;
}

SI4 MESSAGE::GetWaitReturns(PHIERAKI item, PCH1 objname, PCH1 event, OBJSTATE* next, PUI4* ppZ) {
  if (LastState == SError || LastState == SSent)
    return RPCOBJS::GetWaitReturns(item, objname, event, next, ppZ);
  Describe(item, objname, event);
  return TakeData(ppZ);
}

void MESSAGE::Describe(PHIERAKI item, PCH1 objname, PCH1 event) const {
  const bool last = LastState == SAPLLast;
  if (Mode == MHttp)
    PieceWord(item->GetName(), last, event);
  else
    strcpy(event, eventname[last ? EBlockLast : EBlock]);
  // The application knows the connection, not the unit.
  item->FullName(objname, kFullNameSize);
  if (PCH1 const dot = strrchr(objname, '.')) *dot = 0;
}

SI4 MESSAGE::TakeData(PUI4* ppZ) {
  *ppZ = nullptr;
  if (pBuf->Start() != pBuf->Block()) {
    // Received to its place in the Z already.
    const UI4 n = pBuf->TotalSize();
    PCH1 const block = pBuf->ReleaseBlock();
    if (!block) return ERR_MEMORY_ALLOC;
    if (n > 0 && !isUnicode()) VA2avn(block + kVectorZHead, n);
    FinishVectorZ(block, VAC1, n);
    *ppZ = reinterpret_cast<PUI4>(block);
    return 0;
  }
  pBuf->Rewind();
  const bool raw = Mode == MRaw || Mode == MBlkRaw;
  *ppZ = Data2Z(pBuf->Next(), pBuf->Remaining(), raw ? VAI2 : VAC1);
  return *ppZ ? 0 : ERR_MEMORY_ALLOC;
}

SI4 MESSAGE::Check(PFDSETS sets) {
  if (GetState() == SReadyToSend) CONNECTION::Above(sets->pItem)->Send(sets->pItem);
  return 0;
}

bool MESSAGE::Abandon(PHIERAKI item) {
  CONNECTION* const connection = CONNECTION::Above(item);
  if (connection->IsHalfSent(item)) return false;
  if (connection->IsReceiving(item)) connection->SkipBytes(pBuf->Remaining());
  return true;
}

void MESSAGE::Leave(PHIERAKI item) { CONNECTION::Above(item)->Forget(item); }

bool MESSAGE::IsSettled(PHIERAKI item) {
  return GetState() != SReadyToSend || isOut || !CONNECTION::Above(item)->IsOpen();
}

SI4 PROGRESS::GetWaitReturns(PHIERAKI item, PCH1 objname, PCH1 event, OBJSTATE*, PUI4* ppZ) {
  item->FullName(objname, kFullNameSize);
  strcpy(event, eventname[EProgress]);
  return TakeZ(pBuf, false, ppZ);
}
