// httpdecode_fuzz.cpp - any bytes as a piece of an HTTP stream that is taken apart: a Z that holds
// together and is in proportion to the piece, or a code.
//
// Input: one byte that chooses the decoder, then the piece.
#include <cstdlib>
#include <vector>

#include "Apl/zblock.h"
#include "kyrno/base/error.h"
#include "kyrno/modes/httpmsg.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // A copy of its own size: reading behind it is noticed.
  const std::vector<CH1> piece(data + 1, data + size);
  const UI4 n = static_cast<UI4>(piece.size());
  PUI4 z = nullptr;
  SI4 code = 0;
  switch (*data % 4) {
    case 0:
      code = DecodeHttpHeader(piece.data(), n, &z);
      break;
    case 1:
      code = DecodeHttpTrailer(piece.data(), n, &z);
      break;
    case 2:
      code = DecodeHttpChunk(piece.data(), n, 0, &z);
      break;
    default:
      code = DecodeHttpChunk(piece.data(), n, DecodeInts, &z);
      break;
  }
  if (code != 0) {
    if (code != ERR_HTTPDECODE || z) __builtin_trap();
    return 0;
  }
  const VAHOLD array(UnpackZ(z));
  if (!array || ZLength(z) > 200 + 64 * n) __builtin_trap();
  free(z);
  return 0;
}
