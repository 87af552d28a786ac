// intbig.h - big-endian two's-complement numbers of any length.
#pragma once

#include "sys/linux/qlntypes.h"

/// The decimal text of `size` bytes, as signed where isSigned isn't 0: at most room - 1 characters
/// and a NUL. The full length is the result, also when less was written; with a room of 0 or a null
/// text nothing is. 0 is "0". `text` may be `value` itself. 0 without memory.
UI4 FmtIntBig(const UI1* value, UI4 size, PCH1 text, UI4 room, SI4 isSigned);

/// The negated number; `out` may be `value` itself. 1 if any part of it isn't zero.
UI4 NegIntBig(PVOID out, const void* value, UI4 size);
