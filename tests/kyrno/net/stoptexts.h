// stoptexts.h - a stop list from plain texts, for tests and fuzz targets.
#pragma once

#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "kyrno/net/stoplist.h"

/// Owns a LIST of copies of the texts.
class STOPTEXTS {
 public:
  explicit STOPTEXTS(const std::vector<std::string_view>& texts) {
    list = static_cast<PLIST>(calloc(1, sizeof(LIST) + texts.size() * sizeof(PITEM)));
    list->Count = static_cast<SI4>(texts.size());
    for (size_t i = 0; i < texts.size(); ++i) {
      list->items[i] = static_cast<PITEM>(calloc(1, sizeof(ITEM) + texts[i].size()));
      list->items[i]->len = static_cast<SI4>(texts[i].size());
      if (!texts[i].empty()) memcpy(list->items[i]->pc, texts[i].data(), texts[i].size());
    }
  }
  ~STOPTEXTS() { FreeList(list); }
  STOPTEXTS(const STOPTEXTS&) = delete;
  STOPTEXTS& operator=(const STOPTEXTS&) = delete;

  PLIST Get() const { return list; }

 private:
  PLIST list;
};
