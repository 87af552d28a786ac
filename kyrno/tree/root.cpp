// root.cpp - the root object: wake-ups, the work thread's start and end.
#include "kyrno/tree/root.h"

#include <unistd.h>

#include <cassert>
#include <cstring>
#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/net/address.h"
#include "kyrno/tree/work.h"

static constexpr UI4 MODULE = 0x00000080;

const PCH10 protocolname[PMAX] = {"ipv4", "ipv6", "ip"};

namespace {
constexpr time_t kPurgeSeconds = 60;
}  // namespace

ROOT::ROOT() : RPCOBJS(TRoot), pGate(new (std::nothrow) GATE) {}

ROOT::~ROOT() {
  LOG(2, ("Deleting Root"));
  delete pQlnThread;
  delete pWork;
  delete pClt;
  if (pGate) pGate->Release();
}

SI4 ROOT::RootInit(PHIERAKI item) {
  if (!pGate) return ERR_MEMORY_ALLOC;
  pid = getpid();
  const SI4 code = RPCSockPair(&pWork, &pClt);
  if (code) return code;
  pQlnThread = new (std::nothrow) QLNTHREAD(WorkThread, item);
  if (!pQlnThread) return ERR_MEMORY_ALLOC;
  if (pQlnThread->Ended) return ERR_WORKSYNC_RECV;
  SetState(SRootInit);
  return 0;
}

bool ROOT::IsOwnProcess() const { return pid == getpid(); }

SI4 ROOT::WritePair(SI4 message) {
  BUFFER buffer(sizeof message, reinterpret_cast<PCH1>(&message));
  if (buffer.lError) return buffer.lError;
  return pClt->Write(&buffer);
}

SI4 ROOT::Dirty() {
  if (const SI4 code = lErrorObj) return code;
  // The work thread clears the flag before it looks: what was changed before this line is either
  // seen by the turn that has begun, or a wake-up for the next one is on its way.
  if (wakePending.exchange(true, std::memory_order_acq_rel)) return 0;
  const SI4 code = WritePair(0);
  // Without memory nothing was written: the next one must try again.
  if (code) wakePending.store(false, std::memory_order_release);
  // A pair that takes no more wakes the thread anyway.
  return code == ERR_SEND ? 0 : code;
}

void ROOT::Endwork() {
  if (!pQlnThread) return;
  WritePair(pid);
  pQlnThread->Join();
}

void ROOT::WorkEnded() {
  lErrorObj = ERR_WORKTHREADENDED;
  Waiters.WakeAll();
}

void ROOT::TurnBegins() { wakePending.exchange(false, std::memory_order_acq_rel); }

void ROOT::CloseAfterFork() {
  if (pWork) closesocket(pWork->RawSocket());
  if (pClt) closesocket(pClt->RawSocket());
}

SI4 ROOT::Check(PFDSETS sets) { return pWork->Wait4R(&sets->ss); }

SI4 ROOT::Execute(PFDSETS sets) {
  if (sets->closeAllSockets) {
    pWork->CloseSocket();
    return 0;
  }
  const time_t now = time(nullptr);
  if (now > LastChecked + kPurgeSeconds) {
    LastChecked = now;
    Waiters.RemoveOld();
  }
  if (!pWork->Ready4R(&sets->ss)) return 0;

  SI4 messages[64];
  BUFFER buffer(sizeof messages);
  const SI4 code = buffer.lError ? buffer.lError : pWork->Read(&buffer);
  if (code) {
    sets->endWorkThread = true;
    return ERR_WORKSYNC_RECV;
  }
  const UI4 n = buffer.SizeProcessed();
  memcpy(messages, buffer.Start(), n);
  for (UI4 i = 0; i < n / sizeof *messages; ++i) {
    if (messages[i] != pid) continue;
    sets->endWorkThread = true;
    LOG(1, ("endWorkThread %d %d", messages[i], pid));
  }
  return 0;
}
