// stoprule.cpp - how a stream is cut.
#include "kyrno/modes/stoprule.h"

#include "Apl/vaget.h"

void STOPRULE::Set(PLIST list, bool ignore) {
  MUTEXHOLD hold(lock);
  FreeList(pStop);
  pStop = list;
  if (list) IgnoreCase = ignore;
}

void STOPRULE::Replace(PLIST list) {
  MUTEXHOLD hold(lock);
  FreeList(pStop);
  pStop = list;
}

bool STOPRULE::IsSet() {
  MUTEXHOLD hold(lock);
  return pStop != nullptr;
}

SI4 STOPRULE::Find(PBUFFER b, UI4 from, UI4* next) {
  MUTEXHOLD hold(lock);
  const SI4 n = b->FindStop(pStop, IgnoreCase, nullptr, from);
  if (n < 0) *next = pStop ? b->SearchedTo(pStop) : 0;
  return n;
}

SI4 ReplaceStop(STOPRULE* rule, PAA value, bool translate) {
  PLIST list = nullptr;
  const SI4 code = MakeList(value, translate ? VACHAR : VABIN, &list);
  if (code == 0) rule->Replace(list);
  return code;
}
