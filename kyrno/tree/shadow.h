// shadow.h - in sanitizer builds: a walk of the whole tree behind the work thread, which asserts
// that nothing was missed: no object waits for a look that nobody has asked for, and the ready
// queue agrees with the states.
//
// An interpreter thread changes first and touches then. So what looks missed is only remembered,
// and is a fault when it still is there after every thread that was inside has left the root.
#pragma once

#include "kyrno/tree/root.h"

/// Behind a turn. Walks each time up to 200 nodes, every 64th time otherwise.
void AssertNothingMissed(ROOT* root, PHIERAKI item) WORK_ONLY;
