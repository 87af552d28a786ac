// zephenable.h - turning the link on and off.
//
//   connect   one try, on the interpreter's thread; a link that once stood polls from then on
//   poll      a try at once, then every five seconds while there is no session
//   listen    a server, or two where only this machine is meant: 127.0.0.1 and ::1
//   http      the same with the page service, which turns WebSockets into sessions
#pragma once

#include "kyrno/link/zephsession.h"

/// The table's Zeph2Enable. 0, or: the codes of the configuration; ERR_ZEPH_CONNECT,
/// ERR_ZEPH_LISTEN with the reason in lError; ERR_INVALID_OBJECT when there was nothing to turn
/// off. Turning off waits up to 0.1 s for what goes, and as long again for one whose peer holds on.
/// Any thread but the work thread.
SI4 Zeph2Enable(SI4 enable);

/// A thread is in Zeph2Enable: the program ends beside it.
bool IsTurning() TSA(requires_capability(ZephLock));
