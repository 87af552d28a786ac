// wait.h - the command by which an application learns what happened: AWaitZ.
#pragma once

#include "kyrno/boundary/argument.h"
#include "kyrno/boundary/roots.h"

/// Waits for the next event at or below a name. The data of the event is a Z in *ppZ that becomes
/// the caller's, and so does the result, a block, null without memory. The share is outside
/// afterwards when the root has gone meanwhile.
PUI4 AWaitZ(ROOTSHARE& share, PUI4* ppZ, ARGUMENT& arg);

/// The event in parts: full name (kFullNameSize + 1 bytes), event word (kEventSize), data, and the
/// times of creation, of readiness and of now. timeout is in milliseconds; -1 ends after 20 quiet
/// seconds.
[[nodiscard]] SI4 WaitZ1(ROOTSHARE& share, PCH10 name, SI4 timeout, PCH1 objname, PCH1 event,
                         PUI4* ppZ, PF8 times);
