// httpdate.h - the time in the form of HTTP (RFC 9110, section 5.6.7), whatever the locale.
#pragma once

#include "sys/linux/qlntypes.h"

inline constexpr UI4 kHttpDateSize = 30;  // with its NUL

/// "Sun, 06 Nov 1994 08:49:37 GMT", now. The length, without the NUL; 0, and nothing written, when
/// size is too small.
UI4 HttpDate(PCH1 to, UI4 size);
/// The same for a time in seconds since 1970; 0 too outside the years 0 to 9999.
UI4 HttpDateOf(int64_t seconds, PCH1 to, UI4 size);
