// unicode_fuzz.cpp - measuring and converting agree, and nothing is written behind what was
// measured.
//
// The first two bytes of the input choose the encodings, the rest is the text.
#include <cstring>
#include <memory>

#include "Apl/vaunicod.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const UNICODETYPES to = static_cast<UNICODETYPES>(data[0] % 6);
  const UNICODETYPES from = static_cast<UNICODETYPES>(data[1] % 6);
  const UI4 length = static_cast<UI4>(size - 2);
  const std::unique_ptr<UI1[]> text(new UI1[length]);
  memcpy(text.get(), data + 2, length);

  UI4 needed = 0;
  const SI4 measured = ConvUnicodeM(to, nullptr, &needed, from, text.get(), length, 1);
  const std::unique_ptr<UI1[]> out(new UI1[needed]);
  const SI4 converted = ConvUnicode(to, out.get(), needed, from, text.get(), length, 1);
  if (measured == 0 && converted != 0) __builtin_trap();
  if (needed > 0 && ConvUnicode(to, out.get(), needed - 1, from, text.get(), length, 1) == 0) {
    __builtin_trap();  // the terminator had no room
  }

  UI1 width = 0;
  const size_t count = ToVAPL(text.get(), length, from, &width);
  if (count > length || (width != 1 && width != 2 && width != 4)) __builtin_trap();
  const size_t strict = utf8_lenStrict(text.get(), length, &width);
  if (strict == static_cast<size_t>(-1)) return 0;
  if (strict > length) __builtin_trap();
  // What passes the check converts as a whole.
  UI4 units = 0;
  if (ConvUnicodeM(UCS4, nullptr, &units, UTF8, text.get(), length, 0) != 0) __builtin_trap();
  if (units != 4 * strict) __builtin_trap();
  return 0;
}
