// stoprule.cpp - how a stream is cut.
#include "kyrno/modes/stoprule.h"

#include <atomic>

#include "Apl/vaget.h"

namespace {
std::atomic<UI4> versions{0};  // tally of all lists ever set
}  // namespace

void STOPRULE::Store(PLIST list) {
  FreeList(pStop);
  pStop = list;
  version = versions.fetch_add(1, std::memory_order_relaxed) + 1;
}

void STOPRULE::Set(PLIST list, bool ignore) {
  MUTEXHOLD hold(lock);
  Store(list);
  if (list) IgnoreCase = ignore;
}

void STOPRULE::Replace(PLIST list) {
  MUTEXHOLD hold(lock);
  Store(list);
}

bool STOPRULE::IsSet() {
  MUTEXHOLD hold(lock);
  return pStop != nullptr;
}

SI4 STOPRULE::Find(PBUFFER b, UI4 cut, MARK* mark) {
  MUTEXHOLD hold(lock);
  if (mark->version != version || mark->searched < cut) mark->searched = cut;
  mark->version = version;
  const SI4 n = b->FindStop(pStop, IgnoreCase, nullptr, mark->searched);
  if (n < 0) mark->searched = pStop ? b->SearchedTo(pStop) : cut;
  return n;
}

SI4 ReplaceStop(STOPRULE* rule, PAA value, bool translate) {
  PLIST list = nullptr;
  const SI4 code = MakeList(value, translate ? VACHAR : VABIN, &list);
  if (code == 0) rule->Replace(list);
  return code;
}
