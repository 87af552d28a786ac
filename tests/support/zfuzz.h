// zfuzz.h - fuzzer input as a Z block.
#pragma once

#include <cstring>
#include <memory>

#include "Apl/zblock.h"

/// Reads the input as the array of a block whose header fits, from a copy of exactly its length.
inline VAHOLD ReadFuzzed(const UI1* data, size_t size) {
  const UI4 length = static_cast<UI4>(size + 8);
  const std::unique_ptr<UI1[]> block(new UI1[length]);
  for (size_t i = 0; i < 4; ++i) {
    block[i] = static_cast<UI1>(length >> (24 - 8 * i));
    block[4 + i] = i == 3 ? 0xA4 : 0;
  }
  if (size > 0) memcpy(&block[8], data, size);
  VAHOLD array;
  const SI4 code = ReadZ(block.get(), length, array.Out());
  if ((code == 0) != (array.Get() != nullptr)) __builtin_trap();
  return array;
}
