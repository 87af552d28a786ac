// zephsession.h - the one session with a remote development environment: what becomes of each event
// of the link's objects.
//
//   Zeph2State       on                                           to
//   Zeph2Idle        Zeph2Enable: a server stands                 Zeph2Listening, Zeph2HttpSrv
//   Zeph2Idle        TryConnect has got through                   Zeph2Negotiate
//   Zeph2Listening   a peer is accepted                           Zeph2Negotiate
//   Zeph2HttpSrv     a WebSocket is accepted                      Zeph2Negotiate
//   Zeph2Negotiate   "UsingProtocol=2"                            Zeph2Connected
//   Zeph2Negotiate   another block, or the connection is lost     resting state
//   Zeph2Connected   the connection is lost                       resting state
//   any              Zeph2Enable(0)                               Zeph2Idle
//
// The resting state: Zeph2Listening, Zeph2HttpSrv, or Zeph2Idle when this side connects.
//
// What passes, both ends being alike:
//
//   "SupportedProtocols=2"    first, from either end
//   "UsingProtocol=2"         the answer to that; whoever gets it is connected
//   blocks                    the interpreter's and its peer's own
#pragma once

#include "kyrno/base/mutex.h"
#include "kyrno/link/zeph2.h"
#include "kyrno/link/zephblocks.h"
#include "kyrno/tree/hieraki.h"

/// The table, and the blocks that it hands out. Zeph2Init makes the link work, ZephUnload ends it.
extern TKYRNOFNS Zeph2Functions;
extern ZEPHBLOCKS ZephBlocks;
/// Guards the session: changes of Zeph2State and Zeph2Enabled, and of the configuration what
/// zeph2.h says. Taken before the guard of the roots and the locks of a tree, and held across no
/// callback and nothing that waits.
extern MUTEX ZephLock;

/// The callback of every object of the link. On the work thread, outside its role.
void OOSfn2(PHIERAKI node);

/// This node's connection, which is open or about to be, becomes the session's: its full name is
/// noted, Zeph2State is Zeph2Negotiate, and its first block goes out. Called before anything can
/// have come from its peer. A code other than 0: there is no session.
[[nodiscard]] SI4 BeginSession(PHIERAKI node) TSA(requires_capability(ZephLock));
/// There is no session any more; Zeph2State is `state`.
void EndSession(TZeph2State state) TSA(requires_capability(ZephLock));
/// Copies the full name of the session's connection; false without a session.
[[nodiscard]] bool SessionName(CH1 (&name)[kFullNameSize + 1]) TSA(requires_capability(ZephLock));

/// A block for this connection, which the caller owns.
[[nodiscard]] SI4 ComposeBlock(PHIERAKI node, PCH10 data, UI4 length, PBUFFER* block);
/// Queues a block, which it owns, if this connection is still the session's; ERR_INVALID_OBJECT.
/// With `last` the connection closes by itself behind it, and the session is over: that end is no
/// event.
[[nodiscard]] SI4 SendInSession(PHIERAKI node, PBUFFER block, bool last);
