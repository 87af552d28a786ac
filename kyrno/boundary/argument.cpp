// argument.cpp - the argument of a call.
#include "kyrno/boundary/argument.h"

#include <cstring>

#include "Apl/vaget.h"
#include "Apl/vatrans.h"
#include "Apl/zblock.h"
#include "kyrno/base/error.h"

namespace {

bool IsText(const ZVIEW& item) { return item.type == VAC1 && item.rank <= 1; }

}  // namespace

SI4 ARGUMENT::Read(const UI4* block) {
  if (!block) return 0;
  const UI4 size = ZLength(block);
  const UI4 header = size < kZHead ? 0 : ZHeaderWord(block);
  if (!IsZHeader(header)) return ERR_ARCHITECTURE;
  SetUnicode(header & ARCH_UNICODE);
  z = block;

  ZVIEW views[2];
  const UI4 n = ViewItems(block, size, views, 2);
  if (n > 0 && IsText(views[0]) && (n == 1 || ViewNumber(views[1], &number))) {
    items = n;
    text = views[0].data;
    length = views[0].count;
    return 0;
  }
  PAA whole;
  return GetArray(&whole);
}

SI4 ARGUMENT::GetPath(PCH1 buffer, UI4 size) {
  if (items) {
    if (length >= size) return ERR_APL_LENGTH;
    memcpy(buffer, text, length);
    buffer[length] = 0;
    VA2ascn(buffer, length);
    return 0;
  }
  PAA whole;
  const SI4 code = GetArray(&whole);
  return code ? code : VAGetCH1(whole, 0, buffer, size, VACHAR);
}

SI4 ARGUMENT::GetPath(PATH* path) {
  if (items && length < sizeof path->own) return GetPath(path->own, sizeof path->own);
  PAA whole;
  const SI4 code = GetArray(&whole);
  return code ? code : ReadText(whole, 0, &path->heap);
}

SI4 ARGUMENT::GetNumber(PSI4 result) {
  *result = number;
  if (items == 2) return 0;
  PAA whole;
  const SI4 code = GetArray(&whole);
  return code ? code : VAGetSI4(whole, 1, result);
}

SI4 ARGUMENT::GetArray(PPAA lent) {
  SI4 code = 0;
  if (!array) {
    UI4 at = kZHead;
    code = Unpack(reinterpret_cast<PCH10>(z), ZLength(z), &at, array.Out());
  }
  *lent = array.Get();
  return code;
}
