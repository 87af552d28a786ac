// itoa.h - numbers as text without the C library's locale.
#pragma once

#include "sys/linux/qlntypes.h"

/// The digits of a value in a base from 2 to 16, in up to 33 bytes with the NUL; any other base
/// gives the empty text. Deliberate: a negative value has its sign in base 10 only.
/// Result: text.
PCH1 portableItoa(int value, PCH1 text, int base);
