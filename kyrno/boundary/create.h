// create.h - the commands that make servers and clients: ASrv, AClt.
#pragma once

#include "kyrno/boundary/roots.h"
#include "kyrno/net/ranges.h"

/// The options of both commands, and their places.
enum KyrnoOptions {
  COName,
  COAddress,
  COPort,
  COMode,
  COMaxSize,
  COSSLCheckFlags,
  COStopList,
  COIgnoreCase,
  COProtocol,
  COPubCertData,
  COPrivKeyFile,
  COPrivKeyPass,
  COPubCertFile,
  COPubCertPass,
  COPrivKeyData,
  COPriority,
  COMagic,
  COAllowEndpoint,
  CODenyEndpoint,
  COMAX
};
extern const PCH10 KyrnoOptionNames[COMAX];

/// The address filter of one option; none when the option is absent or lists nothing. ERR_OPTION
/// for another shape than pairs of "ipv4" or "ipv6" and a text, ERR_INVALID_ADDR for a text that
/// does not parse.
[[nodiscard]] SI4 GetRanges(PAA arg, SI4 option, SI4 n, const PCH10* names, REF<RANGES>* out);

PAA ASrv(ROOTSHARE& share, PAA arg);
PAA AClt(ROOTSHARE& share, PAA arg);
