// zephconfig.h - how the link is to run, from four settings of the interpreter and a file.
//
//   "ZEPH\\INIT" -> "ZEPH\\LISTEN" -> "ZEPH\\CONNECT"   direction, address, port, file
//                              "ZEPH\\CONFIGURATION"   the file, unless one of them named it
//   file, section "Zeph"                               everything else, and a direction where the
//                                                      settings gave none
//         sections "AllowEndpoints", "DenyEndpoints"   filters
#pragma once

#include "kyrno/link/zeph2.h"

/// What the settings and the file say.
///
/// config: zeroed but for CommConfig, which is called; nobody else has it. lError, CommNotify,
///         pCurrentConnection and pConnectThread stay.
/// roots:  what a secure link trusts: "RootCertDir" is loaded there.
///
/// 0; ERR_PARSE_ZEPH_INIT, 1506, 1507; ERR_ZEPH_INI_NOT_FOUND, also for a file that is there and
/// can't be read, and for one that "ZEPH\\INIT" names and that isn't there; ERR_ARG_INVALID for a
/// "MaxBlockSize" without room for a block, for a word that "Secure" doesn't know, and for a line
/// that would be passed over; ERR_INVALID_ADDR for a filter that does not parse;
/// ERR_ZERO_CERTS_FOUND for an "AcceptCertDir" without certificates; and the codes of Zeph2Cert.
/// After any of them Direction is DIRUndefined, and what was read is there for error texts.
[[nodiscard]] SI4 Zeph2ReadConfigfile(tZeph2Config* config, const REF<RootCerts>& roots,
                                      const REF<SessionCache2>& sessions);

/// One of the interpreter's settings, always terminated; empty without somebody to ask.
void ReadSetting(TCommConfig ask, PCH10 key, PCH1 out, size_t size);

/// Reads the filters of ConfigFile into pAllow and pDeny. 0, ERR_MEMORY_ALLOC, or ERR_INVALID_ADDR,
/// which a line that is too long for PLATIni gives too: a part of it is another filter.
[[nodiscard]] SI4 Zeph2Peers(tZeph2Config* config);

/// Replaces a text of the record by a copy; null or "" leaves none. False without memory.
[[nodiscard]] bool SetText(PCH1* field, PCH10 text);

/// Moves everything that was read from one record to another, whose old values go: all but
/// CommNotify, CommConfig, pCurrentConnection, pConnectThread and lError.
void MoveConfig(tZeph2Config* to, tZeph2Config* from);

/// Gives back what was read, and leaves a record that may be read anew.
void ClearConfig(tZeph2Config* config);
