// options.cpp - reading positional and named arguments.
#include "kyrno/boundary/options.h"

#include <strings.h>

#include <cstdlib>

#include "Apl/vaget.h"
#include "kyrno/base/error.h"

namespace {

constexpr UI4 kMaxNameBytes = 1024;
constexpr UI4 kMaxBoolBytes = 50;

bool IsPair(const VARRAY* element) {
  return VAType(element) == VAPntr && VARank(element) == 1 && VACount(element) == 2;
}

}  // namespace

SI4 Lookup(PCH10 word, SI4 n, const PCH10* table) {
  for (SI4 i = 0; i < n; ++i) {
    if (strcasecmp(word, table[i]) == 0) return i;
  }
  return n;
}

SI4 GetOptionpAA(PAA arg, SI4 index, SI4 n, const PCH10* names, PPAA value) {
  *value = nullptr;
  if (VAType(arg) != VAPntr) {
    if (index != 0) return ERR_ARG_MISSING;
    VAIncRef(arg);
    *value = arg;
    return 0;
  }
  bool named = false;
  const UI4 count = VACount(arg);
  for (UI4 i = 0; i < count; ++i) {
    const VARRAY* const element = VAOwned(arg, i);
    if (!element) return ERR_ARG_INVALID;
    named = named || IsPair(element);
    if (!named) {
      if (static_cast<SI4>(i) == index) return VAGetpAA(arg, i, value);
      continue;
    }
    CH1 name[kMaxNameBytes];
    const SI4 code = VAGetCH1(element, 0, name, sizeof name, VACHAR);
    if (code != 0) return code;
    const SI4 found = Lookup(name, n, names);
    if (n < 1 || found == n) return ERR_ARG_INVALID;
    if (found == index) return VAGetpAA(element, 1, value);
  }
  return ERR_ARG_MISSING;
}

SI4 CheckArgList(PAA arg, SI4 n, const PCH10* names) {
  VAHOLD value;
  const SI4 code = GetOptionpAA(arg, n, n, names, value.Out());
  return code == ERR_ARG_MISSING ? 0 : code;
}

SI4 GetBool(PAA arg, SI4 index, SI4 n, const PCH10* names, SI1 deflt, SI1* value) {
  *value = deflt;
  VAHOLD option;
  if (GetOptionpAA(arg, index, n, names, option.Out()) != 0) return 0;
  CH1 text[kMaxBoolBytes + 1];
  if (VAGetCH1(option.Get(), 0, text, sizeof text, VACHAR) != 0) return ERR_ARG_INVALID;
  PCH10 word = text;
  while (*word == ' ') ++word;
  *value = *word == '1' || *word == 'T' || *word == 't' || *word == 'Y' || *word == 'y';
  return 0;
}

SI4 GetSI4(PAA arg, SI4 index, SI4 n, const PCH10* names, SI4 deflt, PSI4 value) {
  *value = deflt;
  VAHOLD option;
  if (GetOptionpAA(arg, index, n, names, option.Out()) != 0) return 0;
  SI4 number = 0;
  if (VAGetSI4(option.Get(), 0, &number) != 0) return ERR_ARG_INVALID;
  *value = number;
  return 0;
}

PCH1 GetPCH10(PAA arg, SI4 index, SI4 n, const PCH10* names, PCH1 buffer, UI4 size) {
  VAHOLD option;
  if (GetOptionpAA(arg, index, n, names, option.Out()) != 0) return nullptr;
  if (size != 0) {
    return VAGetCH1(option.Get(), 0, buffer, size, VACHAR) == 0 ? buffer : nullptr;
  }
  CH1* text = nullptr;
  return VAGetCH1m(option.Get(), 0, &text, VACHAR) == 0 ? text : nullptr;
}

SI4 GetEnum(PAA arg, SI4 index, SI4 n, const PCH10* names, SI4 m, const PCH10* words, SI4 deflt,
            PUI4 code) {
  *code = 0;
  VAHOLD option;
  if (GetOptionpAA(arg, index, n, names, option.Out()) != 0) return deflt;
  CH1* text = nullptr;
  const SI4 found = VAGetCH1m(option.Get(), 0, &text, VACHAR) == 0 ? Lookup(text, m, words) : m;
  free(text);
  if (found < m) return found;
  *code = ERR_ARG_INVALID;
  return deflt;
}

SI4 GetList(PAA arg, SI4 index, SI4 n, const PCH10* names, SI4 translate, PLIST* value) {
  *value = nullptr;
  VAHOLD option;
  const SI4 code = GetOptionpAA(arg, index, n, names, option.Out());
  if (code == ERR_ARG_MISSING) return 0;
  if (code != 0) return code;
  return MakeList(option.Get(), translate, value);
}
