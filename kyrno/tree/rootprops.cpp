// rootprops.cpp - the properties of a root.
//
// A name may be written in any case. New values reach objects that are made afterwards.
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "Apl/vaget.h"
#include "Apl/vaset.h"
#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/base/log.h"
#include "kyrno/net/address.h"
#include "kyrno/tls/rootcerts.h"
#include "kyrno/tls/sessioncache.h"
#include "kyrno/tls/sslcontrol.h"
#include "kyrno/tree/root.h"
#include "sys/linux/qlnplat.h"
#include "util/httpdate.h"

namespace {

constexpr UI4 kMaxCompLevel = 9;
constexpr size_t kErrorName = 60;
constexpr size_t kErrorText = 512;

bool Is(PCH10 name, PCH10 word) { return strcasecmp(name, word) == 0; }

/// (code, name, text) of the code in element 2 of the arguments.
SI4 ErrorTextOf(PAA args, PPAA out) {
  SI4 no = 0;
  SI4 code = VAGetSI4(args, 2, &no);
  if (code) return code;
  CH1 name[kErrorName + 1] = {0};
  CH1 text[kErrorText + 1] = {0};
  if (strerror_own(no, text, kErrorText, name, kErrorName)) {
    strcpy(name, "OS Error");
    if (strerror_r_QLN(no, text, kErrorText)) snprintf(text, sizeof text, "Error %d unknown", no);
  }

  const UI4 three = 3;
  VAHOLD result(VANew(VAPntr, 1, &three));
  if (!result.Get()) return ERR_MEMORY_ALLOC;
  code = VASetSI4(result.Get(), 0, no);
  if (!code) code = VASetCH1(result.Get(), 1, name, static_cast<UI4>(strlen(name)), VACHAR);
  if (!code) code = VASetCH1(result.Get(), 2, text, static_cast<UI4>(strlen(text)), VACHAR);
  if (!code) *out = result.Release();
  return code;
}

SI4 DateNow(PPAA out) {
  CH1 text[kHttpDateSize];
  return HttpDate(text, sizeof text) ? PropText(text, out) : ERR_OPTION;
}

SI4 SetProtocol(PAA value, RPCOBJS::WORD<PROTOCOL>* to) {
  PCH1 text = nullptr;
  const SI4 code = VAGetCH1m(value, 0, &text, VACHAR);
  if (code) return code;
  UI4 i = 0;
  while (i < PMAX && !Is(text, protocolname[i])) ++i;
  free(text);
  if (i == PMAX) return ERR_OPTION;
  *to = static_cast<PROTOCOL>(i);
  return 0;
}

}  // namespace

SI4 ROOT::SetRPCProp(PHIERAKI, PCH10 name, PAA value) {
  if (Is(name, "RootCertDir")) return SetRootCertDir(value);
  if (Is(name, "Protocol")) return SetProtocol(value, &DefProt);
  // Deliberate: reads into a null target, which ends the process, so that an interpreter's handling
  // of a crash can be tried.
  if (Is(name, "crash")) return VAGetSI4(value, 0, nullptr);

  SI4 n = 0;
  const SI4 code = VAGetSI4(value, 0, &n);
  if (Is(name, "Trace")) {
    LOGSet(static_cast<UI4>(n));
  } else if (Is(name, "CompLevel")) {
    CompLevel = static_cast<UI4>(n) < kMaxCompLevel ? static_cast<UI4>(n) : kMaxCompLevel;
  } else if (Is(name, "BufferBlkSize")) {
    // 0 would make every later buffer one that never moves.
    if (!code && n == 0) return ERR_OPTION;
    if (!code) BufferBlkSize.store(static_cast<UI4>(n), std::memory_order_relaxed);
  } else if (Is(name, "ReadyStrategy")) {
    if (!code) UseFnsReady = n >= 0 && n < kStrategies ? n : 0;
  } else if (Is(name, "EventMode")) {
    if (!code) EventMode = n > 0 ? 1 : 0;
  } else if (Is(name, "InvalidateCache")) {
    if (!code && n > 0) RenewClientSessions(n);
  } else if (Is(name, "TraceGnuTLS")) {
    if (!code) SslTrace(n);
  } else {
    return ERR_OPTION;
  }
  return code;
}

SI4 ROOT::GetRPCProp(PCH10 name, PAA args, PPAA out) {
  static const PCH10 words[] = {"CompLevel", "DecodeCert", "ErrorText",     "HttpDate",
                                "PropList",  "Protocol",   "ReadyStrategy", "RootCertDir",
                                "TCPLookup", "EventMode"};
  *out = nullptr;
  if (Is(name, "Security")) return ERR_NONCE;
  if (Is(name, "RootCertDir")) return GetRootCertDir(out);
  if (Is(name, "ErrorText")) return ErrorTextOf(args, out);
  if (Is(name, "HttpDate")) return DateNow(out);
  if (Is(name, "ReadyStrategy")) return PropSI4(UseFnsReady, out);
  if (Is(name, "EventMode")) return PropSI4(EventMode, out);
  if (Is(name, "CompLevel")) return PropSI4(static_cast<SI4>(UI4{CompLevel}), out);
  if (Is(name, "Protocol")) return PropText(protocolname[DefProt], out);
  if (Is(name, "IPV4Addrs")) return IPv4Addrs(out);
  if (Is(name, "PropList")) return PropWords(words, sizeof words / sizeof *words, out);
  return ERR_OPTION;
}

// ---- of secure sockets

SI4 ROOT::SetRootCertDir(PAA value) {
  TEXT given;
  const SI4 code = ReadText(value, 0, &given);
  // The folder is read before its name is known to others, because that takes its time.
  const SI4 loaded = !code && KyrnosslLoaded() ? CacheNewRootDir(pRootCerts.Get(), given.get()) : 0;
  MUTEXHOLD hold(CertLock);
  pCertRootDir.swap(given);
  return code ? code : loaded;
}

SI4 ROOT::GetRootCertDir(PPAA out) {
  MUTEXHOLD hold(CertLock);
  return pCertRootDir ? PropText(pCertRootDir.get(), out) : ERR_OPTION;
}

REF<SessionCache2> ROOT::ClientSessions() {
  MUTEXHOLD hold(CertLock);
  if (!pClientSessionDB)
    pClientSessionDB = REF<SessionCache2>(new (std::nothrow) SessionCache2(kClientSessions));
  return pClientSessionDB;
}

/// Connections that are there keep what they have; the next one finds nothing to resume.
void ROOT::RenewClientSessions(SI4 size) {
  REF<SessionCache2> fresh(new (std::nothrow) SessionCache2(size));
  MUTEXHOLD hold(CertLock);
  if (pClientSessionDB) std::swap(pClientSessionDB, fresh);
}
