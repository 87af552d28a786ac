// argreads.h - all that a command can read of its argument: through ARGUMENT, and from the array
// that the block holds.
#pragma once

#include <string>

#include "Apl/vaget.h"
#include "Apl/zblock.h"
#include "kyrno/base/error.h"
#include "kyrno/boundary/argument.h"
#include "tests/support/zcode.h"

struct ARGREADS {
  static constexpr UI4 kShort = 97;

  SI4 code = 0;
  UI4 count = 0;
  SI4 shortCode = 0, longCode = 0, numberCode = 0;
  std::string shortPath, longPath;  // up to their first zero
  SI4 number = 0;

  bool operator==(const ARGREADS&) const = default;
};

/// `block` says of itself how long it is.
inline ARGREADS ReadByArgument(const zcode::Bytes& block) {
  const zcode::Bytes exact(block);
  ARGREADS r;
  ARGUMENT arg;
  r.code = arg.Read(reinterpret_cast<const UI4*>(exact.data()));
  if (r.code) return r;
  r.count = arg.Count();
  CH1 path[ARGREADS::kShort];
  r.shortCode = arg.GetPath(path, sizeof path);
  if (!r.shortCode) r.shortPath = path;
  PATH whole;
  r.longCode = arg.GetPath(&whole);
  if (!r.longCode) r.longPath = whole.Get();
  r.numberCode = arg.GetNumber(&r.number);
  return r;
}

inline ARGREADS ReadByArray(const zcode::Bytes& block) {
  const zcode::Bytes exact(block);
  ARGREADS r;
  VAHOLD array;
  UI4 at = 8;
  r.code = ERR_ARCHITECTURE;
  if (IsZHeader(ZHeaderWord(exact.data()))) {
    const PCH10 base = reinterpret_cast<PCH10>(exact.data());
    r.code = Unpack(base, ZLength(base), &at, array.Out());
  }
  if (r.code) return r;
  r.count = ItemCount(array.Get());
  CH1 path[ARGREADS::kShort];
  r.shortCode = VAGetCH1(array.Get(), 0, path, sizeof path, VACHAR);
  if (!r.shortCode) r.shortPath = path;
  TEXT whole;
  r.longCode = ReadText(array.Get(), 0, &whole);
  if (!r.longCode) r.longPath = whole.get();
  r.numberCode = VAGetSI4(array.Get(), 1, &r.number);
  return r;
}
