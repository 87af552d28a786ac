// listing.cpp - the command ATree.
#include "kyrno/boundary/listing.h"

#include <cstdio>
#include <cstring>

#include "Apl/vaget.h"
#include "Apl/vaset.h"
#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/boundary/arrays.h"

namespace {

constexpr UI4 kVersionSize = 2048;

/// The items of one ring, while it is walked.
class SUBITEM {
 public:
  SUBITEM() = default;
  ~SUBITEM() {
    for (UI4 i = 0; i < Count; ++i) VAFree(ppAA[i]);
    free(ppAA);
  }
  SUBITEM(const SUBITEM&) = delete;
  SUBITEM& operator=(const SUBITEM&) = delete;

  /// Takes the item over. False without memory.
  bool Add(PAA item) {
    VAHOLD owned(item);
    if (!owned || (Count == Max && !Grow())) return false;
    ppAA[Count++] = owned.Release();
    return true;
  }

  /// The items as one array; null without memory.
  PAA Release() {
    VAHOLD all(Count ? VANew(VAPntr, 1, &Count) : VANew(VAI4, 1, &Count));
    if (!all) return nullptr;
    for (UI4 i = 0; i < Count; ++i) VASetOwned(all.Get(), i, ppAA[i]);
    Count = 0;
    return all.Release();
  }

 private:
  bool Grow() {
    const UI4 more = Max ? 2 * Max : 16;
    PPAA const grown = static_cast<PPAA>(realloc(ppAA, more * sizeof *ppAA));
    if (!grown) return false;
    ppAA = grown;
    Max = more;
    return true;
  }

  UI4 Count = 0;
  UI4 Max = 0;
  PPAA ppAA = nullptr;  // owned, as the items are
};

void VersionText(PCH1 text) {
  GetDLLVersion(text, kVersionSize);
  size_t n = strlen(text);
  n += static_cast<size_t>(
      snprintf(text + n, kVersionSize - n, " built " __DATE__ " " __TIME__ ". "));
  if (KyrnosslLoaded()) {
    text[n] = 0;
    kyrnosslversion(text + n, static_cast<int>(kVersionSize - n));
  }
}

/// The properties of one node.
PAA Info(PHIERAKI node, PRPCOBJS object) {
  const bool hasCounts = object->Type == TCommand || object->Type == TMessage;
  PBUFFER const buffer = hasCounts ? object->GetBuffer() : nullptr;
  const UI4 n = object->Type == TRoot || buffer ? 5 : 3;
  PCH10 const name = node->GetName();

  VAHOLD info(VANew(VAPntr, 1, &n));
  if (!info) return nullptr;
  PAA const to = info.Get();
  SI4 code = VASetCH1(to, 0, name, static_cast<UI4>(strlen(name)), VACHAR);
  if (!code) code = VASetSI4(to, 1, static_cast<SI4>(object->Type));
  if (!code) code = VASetSI4(to, 2, static_cast<SI4>(object->GetState()));
  if (object->Type == TRoot) {
    CH1 version[kVersionSize] = {0};
    VersionText(version);
    if (!code) code = VASetCH1(to, 3, version, static_cast<UI4>(strlen(version)), VACHAR);
    if (!code) code = VASetSI4(to, 4, static_cast<ROOT*>(object)->Waiters.Count());
  } else if (buffer) {
    if (!code) code = VASetSI4(to, 3, static_cast<SI4>(buffer->SizeProcessed()));
    if (!code) code = VASetSI4(to, 4, static_cast<SI4>(buffer->Remaining()));
  }
  return code ? nullptr : info.Release();
}

PAA SubTree(PHIERAKI node, PRPCOBJS object);

/// Adds one child; stops the walk without memory.
PHIERAKI AddItem(PHIERAKI child, void* list) {
  PRPCOBJS const object = child->Obj();
  if (!object) return nullptr;
  return static_cast<SUBITEM*>(list)->Add(SubTree(child, object)) ? nullptr : child;
}

/// The item of a node; null without memory.
PAA SubTree(PHIERAKI node, PRPCOBJS object) {
  VAHOLD info(Info(node, object));
  SUBITEM list;
  if (!info || node->LoopSub(AddItem, &list)) return nullptr;
  VAHOLD children(list.Release());
  const UI4 two = 2;
  VAHOLD item(VANew(VAPntr, 1, &two));
  if (!children || !item) return nullptr;
  VASetOwned(item.Get(), 0, info.Release());
  VASetOwned(item.Get(), 1, children.Release());
  return item.Release();
}

}  // namespace

PAA ATree(ROOTSHARE& share, PAA arg) {
  TEXT path;
  const SI4 code = ReadText(arg, 0, &path);
  if (code) return CodeResult(code);
  const bool isRoot = !*path || *path.get() == '.';
  PHIERAKI const node = isRoot ? share.Root() : share.Root()->FindLeaf(path.get());
  if (!node || !node->Obj()) return CodeResult(ERR_OBJECT_NOT_FOUND);
  return ValueResult(SubTree(node, node->Obj()));
}
