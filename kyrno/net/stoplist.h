// stoplist.h - a list of length-prefixed texts: the stop sequences that end a message in a stream.
#pragma once

#include <cstdlib>

#include "Apl/vapl.h"
#include "sys/linux/qlntypes.h"

struct ITEM {
  SI4 len;    ///< bytes in pc
  CH1 pc[1];  ///< open-ended
};
using PITEM = ITEM*;

struct LIST {
  SI4 Translate;
  SI4 Count;
  PITEM items[1];  ///< open-ended, Count of them, each owned
};
using PLIST = LIST*;

/// Frees a list and its items, all from calloc. Null is accepted; the result is always null.
inline PLIST FreeList(PLIST list) {
  if (!list) return nullptr;
  for (SI4 i = 0; i < list->Count; ++i) free(list->items[i]);
  free(list);
  return nullptr;
}

/// The texts of a value, one for each element of a nested one, as a list that the caller owns.
/// `translate` is VABIN or VACHAR. ERR_ARG_STOPLIST for a text that can't be read,
/// ERR_MEMORY_ALLOC.
[[nodiscard]] SI4 MakeList(const VARRAY* value, SI4 translate, PLIST* list);
