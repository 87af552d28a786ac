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

PCH1 PutDigits(PCH1 at, UI4 value, UI4 width) {
  CH1 digits[10];
  UI4 n = 0;
  do {
    digits[n++] = static_cast<CH1>('0' + value % 10);
    value /= 10;
  } while (value > 0);
  while (n < width) digits[n++] = '0';
  while (n > 0) *at++ = digits[--n];
  *at = 0;
  return at;
}

void NumberedName(PCH1 to, PCH10 prefix, UI4 number) {
  while (*prefix) *to++ = *prefix++;
  PutDigits(to, number, 8);
}
