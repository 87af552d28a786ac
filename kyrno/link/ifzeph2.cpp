// ifzeph2.cpp - Zeph2Init, and what stands in its table.
#include "kyrno/link/ifzeph2.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kyrno/base/error.h"
#include "kyrno/base/export.h"
#include "kyrno/base/log.h"
#include "kyrno/boundary/roots.h"
#include "kyrno/link/zephconfig.h"
#include "kyrno/link/zephenable.h"
#include "kyrno/link/zephpoll.h"
#include "kyrno/link/zephsession.h"

static constexpr UI4 MODULE = 0x00001000;

namespace {

constexpr size_t kLoadPathSize = 1024;
constexpr size_t kSettingSize = 220;
constexpr UI4 kLoggedBytes = 4096;  // of a block
constexpr SI4 kOutOfStream = -1;

// The locks of the session and of its blocks go with a fork, as those of the roots do.
void BeforeFork() TSA(no_thread_safety_analysis) {
  ZephLock.Lock();
  ZephBlocks.BeforeFork();
}
void InParent() TSA(no_thread_safety_analysis) {
  ZephBlocks.AfterFork();
  ZephLock.Unlock();
}
void InChild() TSA(no_thread_safety_analysis) {
  ForgetAttempts();
  InParent();
}
pthread_once_t forkOnce = PTHREAD_ONCE_INIT;
void PrepareForFork() { pthread_atfork(BeforeFork, InParent, InChild); }

SI4 Zeph2Send(PCH1 data, UI4 length) {
  CH1 name[kFullNameSize + 1] = {0};
  {
    MUTEXHOLD hold(ZephLock);
    if (!SessionName(name)) return ERR_INVALID_OBJECT;
  }
  ROOTSHARE share;
  PHIERAKI const node = share.Open(kZephRoot) ? share.Root()->FindLeaf(name) : nullptr;
  if (!node) return ERR_INVALID_OBJECT;
  PBUFFER block = nullptr;
  if (const SI4 code = ComposeBlock(node, data, length, &block)) return code;
  // Deliberate: the zero behind the word is part of it, so the usual form, which goes on with a
  // closing quote, closes nothing.
  static constexpr CH1 kDisconnect[] = "[\"Disconnect";
  const bool last =
      length >= sizeof kDisconnect && memcmp(data, kDisconnect, sizeof kDisconnect) == 0;
  return SendInSession(node, block, last);
}

SI4 Zeph2GetBuffer(PVOID node, PCH1* data, PUI4 length) {
  *data = nullptr;
  *length = 0;
  if (!ZephBlocks.Find(node, data, length)) return 0;
  LOG(2, ("Passing %d %.*s", *length, static_cast<int>(std::min(*length, kLoggedBytes)), *data));
  return 0;
}

SI4 Zeph2Free(PVOID node) {
  ZephBlocks.Drop(node);
  return 0;
}

// ---- error texts

bool IsOwn(SI4 code) { return code >= ERR_BASE && code <= ERR_BASE + 600; }

/// A text that is written piece by piece into a fixed area, and cut at its end.
class WORDING {
 public:
  WORDING(PCH1 to, size_t n) : text(to), size(n) { *text = 0; }
  WORDING& Put(PCH10 piece) {
    const size_t at = Length();
    snprintf(text + at, size - at, "%s", piece);
    return *this;
  }
  WORDING& Put(SI4 number) {
    CH1 digits[12];
    snprintf(digits, sizeof digits, "%d", number);
    return Put(digits);
  }
  /// What the system says of a number of its own.
  void PutReason(SI4 number) {
    if (IsOwn(number)) return;
    CH1 reason[256] = {0};
    strerror_r_QLN(number, reason, sizeof reason - 1);
    Put(" (").Put(reason).Put(")");
  }
  size_t Length() const { return strlen(text); }

 private:
  PCH1 const text;
  const size_t size;
};

constexpr CH1 kUnresolved[] = "ZEPH cannot resolve the address";

void TellConnect(WORDING& to, SI4 reason) {
  if (reason == ERR_INVALID_HOST) {
    to.Put(kUnresolved);
    return;
  }
  to.Put("it cannot connect to specified ZEPH instance; Error ").Put(reason).PutReason(reason);
}

void TellListen(WORDING& to, SI4 reason, UI4 port) {
  if (reason == EADDRINUSE) {
    to.Put("the specified port (").Put(static_cast<SI4>(port)).Put(") is not available");
  } else if (reason == ERR_INVALID_HOST) {
    to.Put(kUnresolved);
  } else {
    to.Put("it is unable to receive connections from ZEPH instances; Error ").Put(reason);
    to.PutReason(reason);
  }
}

SI4 Zeph2Errortext(SI4 code, PCH1 text, UI4 size) {
  if (!text) return -1;
  if (size == 0) return 0;
  CH1 file[sizeof tZeph2Config::ConfigFile] = {0};
  TCommConfig setting = nullptr;
  SI4 reason = 0;
  UI4 port = 0;
  {
    MUTEXHOLD hold(ZephLock);
    if (tZeph2Config* const config = Zeph2Functions.pZeph2Config) {
      snprintf(file, sizeof file, "%s", config->ConfigFile);
      setting = config->CommConfig;
      reason = config->lError;
      port = config->Port;
    }
  }
  WORDING words(text, size);
  CH1 value[kSettingSize] = {0};
  switch (code) {
    case ERR_PARSE_ZEPH_INIT:
      ReadSetting(setting, "ZEPH\\INIT", value, sizeof value);
      words.Put("ZEPH_INIT setting (").Put(value).Put(") is invalid ");
      break;
    case ERR_ZEPH_CONNECT:
      TellConnect(words, reason);
      break;
    case ERR_ZEPH_LISTEN:
      TellListen(words, reason, port);
      break;
    case ERR_ZEPH_INI_NOT_FOUND:
      words.Put("cannot find configuration file (").Put(file).Put(")");
      break;
    default:
      words.Put("ZEPH communication failed; Error ").Put(code).PutReason(code);
  }
  return static_cast<SI4>(words.Length());
}

}  // namespace

KYRNO_EXPORT TKYRNOFNS* Zeph2Init(tZeph2Config* config) {
  TKYRNOFNS& table = Zeph2Functions;
  const TCommNotify notify = config ? config->CommNotify : nullptr;
  const TCommConfig setting = config ? config->CommConfig : nullptr;
  tZeph2Config* const fresh = static_cast<tZeph2Config*>(calloc(1, sizeof *fresh));
  if (!fresh) return nullptr;
  {
    MUTEXHOLD hold(ZephLock);
    const bool again = table.pZeph2Config != nullptr;
    if (again)
      free(fresh);
    else
      table.pZeph2Config = fresh;
    table.pZeph2Config->CommNotify = notify;
    table.pZeph2Config->CommConfig = setting;
    if (table.pZephRoot) return &table;
  }

  CH1 loadPath[kLoadPathSize] = {0};
  ReadSetting(setting, "TESSOR", loadPath, sizeof loadPath);
  InitTried.store(true, std::memory_order_release);
  const SI4 code = CreateRoot(kZephRoot, loadPath);
  // Behind the handlers of the roots: the last ones are called first, and ZephLock comes before the
  // guard of the roots.
  pthread_once(&forkOnce, PrepareForFork);
  LOG(2, ("Zeph2Init %d", code));
  ROOTSHARE share;
  MUTEXHOLD hold(ZephLock);
  if (table.pZephRoot) return &table;
  // Without a root the next call tries again.
  if (share.Open(kZephRoot)) {
    share.Object()->UseFnsReady = kOutOfStream;
    table.pZephRoot = share.Root();
  }
  Publish(table.Zeph2State, Zeph2Idle);
  Publish(table.Zeph2Enabled, 0);
  SetFPTR(table, Zeph2Enable);
  SetFPTR(table, Zeph2GetBuffer);
  SetFPTR(table, Zeph2Free);
  SetFPTR(table, Zeph2Send);
  SetFPTR(table, Zeph2Errortext);
  return &table;
}

void ZephStop() { EndZephPolling(); }

void ZephUnload() {
  // At the end of a program other threads may still be copying what they have looked at.
  ZephBlocks.DropUnseen();
  MUTEXHOLD hold(ZephLock);
  tZeph2Config* const config = Zeph2Functions.pZeph2Config;
  // One that is still in a name look-up needs what it was called with.
  if (!config || IsTurning()) return;
  EndSession(Zeph2Idle);
  ClearConfig(config);
  free(config);
  Zeph2Functions.pZeph2Config = nullptr;
}
