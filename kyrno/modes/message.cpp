// message.cpp - units of data.
#include "kyrno/modes/message.h"

#include <cctype>
#include <cstring>

#include "Apl/vatrans.h"
#include "Apl/zblock.h"
#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/modes/command.h"
#include "kyrno/modes/connection.h"

static constexpr UI4 MODULE = 0x00000080;

PUI4 Data2Z(const CH1* bytes, UI4 n, VATYPES type) {
  PCH1 to = nullptr;
  PUI4 const z = VectorZ(type, n, &to);
  if (!z) return nullptr;
  if (type == VAC1) {
    if (n > 0) memcpy(to, bytes, n);
    if (!isUnicode()) VA2avn(to, n);
    return z;
  }
  for (UI4 i = 0; i < n; ++i) {
    const SI2 element = static_cast<UI1>(bytes[i]);
    memcpy(to + sizeof element * i, &element, sizeof element);
  }
  return z;
}

MESSAGE::MESSAGE(PBUFFER buffer, OBJSTATE state) : RPCOBJS(TMessage), pBuf(buffer) {
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
  *ppZ = nullptr;
  strcpy(event, eventname[LastState == SAPLLast ? EBlockLast : EBlock]);
  // The application knows the connection, not the unit.
  item->FullName(objname, kFullNameSize);
  if (PCH1 const dot = strrchr(objname, '.')) *dot = 0;

  pBuf->Rewind();
  const bool raw = Mode == MRaw || Mode == MBlkRaw;
  *ppZ = Data2Z(pBuf->Next(), pBuf->Remaining(), raw ? VAI2 : VAC1);
  return *ppZ ? 0 : ERR_MEMORY_ALLOC;
}

SI4 MESSAGE::Check(PFDSETS sets) {
  switch (GetState()) {
    case SReadyToSend:
      // The first in the tree wins, so that units leave in the order in which they were queued.
      if (sets->phWrite) return 0;
      [[fallthrough]];
    case SSending:
      sets->phWrite = sets->pItem;
      sets->pWrite = pBuf;
      return 0;
    case SReceiving:
      sets->phRead = sets->pItem;
      sets->pRead = pBuf;
      return 0;
    default:
      return 0;
  }
}

bool MESSAGE::Abandon(PHIERAKI item) {
  const OBJSTATE state = GetState();
  if (state == SSending) return false;
  if (state == SReceiving) CONNECTION::Above(item)->SkipBytes(pBuf->Remaining());
  return true;
}

SI4 PROGRESS::GetWaitReturns(PHIERAKI item, PCH1 objname, PCH1 event, OBJSTATE*, PUI4* ppZ) {
  item->FullName(objname, kFullNameSize);
  strcpy(event, eventname[EProgress]);
  return TakeZ(pBuf, false, ppZ);
}
