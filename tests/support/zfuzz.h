// zfuzz.h - fuzzer input as a Z block.
#pragma once

#include "Apl/zblock.h"
#include "tests/support/zcode.h"

/// Reads the input as the array of a block whose header fits, from a copy of exactly its length.
inline VAHOLD ReadFuzzed(const UI1* data, size_t size) {
  const zcode::Bytes whole = zcode::Block(zcode::Bytes(data, data + size)), exact(whole);
  VAHOLD array;
  const SI4 code = ReadZ(exact.data(), static_cast<UI4>(exact.size()), array.Out());
  if ((code == 0) != (array.Get() != nullptr)) __builtin_trap();
  return array;
}
