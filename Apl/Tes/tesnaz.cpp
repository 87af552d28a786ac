// tesnaz.cpp - the entry points that the interpreter finds by name, and the dispatch of commands.
#include "Apl/Tes/tesnaz.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Apl/vaconv.h"
#include "Apl/vatrans.h"
#include "Apl/zblock.h"
#include "include/kyrno.h"
#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/boundary/certs.h"
#include "kyrno/boundary/commands.h"
#include "kyrno/boundary/create.h"
#include "kyrno/boundary/listing.h"
#include "kyrno/boundary/props.h"
#include "kyrno/boundary/wait.h"
#include "kyrno/link/ifzeph2.h"
#include "sys/linux/qlnplat.h"
#include "util/blockstore.h"
#include "util/pool.h"

static constexpr UI4 MODULE = 0x20000000;

const NAFUNCTION functions[kFunctions] = {
    {"AWaitZ", RLEF | RSLT | MONA, nullptr, AWaitZ},
    {"ASendZ", RSLT | DYAD, nullptr, ASendZ},
    {"ARespondZ", RSLT | DYAD, nullptr, ARespondZ},
    {"AClose", RSLT | MONA, AClose, nullptr},
    {"ATree", RSLT | MONA, ATree, nullptr},
    {"ASetProp", RSLT | MONA, ASetProp, nullptr},
    {"AGetProp", RSLT | MONA, AGetProp, nullptr},
    {"ASrv", RSLT | MONA, ASrv, nullptr},
    {"AClt", RSLT | MONA, AClt, nullptr},
    {"ASetRelay", RSLT | MONA, ASetRelay, nullptr},
    {"ACerts", RSLT | MONA, ACerts, nullptr},
};

namespace {

constexpr SI4 kVersion = 30201503;
constexpr UI4 kIniSize = 100;
constexpr SI4 kCallStatus = 20;  // first element of the result of a call that reached no command
constexpr size_t kErrorName = 64;
constexpr size_t kErrorText = 512;

PTRANS pTranslations = nullptr;  // head of the list of FindTrans

const NAFUNCTION* FindFunction(PCH10 name) {
  if (!*name) return nullptr;
  // All begin alike; the second letter spares most of the comparisons.
  for (const NAFUNCTION& f : functions)
    if (f.name[1] == name[1] && strcmp(f.name, name) == 0) return &f;
  return nullptr;
}

/// The result of a command as a block.
SI4 PackResult(PAA owned, PUI4* result) {
  if (!owned) return ERR_MEMORY_ALLOC;
  const SI4 code = VANorm(&owned, Tes2VA, VA2Tes);
  if (code) {
    VAFree(owned);
    return code;
  }
  *result = PackZ(owned);
  return *result ? 0 : ERR_MEMORY_ALLOC;
}

SI4 Dispatch(ROOTSHARE& share, PCH10 name, ARGUMENT& arg, PUI4* ppL, PUI4* result) {
  LOG(2, ("One byte Function name %s", name ? name : ""));
  const NAFUNCTION* const f = name ? FindFunction(name) : nullptr;
  if (!f) return ERR_VALUE;
  const bool left = ppL && *ppL;
  if (!arg || left != (f->two != nullptr)) return ERR_DOMAIN;

  if (f->two) {
    *result = f->two(share, ppL, arg);
    return *result ? 0 : ERR_MEMORY_ALLOC;
  }
  PAA array = nullptr;
  const SI4 code = arg.GetArray(&array);
  return code ? code : PackResult(f->one(share, array), result);
}

/// The result of a call that reached no command.
PUI4 CallStatus(SI4 code) {
  const SI4 status[2] = {kCallStatus, code};
  CH1* data = nullptr;
  PUI4 const z = VectorZ(VAI4, 2, &data);
  if (z) memcpy(data, status, sizeof status);
  return z;
}

/// Copies a text, cut to a buffer of *size bytes, and leaves its length in *size.
void PutText(PCH1 buffer, PSI4 size, PCH10 text) {
  SI4 n = 0;
  if (buffer && size && *size > 0) {
    n = static_cast<SI4>(strnlen(text, static_cast<size_t>(*size) - 1));
    memcpy(buffer, text, static_cast<size_t>(n));
    buffer[n] = 0;
  }
  if (size) *size = n;
}

/// A name of n characters, filled up with blanks.
void PadName(PCH1 padded, PCH10 name, size_t n) {
  const size_t length = name ? strnlen(name, n) : 0;
  memset(padded, ' ', n);
  if (length) memcpy(padded, name, length);
  padded[n] = 0;
}

SI4 CopyTable(PCH10 from, PCH10 to, PCH1 out) {
  PCH10 table = nullptr;
  const SI4 code = FindTrans(from, to, &pTranslations, &table);
  if (code || !out) return code;
  if (table) {
    memcpy(out, table, MAXTRANSSIZE);
  } else {
    // A set is its own translation.
    for (UI4 i = 0; i < MAXTRANSSIZE; ++i) out[i] = static_cast<CH1>(i);
  }
  return 0;
}

/// Reads the log's settings from the INI file.
void StartLog() {
  PCH1 const path = PrependConfigDir("kyrno.ini");
  if (!path) return;
  CH1 text[kIniSize] = {0};
  if (PLATIni("Logging", "File", "", text, kIniSize - 1, path) > 0) InitLog(text);
  memset(text, 0, sizeof text);
  if (PLATIni("Logging", "Option", "", text, kIniSize - 1, path) > 0) {
    LOGSet(LOGOption(text));
    LOG(1, ("Logging is initialy set to %u from %s", LOGGet(), path));
  }
  free(path);
}

}  // namespace

__attribute__((constructor)) void onLoad() {
  StartLog();
  RPCLoad();
  LOG(1, ("Kyrno loaded"));
}

__attribute__((destructor)) void onUnload() {
  ZephStop();
  UnloadRoots();
  ZephUnload();
  // What waits to be used again would be lost with the library. Each purge leaves what is fresh.
  for (int i = 0; i < 3; ++i) {
    BlockPurge();
    PoolPurge();
  }
  LOG(1, ("Kyrno Unloaded"));
  RPCUnloadLibrary();
  (void)InitLog(nullptr);
}

SI4 Version(UI4* v) {
  if (v) {
    v[0] = 3;
    v[1] = 2;
    v[2] = 1503;
  }
  return kVersion;
}

SI4 Init(PCH10 root, PCH10 loadPath) {
  LOG(1, ("Build " __DATE__ " " __TIME__));
  InitTried.store(true, std::memory_order_release);
  return root ? CreateRoot(root, loadPath ? loadPath : "") : ERR_ROOT_NOT_FOUND;
}

SI4 Call(PCH10 root, PCH10 command, PUI4* ppR, PUI4* ppL) {
  LOG(1, ("Call %s", command ? command : ""));
  if (!ppR) return ERR_DOMAIN;
  ARGUMENT arg;
  PUI4 result = nullptr;
  SI4 code = arg.Read(*ppR);
  {
    ROOTSHARE share;
    if (root && share.Open(root)) {
      if (!code) code = Dispatch(share, command, arg, ppL, &result);
    } else {
      code = InitTried.load(std::memory_order_acquire) ? ERR_ROOT_NOT_FOUND : ERR_NOT_INITIALIZED;
    }
  }
  if (!result) result = CallStatus(code);
  LOG(2, ("After pack"));
  *ppR = result;
  return result ? code : ERR_MEMORY_ALLOC;
}

SI4 Call1(PCH10 root, PCH10 command, PUI4* ppR, PUI4* ppL) {
  if (!ppL) return Call(root, command, ppR, ppL);
  const UI4* const before = *ppL;
  const SI4 code = Call(root, command, ppR, ppL);
  if (*ppL == before) *ppL = ScalarZ(static_cast<UI4>(code));
  return code;
}

SI4 Call2(PCH10 root, PCH10 command, PUI4* ppR, PUI4* ppL) { return Call(root, command, ppR, ppL); }

SI4 ErrorText(SI4 code, PCH1 name, SI4* nameSize, PCH1 text, SI4* textSize) {
  CH1 define[kErrorName] = {0};
  CH1 message[kErrorText] = {0};
  if (strerror_own(code, message, sizeof message - 1, define, sizeof define - 1)) {
    strcpy(define, "OS Error");
    strerror_r_QLN(code, message, sizeof message - 1);
  }
  PutText(name, nameSize, define);
  PutText(text, textSize, message);
  return code;
}

SI4 SetXLate(PCH10, PCH10, PCH10 toHost, PCH10 fromHost) {
  if (toHost) SetChar2asc(toHost);
  if (fromHost) SetChar2av(fromHost);
  return 0;
}

SI4 GetXLate(PCH10 first, PCH10 second, PCH1 there, PCH1 back) {
  CH1 from[MAXCHARSETNAMESIZE + 1];
  CH1 to[MAXCHARSETNAMESIZE + 1];
  PadName(from, first, MAXCHARSETNAMESIZE);
  PadName(to, second, MAXCHARSETNAMESIZE);
  const SI4 code = CopyTable(from, to, there);
  return code ? code : CopyTable(to, from, back);
}

SI4 KickStart(PCH10 root) {
  ROOTSHARE share;
  return root && share.Open(root) ? share.Object()->Dirty() : ERR_ROOT_NOT_FOUND;
}

void FreeUsedTessorResult(PVOID z) { BlockFree(z); }
