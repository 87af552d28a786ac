// itoa.h - numbers as text without the C library's locale.
#pragma once

#include "sys/linux/qlntypes.h"

/// The digits of a value in a base from 2 to 16, in up to 33 bytes with the NUL; any other base
/// gives the empty text. Deliberate: a negative value has its sign in base 10 only.
/// Result: text.
PCH1 portableItoa(int value, PCH1 text, int base);

/// The decimal digits of a value, with zeros in front up to `width`, which is 10 at most, and a
/// NUL. Result: the NUL.
PCH1 PutDigits(PCH1 at, UI4 value, UI4 width);
/// A name of a prefix and a number of at least 8 digits, as generated names are.
void NumberedName(PCH1 to, PCH10 prefix, UI4 number);
