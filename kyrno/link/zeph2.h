// zeph2.h - what the link to a remote development environment is made of: the table that an
// interpreter gets, and the record of its configuration.
//
// Both lie in memory as include/kyrno.h shows them to interpreters, in natural alignment. Plain
// words that the interpreter may read at any time are written atomically (Publish).
#pragma once

#include <atomic>
#include <cstddef>

#include "kyrno/net/ranges.h"
#include "kyrno/tls/certdata.h"
#include "kyrno/tls/rootcerts.h"
#include "sys/linux/qlnplat.h"

inline constexpr UI4 ZEPHMAGIC = 0x5A455048;  // "ZEPH"
inline constexpr UI4 ZEPHMAXBLOCKSIZE = 0x1000000;
inline constexpr SI4 ZEPHPROTOCOLVERSION = 2;
inline constexpr UI4 kZephPort = 4502;
inline constexpr CH1 kZephRoot[] = "\t\tZEPH";  // a name that no application can give

/// What the interpreter supplies. Both may be null.
/// Code 3: a block has come; node is for Zeph2GetBuffer and Zeph2Free. Code 4: the session's
/// connection has gone; node is for Zeph2Free. On the work thread, with no lock held.
using TCommNotify = SI4 (*)(UI4 code, PVOID node);
inline constexpr UI4 kBlockArrived = 3;
inline constexpr UI4 kConnectionGone = 4;
/// Writes the value of a setting into buffer, terminated. On the thread that calls Zeph2Enable or
/// Zeph2Errortext, or Zeph2Init.
using TCommConfig = SI4 (*)(PCH1 key, PCH1 buffer, size_t size);

enum TZeph2State : UI4 {
  Zeph2Idle,       // nothing goes on
  Zeph2Negotiate,  // a connection stands, the handshake runs
  Zeph2Listening,  // a server listens, no session
  Zeph2Connected,  // blocks pass
  Zeph2Error,      // nothing enters it
  Zeph2HttpSrv     // the page service listens, no session
};

enum TDirection : UI4 { DIRUndefined, DIRConnect, DIRListen, DIRPoll, DIRConfig, DIRHttp };
enum TSecure : UI4 { SECPlain, SECSecure, SECAnonymous };

/// How the link is to run. The texts are owned, from malloc, and null for none.
///
/// Threads: written by the thread that reads the configuration, of a record that nobody else has.
///          In the record of the table CommNotify, CommConfig, Direction, lError and
///          pCurrentConnection are guarded by the link's lock; the rest is constant once Direction
///          is another than DIRUndefined.
struct tZeph2Config {
  TCommNotify CommNotify;
  TCommConfig CommConfig;
  CH1 ConfigFile[1024];
  TDirection Direction;
  PCH1 pAddress;
  UI4 Port;
  UI4 MaxBlockSize;
  UI4 SSLValidation;  // CERTFLAGS
  PROTOCOL Protocol;
  TSecure Secure;
  PCH1 pPublicCertData;  // kept, not used
  PCH1 pPublicCertFile;
  PCH1 pPrivateKeyData;  // kept, not used
  PCH1 pPrivateKeyFile;  // or "URL:" and the name of a key
  PCH1 pRootCertDir;
  PCH1 pPriority;  // kept, not used
  UI4 Magic;       // 0: blocks have no magic
  UI4 Trace;       // for LOGSet
  PCH1 pLogfilename;
  PCH1 pCurrentConnection;    // full name of the session's connection; null without a session
  PCH1 pHttpDir;              // of the pages
  PQLNTHREAD pConnectThread;  // owned by the link
  CERTDATA* pCert;            // one count; null for a plain link
  PRANGES pAllow;             // one count; null for no filter
  PRANGES pDeny;              // the same
  SI4 lError;                 // behind 1501 and 1502
  PCH1 pAcceptCertDir;
  PCertCollection pAcceptCertList;  // owned; null: every peer's certificate will do
  UI4 KAtime;                       // ms
  UI4 KAint;                        // ms
};
using PZeph2Config = tZeph2Config*;

#define FPTR(name) T##name p##name
#define SetFPTR(table, name) (table).p##name = name

using TZeph2Enable = SI4 (*)(SI4 enable);
using TZeph2GetBuffer = SI4 (*)(PVOID node, PCH1* data, PUI4 length);
using TZeph2Free = SI4 (*)(PVOID node);
using TZeph2Send = SI4 (*)(PCH1 data, UI4 length);
using TZeph2Errortext = SI4 (*)(SI4 code, PCH1 text, UI4 size);

/// What Zeph2Init hands out; one for the process.
struct TKYRNOFNS {
  PZeph2Config pZeph2Config;
  TZeph2State Zeph2State;
  SI4 Zeph2Enabled;
  PVOID pZephRoot;  // PHIERAKI
  FPTR(Zeph2Enable);
  FPTR(Zeph2GetBuffer);
  FPTR(Zeph2Free);
  FPTR(Zeph2Send);
  FPTR(Zeph2Errortext);
};

/// Stores a word that the interpreter reads when it likes.
template <typename WORD>
void Publish(WORD& word, WORD value) {
  std::atomic_ref<WORD>(word).store(value, std::memory_order_release);
}
template <typename WORD>
WORD Published(WORD& word) {
  return std::atomic_ref<WORD>(word).load(std::memory_order_acquire);
}
