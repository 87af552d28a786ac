// create.cpp - the commands ASrv and AClt.
#include "kyrno/boundary/create.h"

#include <strings.h>

#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "Apl/vaget.h"
#include "Apl/vaset.h"
#include "kyrno/base/error.h"
#include "kyrno/boundary/arrays.h"
#include "kyrno/boundary/certoptions.h"
#include "kyrno/boundary/objects.h"
#include "kyrno/boundary/options.h"
#include "kyrno/tls/sslcontrol.h"

const PCH10 KyrnoOptionNames[COMAX] = {"Name",
                                       "Address",
                                       "Port",
                                       "Mode",
                                       "BufferSize",
                                       "SSLValidation",
                                       "EOM",
                                       "IgnoreCase",
                                       "Protocol",
                                       "PublicCertData",
                                       "PrivateKeyFile",
                                       "PrivateKeyPass",
                                       "PublicCertFile",
                                       "PublicCertPass",
                                       "PrivateKeyData",
                                       "Priority",
                                       "Magic",
                                       "AllowEndpoints",
                                       "DenyEndpoints"};

namespace {

constexpr UI4 kFamilySize = 20;       // of the word in an address filter
constexpr UI4 kAddressesSize = 1024;  // of the text in an address filter

/// What the options ask for.
struct WANTED : OBJECTPLAN {
  SI4 stopError = 0;  // told when the object is there, which it doesn't undo
};

/// A text that may be absent; an empty one counts as absent too.
SI4 ReadOptional(PAA arg, SI4 option, TEXT* text) {
  VAHOLD value;
  const SI4 code = GetOptionpAA(arg, option, COMAX, KyrnoOptionNames, value.Out());
  if (code == ERR_ARG_MISSING) return 0;
  if (code) return code;
  if (VAElems(value.Get()) == 0) return 0;
  if (ReadText(value.Get(), 0, text)) return ERR_ARG_INVALID;
  if (!**text) text->reset();
  return 0;
}

template <typename ENUM>
SI4 ReadEnum(PAA arg, SI4 option, SI4 words, const PCH10* table, ENUM* value) {
  UI4 code = 0;
  *value = static_cast<ENUM>(
      GetEnum(arg, option, COMAX, KyrnoOptionNames, words, table, static_cast<SI4>(*value), &code));
  return static_cast<SI4>(code);
}

SI4 ReadNumber(PAA arg, SI4 option, UI4* value) {
  SI4 n = 0;
  const SI4 code = GetSI4(arg, option, COMAX, KyrnoOptionNames, static_cast<SI4>(*value), &n);
  *value = static_cast<UI4>(n);
  return code;
}

void ReadStop(PAA arg, WANTED* w) {
  PLIST list = nullptr;
  const SI2 translate = w->mode == MAscii ? VACHAR : VABIN;
  w->stopError = GetList(arg, COStopList, COMAX, KyrnoOptionNames, translate, &list);
  w->stop.reset(list);
  SI1 ignore = 1;
  const SI4 code = GetBool(arg, COIgnoreCase, COMAX, KyrnoOptionNames, 1, &ignore);
  w->ignoreCase = ignore > 0;
  if (!w->stopError) w->stopError = code;
  const bool takesList = w->mode == MRaw || w->mode == MAscii;
  if (!w->stopError && w->stop && !takesList) w->stopError = ERR_INVALID_OBJECT;
  if (w->stopError) w->stop.reset();
}

/// Name to buffer size, which both commands read first and in this order.
SI4 ReadFirst(PAA arg, WANTED* w) {
  SI4 code = CheckArgList(arg, COMAX, KyrnoOptionNames);
  if (code) return code;
  if (!GetPCH10(arg, COName, COMAX, KyrnoOptionNames, w->name, kObjectNameSize))
    return ERR_ARG_MISSING;
  code = ReadOptional(arg, COAddress, &w->address);
  if (!code) code = ReadOptional(arg, COPort, &w->port);
  if (!code) code = ReadEnum(arg, COMode, MMAX, modename, &w->mode);
  if (code) return code;
  w->size = BufferBlkSize.load(std::memory_order_relaxed);
  code = ReadNumber(arg, COMaxSize, &w->size);
  return !code && w->size == 0 ? ERR_ARG_INVALID : code;
}

SI4 ReadFilter(PAA arg, SI4 option, REF<RANGES>* filter) {
  return GetRanges(arg, option, COMAX, KyrnoOptionNames, filter);
}

/// Files are read and keys asked for outside the gate: that may block.
SI4 ReadCert(ROOTSHARE& share, PAA arg, bool server, WANTED* w) {
  share.Leave();
  const SI4 code = GetCert(arg, server, &w->cert);
  if (!share.Enter()) return ERR_ROOT_NOT_FOUND;
  // Whoever asks for a secure object doesn't get a plain one, and datagrams have no secure form.
  return !code && w->cert && w->mode == MUdp ? ERR_NO_SSL_SUPPORT : code;
}

SI4 ReadServer(ROOTSHARE& share, PAA arg, WANTED* w) {
  SI4 code = ReadFirst(arg, w);
  if (!code) code = ReadNumber(arg, COMagic, &w->magic);
  if (!code) code = ReadCert(share, arg, true, w);
  if (!code) code = ReadFilter(arg, COAllowEndpoint, &w->allow);
  if (!code) code = ReadFilter(arg, CODenyEndpoint, &w->deny);
  if (!code) code = ReadEnum(arg, COProtocol, PMAX, protocolname, &w->prot);
  if (!code) ReadStop(arg, w);
  return code;
}

SI4 ReadClient(ROOTSHARE& share, PAA arg, WANTED* w) {
  SI4 code = ReadFirst(arg, w);
  if (!code) code = ReadCert(share, arg, false, w);
  if (!code) code = ReadEnum(arg, COProtocol, PMAX, protocolname, &w->prot);
  if (!code) code = ReadNumber(arg, COMagic, &w->magic);
  if (!code) ReadStop(arg, w);
  return code;
}

/// (code, what GnuTLS says of the peer's certificate).
PAA RefusedPeer(SI4 code, UI4 status) {
  const UI4 two = 2;
  VAHOLD result(VANew(VAPntr, 1, &two));
  if (!result || VASetSI4(result.Get(), 0, code) ||
      VASetSI4(result.Get(), 1, static_cast<SI4>(status)))
    return CodeResult(ERR_MEMORY_ALLOC);
  return result.Release();
}

PAA Created(SI4 code, const WANTED& w) {
  if (!code) code = w.stopError;
  if (!code) return ValueResult(TextValue(w.name));
  const bool isClients = w.cert && w.cert->firstStatus;
  return isClients ? RefusedPeer(code, w.cert->firstStatus) : CodeResult(code);
}

/// One entry of a filter: a family and its addresses.
SI4 AddRange(PAA entry, RANGES* ranges) {
  if (!entry || VAType(entry) != VAPntr || VARank(entry) != 1 || VACount(entry) != 2)
    return ERR_OPTION;
  CH1 family[kFamilySize] = {0};
  CH1 addresses[kAddressesSize] = {0};
  SI4 code = VAGetCH1(entry, 0, family, sizeof family, VACHAR);
  if (!code) code = VAGetCH1(entry, 1, addresses, sizeof addresses, VACHAR);
  if (code) return code;
  if (strcasecmp(family, "ipv4") == 0) return ranges->SetAddr4(addresses);
  if (strcasecmp(family, "ipv6") == 0) return ranges->SetAddr6(addresses);
  return ERR_OPTION;
}

}  // namespace

SI4 GetRanges(PAA arg, SI4 option, SI4 n, const PCH10* names, REF<RANGES>* out) {
  *out = REF<RANGES>();
  VAHOLD value;
  SI4 code = GetOptionpAA(arg, option, n, names, value.Out());
  if (code == ERR_ARG_MISSING) return 0;
  if (code) return code;
  const UI4 entries = VACount(value.Get());
  if (entries == 0) return 0;
  if (VAType(value.Get()) != VAPntr) return ERR_OPTION;

  REF<RANGES> ranges(new (std::nothrow) RANGES);
  if (!ranges) return ERR_MEMORY_ALLOC;
  for (UI4 i = 0; i < entries && !code; ++i) code = AddRange(VAOwned(value.Get(), i), ranges.Get());
  if (!code) *out = std::move(ranges);
  return code;
}

PAA ASrv(ROOTSHARE& share, PAA arg) {
  const SSLUSE use;
  WANTED w;
  SI4 code = ReadServer(share, arg, &w);
  if (!code) code = NewServer(share, &w);
  return Created(code, w);
}

PAA AClt(ROOTSHARE& share, PAA arg) {
  const SSLUSE use;
  WANTED w;
  SI4 code = ReadClient(share, arg, &w);
  if (!code) code = NewClient(share, &w);
  return Created(code, w);
}
