// wire.h - 32-bit words in network byte order, at any address.
#pragma once

#include <byteswap.h>

#include <cstring>

#include "sys/linux/qlntypes.h"

inline UI4 GetUI4(const void* from) {
  UI4 word;
  memcpy(&word, from, sizeof word);
  return bswap_32(word);
}

inline void PutUI4(void* to, UI4 word) {
  word = bswap_32(word);
  memcpy(to, &word, sizeof word);
}
