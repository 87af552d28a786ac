// zephpoll.h - the link that connects: one try, or a thread that tries again and again.
#pragma once

#include "kyrno/link/zephsession.h"

/// One try of this epoch on the calling thread, which it may block; what stands then polls from now
/// on. ERR_ZEPH_CONNECT with the reason noted, or a code of Poll.
[[nodiscard]] SI4 ConnectOnce(UI4 epoch);
/// Starts the thread that polls, or wakes it: a try comes at once. It stays until the library goes.
/// ERR_MEMORY_ALLOC, ERR_NEW_THREAD.
[[nodiscard]] SI4 Poll();

/// Gives up the connects that are under way, when a new epoch begins.
void GiveUpConnects() TSA(requires_capability(ZephLock));
/// In a forked child: the connects that are under way are its parent's.
void ForgetAttempts() TSA(requires_capability(ZephLock));
/// Ends the thread that polls, for good. The library goes.
void EndZephPolling();
