// logvapl.h - an array and all that it holds as lines of the log.
//
// A dump shows whatever stands in the array. It belongs where results are made: never where the
// options of a call are, which may be passwords and keys, or what peers send.
#pragma once

#include <cstdio>

#include "Apl/vapl.h"
#include "kyrno/base/log.h"

/// The time, then the array, into the log file; nothing without one. Leaves errno alone.
void LOGPrintAA(const VARRAY* array);

/// The array, indented by `depth` steps, and what it holds by more. Each line begins with its line
/// end, so that the last one is still open. Arrays deeper than kMaxDepth are left out.
void PrintAA(FILE* log, const VARRAY* array, SI4 depth);

/// Length, type, rank, count and shape of the array alone.
void DescribeAA(FILE* log, const VARRAY* array, SI4 depth);

/// A dump that the level and module ask for.
#define LOGAA(lev, arg)                           \
  do {                                            \
    if (LOGif(0, MODULE, (lev))) LOGPrintAA(arg); \
  } while (0)
