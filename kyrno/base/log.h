// log.h - the diagnostic trace: a level and a mask of modules decide what is written.
//
// Each line is one open, one write and one close: the file is complete even if the process dies on
// the next instruction, and lines of several threads or processes never mix. The file must exist
// already, and is neither created nor cut; without it nothing happens. Text from a peer or a
// library is an argument, never a format.
//
// Every source file that traces defines its bit:  static constexpr UI4 MODULE = 0x00000010;
#pragma once

#include <atomic>
#include <cstdio>

#include "sys/linux/qlntypes.h"

inline constexpr UI4 LOGMASK = 0xfffffff0;  ///< of a setting: the mask of modules; the rest: level

inline std::atomic<UI4> uiGlobalLevel{0};  ///< tally; 0 to 15
inline std::atomic<UI4> ulGlobalTrace{0};  ///< tally; the low four bits are 0

void LOGSet(UI4 setting);
UI4 LOGGet();

/// 1 if a line of this module and level is wanted. local, a setting too, forces a trace of its own.
inline SI4 LOGif(UI4 local, UI4 module, UI4 level) {
  const UI4 modules = ulGlobalTrace.load(std::memory_order_relaxed) | local;
  if (!(module & LOGMASK & modules)) return 0;
  return uiGlobalLevel.load(std::memory_order_relaxed) >= level || level <= (local & ~LOGMASK);
}

/// The setting that a text such as "/M0x400/T4" stands for: M gives modules, T the level, in any
/// notation of C. Repeated options add up.
UI4 LOGOption(PCH10 text);

/// Names the log file; null or an empty text: "kyrno.log" in the current directory.
/// ERR_MEMORY_ALLOC leaves the default too.
SI4 InitLog(PCH10 name);

/// The log file, open behind its end, for those who write several lines at once; null if it doesn't
/// exist. Returned through LOGClose.
FILE* LOGOpen();
void LOGClose(FILE* log);

/// One trace line with time, process and thread, through LOG only.
void LOG2File(PCH10 format, ...) __attribute__((format(printf, 1, 2)));

/// Lines that are written at any setting. All leave errno alone.
void LOGStr(PCH10 text);
void LOGStrL(PCH10 text, SI4 value);
void LOGHex(const void* data, UI4 length);

/// Around a fork: the lock of the file's name goes along free, whoever else was about to log.
void LOGBeforeFork();
void LOGAfterFork();

/// A trace line: LOG(4, ("Read %d of %u ", sock, want)). The arguments are evaluated only when the
/// line is wanted.
#define LOG(lev, arg)                          \
  do {                                         \
    if (LOGif(0, MODULE, (lev))) LOG2File arg; \
  } while (0)
