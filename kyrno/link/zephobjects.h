// zephobjects.h - the servers and the client of the link: their names, what they have in common,
// and how one that was closed is waited for.
//
// Each call of Zeph2Enable begins a new epoch. What an earlier one has still under way, a connect
// or a listen, finds that when it is through, and drops what it has made.
#pragma once

#include "kyrno/boundary/objects.h"
#include "kyrno/boundary/roots.h"
#include "kyrno/link/zephsession.h"

/// The servers of a direction.
struct SERVERNAMES {
  PCH10 one;
  PCH10 loopback4;  // the second one, where only this machine is meant
};
inline constexpr SERVERNAMES kListen = {"ZephServer", "ZephServer4"};
inline constexpr SERVERNAMES kHttp = {"HttpServer", "HttpServer4"};
inline constexpr CH1 kClient[] = "ZephClient";
inline constexpr F8 kGoingMicros = 100e3;  // how long turning off waits for what goes

extern UI4 ZephEpoch GUARDED_BY(ZephLock);
bool IsCurrent(UI4 epoch);

/// What every object of the link has in common; the configuration stands. ERR_MEMORY_ALLOC.
[[nodiscard]] SI4 PlanObject(PCH10 name, PCH10 address, PROTOCOL prot, OBJECTPLAN* plan);
/// Notes why a server or client could not be made; answers `code`.
SI4 NoteFailure(SI4 reason, SI4 code);

// --- the share is inside before; afterwards too, unless the root goes
/// Waits for a name that an earlier object of the link still has. False when it stays in use, the
/// link was turned off meanwhile, or the root goes.
bool WaitFree(ROOTSHARE& share, PCH10 name, UI4 epoch);
/// Closes an object; false when there is none of this name.
bool CloseNamed(ROOTSHARE& share, PCH10 name);
/// Waits for an object that was closed; a connection that lingers then, because its peer does, goes
/// at once.
void SeeOff(ROOTSHARE& share, PCH10 name, F8 until);
/// Waits until what was sent on a connection has left.
void WaitSent(ROOTSHARE& share, PCH10 name, F8 until);
