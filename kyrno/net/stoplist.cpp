// stoplist.cpp - a list of texts out of an array.
#include "kyrno/net/stoplist.h"

#include <algorithm>
#include <cstddef>
#include <memory>

#include "Apl/vaget.h"
#include "kyrno/base/error.h"

namespace {

struct LISTFREE {
  void operator()(PLIST list) const { FreeList(list); }
};
using LISTHOLD = std::unique_ptr<LIST, LISTFREE>;

// One text of a list. With translation the reader counts and writes a terminator, which the item
// does not; digits of a floating number need room for one that was not counted.
PITEM ReadItem(const VARRAY* value, UI4 index, SI2 translate) {
  UI4 length = 0;
  if (VAGetLen(value, index, &length, translate) != 0) return nullptr;
  PITEM const item = static_cast<PITEM>(calloc(1, sizeof(ITEM) + size_t{length}));
  if (!item) return nullptr;
  item->len = static_cast<SI4>(length) - (translate > 0 ? 1 : 0);
  if (VAGetCH1(value, index, item->pc, length + 1, translate) == 0) return item;
  free(item);
  return nullptr;
}

}  // namespace

SI4 MakeList(const VARRAY* value, SI4 translate, PLIST* list) {
  *list = nullptr;
  const bool nested = VAType(value) == VAPntr;
  const UI4 count = nested ? VACount(value) : 1;
  const size_t bytes = offsetof(LIST, items) + sizeof(PITEM) * std::max(count, 1u);
  LISTHOLD made(static_cast<PLIST>(calloc(1, bytes)));
  if (!made) return ERR_MEMORY_ALLOC;
  made->Translate = translate;
  made->Count = static_cast<SI4>(count);
  for (UI4 i = 0; i < count; ++i) {
    made->items[i] = ReadItem(value, i, static_cast<SI2>(translate));
    if (!made->items[i]) return ERR_ARG_STOPLIST;
  }
  *list = made.release();
  return 0;
}
