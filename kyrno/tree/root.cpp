// root.cpp - the root object: changes, wake-ups, the work thread's start, sleep and end.
#include "kyrno/tree/root.h"

#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/net/address.h"
#include "kyrno/tls/rootcerts.h"
#include "kyrno/tls/sessioncache.h"
#include "kyrno/tree/work.h"

static constexpr UI4 MODULE = 0x00000080;

const PCH10 protocolname[PMAX] = {"ipv4", "ipv6", "ip"};

namespace {

constexpr UI4 kWaitSeconds = 300;
constexpr F8 kQuickMicros = 10;   // an answer within this is one of a burst
constexpr F8 kLongMicros = 200;   // how long a burst may leave changes
constexpr UI4 kHelpRounds = 4;    // then the work thread goes on: others have more to do
constexpr UI4 kCollectFrom = 64;  // nodes that are freed together

}  // namespace

ROOT::ROOT() : RPCOBJS(TRoot), pGate(GATE::Make()), pRootCerts(new (std::nothrow) RootCerts) {
  Queue.pRoot = this;
}

ROOT::~ROOT() {
  AssumeWorkThread();  // it has ended, or never began
  LOG(2, ("Deleting Root"));
  delete pQlnThread;
  delete pWork;
  delete pClt;
  free(pReadAhead);
  if (pGate) pGate->Release();
}

SI4 ROOT::RootInit(PHIERAKI item) {
  AssumeWorkThread();  // it begins at the end of this
  if (!pGate || !pRootCerts) return ERR_MEMORY_ALLOC;
  pid = getpid();
  if (const SI4 code = OpenReadAhead()) return code;
  if (const SI4 code = Sets.ss.Open()) return code;
  const SI4 code = RPCSockPair(&pWork, &pClt);
  if (code) return code;
  pWork->Watch(item);
  MakeDue(item);
  pQlnThread = new (std::nothrow) QLNTHREAD(WorkThread, item);
  if (!pQlnThread) return ERR_MEMORY_ALLOC;
  if (pQlnThread->Ended) return ERR_WORKSYNC_RECV;
  SetState(SRootInit);
  return 0;
}

SI4 ROOT::OpenReadAhead() {
  pReadAhead = static_cast<PCH1>(malloc(kReadAhead));
  return pReadAhead ? 0 : ERR_MEMORY_ALLOC;
}

void ROOT::ForkedChild() {
  new (&Queue.Lock) MUTEX;
  new (&CertLock) MUTEX;
  // Another thread may have been in the cache: it is left to it, and the child begins a new one.
  new (&pClientSessionDB) REF<SessionCache2>;
  pRootCerts->ForkedChild();
  Waiters.ForkedChild();
}

void ROOT::CloseAfterFork() {
  Sets.ss.CloseAfterFork();
  if (pWork) closesocket(pWork->RawSocket());
  if (pClt) closesocket(pClt->RawSocket());
}

// ---- changes

SI4 ROOT::Changed(PHIERAKI node) {
  if (const SI4 code = lErrorObj) return code;
  Mark(node);
  if (!IsOwnProcess()) return 0;
  // Callbacks belong to the work thread.
  if (UseFnsReady < 0) return Wake();
  Help();
  return 0;
}

SI4 ROOT::ChangedInBurst(PHIERAKI node, F8 now) {
  const bool quick = now - lastDelivery.load(std::memory_order_relaxed) <= kQuickMicros;
  return quick && Queue.HasReady() ? LeaveInBurst(node, now) : Changed(node);
}

SI4 ROOT::DeliveredInBurst(PHIERAKI node, F8 now) {
  lastDelivery.store(now, std::memory_order_relaxed);
  const bool lasts = leftSince.load(std::memory_order_relaxed) > 0;
  return lasts || Queue.HasReady() ? LeaveInBurst(node, now) : Changed(node);
}

SI4 ROOT::LeaveInBurst(PHIERAKI node, F8 now) {
  if (UseFnsReady < 0 || !IsOwnProcess()) return Changed(node);
  if (const SI4 code = lErrorObj) return code;
  Mark(node);
  if (leftSince.load(std::memory_order_relaxed) == 0)
    leftSince.store(now, std::memory_order_relaxed);
  // Only the first of many has something to say.
  if (!leftLately.load(std::memory_order_relaxed))
    leftLately.store(true, std::memory_order_seq_cst);
  return sleepsUntil.load(std::memory_order_seq_cst) > now + 2 * kTickMicros ? Wake() : 0;
}

void ROOT::Flush() {
  if (IsTouched() && UseFnsReady >= 0 && IsOwnProcess()) Help();
}

void ROOT::FlushOld(F8 now) {
  const F8 since = leftSince.load(std::memory_order_relaxed);
  if (since > 0 && now - since > kLongMicros) Flush();
}

SI4 ROOT::ChangedSoon(PHIERAKI node) {
  if (const SI4 code = lErrorObj) return code;
  Mark(node);
  return Wake();
}

SI4 ROOT::Dirty() {
  if (const SI4 code = lErrorObj) return code;
  lookAtAll.store(true, std::memory_order_seq_cst);
  return Wake();
}

void ROOT::Help() {
  for (UI4 round = 0; IsTouched(); ++round) {
    // Without the role nothing is lost: who has it looks at the list after giving it up.
    if (round == kHelpRounds || !Role.TryTake()) break;
    TakeTouched();
    RunDue();
    if (retired >= kCollectFrom && !retiredSocket) Collect();
    const F8 next = Timers.Next();
    const bool forWork = pPending || pDue[0] || pDue[1] || retiredSocket ||
                         (next > 0 && next < sleepsUntil.load(std::memory_order_acquire));
    GiveRole();
    if (forWork) Wake();
  }
  if (IsTouched()) Wake();
}

void ROOT::TakeRoleFromCall() {
  while (!Role.TryTake()) sched_yield();
}

void ROOT::GiveRoleFromCall() {
  // Callbacks belong to the work thread.
  if (UseFnsReady >= 0) RunDue();
  const bool more = pDue[0] || pDue[1] || pPending;
  GiveRole();
  if (more) Wake();
  Flush();
}

void ROOT::GiveRole() {
  Role.Give();
  Waiters.Post();
}

SI4 ROOT::WritePair(SI4 message) {
  const iovec piece = {&message, sizeof message};
  size_t sent = 0;
  return pClt->WriteV(&piece, 1, &sent);
}

SI4 ROOT::Wake() {
  if (!IsOwnProcess()) return 0;
  wanted.store(true, std::memory_order_seq_cst);
  // Only the first of a burst finds it asleep; and it looks at `wanted` before it sleeps.
  if (!asleep.exchange(false, std::memory_order_seq_cst)) return 0;
  const SI4 code = WritePair(0);
  // A pair that takes no more wakes the thread anyway.
  return code == ERR_SEND ? 0 : code;
}

SI4 ROOT::Sleep(SI4* brought) {
  asleep.store(true, std::memory_order_seq_cst);
  const bool more = IsTouched() || wanted.exchange(false, std::memory_order_seq_cst);
  if (more) Sets.ss.WakeAt(1);
  const SI4 code = SfWait(&Sets.ss, kWaitSeconds, brought);
  asleep.store(false, std::memory_order_seq_cst);
  return code;
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

// ---- the turn of the root's own node

SI4 ROOT::Check(PFDSETS sets) {
  pWork->Want();
  if (const SI4 code = pWork->Wait4R(&sets->ss)) return code;
  return pWork->Settle(&sets->ss);
}

SI4 ROOT::Execute(PFDSETS sets) {
  if (sets->closeAllSockets) {
    pWork->CloseSocket();
    return 0;
  }
  Housekeeping();
  if (!pWork->Ready4R(&sets->ss)) return 0;

  SI4 messages[64];
  const iovec piece = {messages, sizeof messages};
  size_t n = 0;
  if (pWork->ReadV(&piece, 1, &n)) {
    sets->endWorkThread = true;
    return ERR_WORKSYNC_RECV;
  }
  for (size_t i = 0; i < n / sizeof *messages; ++i) {
    if (messages[i] != pid) continue;
    sets->endWorkThread = true;
    LOG(1, ("endWorkThread %d %d", messages[i], pid));
  }
  return 0;
}
