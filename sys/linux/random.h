// random.h - bytes that nobody can predict, from the system.
#pragma once

#include "sys/linux/qlntypes.h"

/// Fills n bytes. Any thread; a supply per thread keeps small requests from a system call each, and
/// is not shared with a forked child.
void RandomBytes(PUI1 to, UI4 n);
