// zblock_fuzz.cpp - a block is refused, or it comes back from PackZ and reads the same again; as an
// argument it reads in place as from its array.
#include <cstdlib>
#include <cstring>

#include "Apl/vaconv.h"
#include "tests/support/argreads.h"
#include "tests/support/zfuzz.h"

namespace {

bool Same(const VARRAY* a, const VARRAY* b) {
  if (VAType(a) != VAType(b) || VALength(a) != VALength(b)) return false;
  if (memcmp(VAShape(a), VAShape(b), sizeof(UI4) * VARank(a)) != 0) return false;
  if (VAType(a) != VAPntr) return memcmp(VAData(a), VAData(b), VADataLength(a)) == 0;
  const UI4 n = VACount(a);
  for (UI4 i = 0; i < n; ++i) {
    if (!Same(VAOwned(a, i), VAOwned(b, i))) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  PAA raw = nullptr;
  if (ReadZ(data, static_cast<UI4>(size), &raw) == 0) raw = VAFree(raw);

  const zcode::Bytes block = zcode::Block(zcode::Bytes(data, data + size));
  if (!(ReadByArgument(block) == ReadByArray(block))) __builtin_trap();

  VAHOLD array = ReadFuzzed(data, size);
  if (!array) return 0;
  UI4* const z = PackZ(VAHOLD::Share(array.Get()).Release());
  if (z) {  // complex numbers have no image on the way out
    const VAHOLD back(UnpackZ(z));
    if (!back || !Same(array.Get(), back.Get())) __builtin_trap();
    free(z);
  }
  PAA normal = array.Release();
  if (VANorm(&normal, Tes2VA, VA2Tes) == 0) {
    free(PackZ(normal));
  } else {
    VAFree(normal);
  }
  return 0;
}
