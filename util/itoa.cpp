// itoa.cpp - numbers as text.

#include "util/itoa.h"

#include <algorithm>
#include <cstdlib>

PCH1 portableItoa(int value, PCH1 text, int base) {
  PCH1 end = text;
  if (base >= 2 && base <= 16) {
    const bool negative = value < 0;
    do {  // the remainders, since the smallest value has no absolute one
      *end++ = "0123456789abcdef"[abs(value % base)];
      value /= base;
    } while (value);
    if (negative && base == 10) *end++ = '-';
    std::reverse(text, end);
  }
  *end = 0;
  return text;
}
