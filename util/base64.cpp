// base64.cpp - text encodings of bytes, and the mask of WebSocket frames.

#include "util/base64.h"

#include <cstring>

UI4 encode64(PCH1 out, const UI1* data, UI4 size) {
  static constexpr CH1 kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const UI4 length = (size + 2) / 3 * 4;
  if (!out) return length;

  for (; size; data += 3) {
    const UI4 n = size < 3 ? size : 3;
    const UI4 bits = UI4{data[0]} << 16 | (n > 1 ? UI4{data[1]} << 8 : 0) | (n > 2 ? data[2] : 0u);
    *out++ = kAlphabet[bits >> 18];
    *out++ = kAlphabet[bits >> 12 & 63];
    *out++ = n > 1 ? kAlphabet[bits >> 6 & 63] : '=';
    *out++ = n > 2 ? kAlphabet[bits & 63] : '=';
    size -= n;
  }
  *out = 0;
  return length;
}

UI4 encodeHex(PCH1 out, const UI1* data, UI4 size) {
  static constexpr CH1 kDigits[] = "0123456789abcdef";
  for (UI4 i = 0; out && i < size; ++i) {
    *out++ = kDigits[data[i] >> 4];
    *out++ = kDigits[data[i] & 15];
  }
  return size * 2;
}

int mask(PCH1 data, size_t size, PCH10 key, UI4 keySize) {
  size_t i = 0;
  if (keySize == 4) {  // every WebSocket frame: eight bytes at a time
    UI4 half;
    memcpy(&half, key, sizeof half);
    const UI8 pattern = UI8{half} << 32 | half;
    for (UI8 word; size - i >= sizeof word; i += sizeof word) {
      memcpy(&word, data + i, sizeof word);
      word ^= pattern;
      memcpy(data + i, &word, sizeof word);
    }
  }
  for (; i < size; ++i) data[i] = static_cast<CH1>(data[i] ^ key[i % keySize]);
  return 0;
}
