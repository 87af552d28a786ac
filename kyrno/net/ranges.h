// ranges.h - a filter of addresses: "10.0.0.0/8,192.168.1.7" for IPv4, a second list for IPv6.
#pragma once

#include "kyrno/net/socket.h"
#include "util/ref.h"

/// Owner:   the servers that filter by it. Loaded once, before anybody reads it, and not changed
///          afterwards.
/// Threads: any may ask IsValid.
class RANGES : public COUNTED {
 public:
  RANGES() = default;
  ~RANGES() override;

  /// Load one family from addresses with optional "/bits", separated by ',' and no blanks. An empty
  /// text, or null, leaves an empty list. So does a text that does not parse, with
  /// ERR_INVALID_ADDR: half a filter is none.
  [[nodiscard]] SI4 SetAddr4(PCH10 text);
  [[nodiscard]] SI4 SetAddr6(PCH10 text);

  /// 1 when the address lies in one of the ranges of its family, or when that family has none.
  /// An IPv4 address in IPv6 clothes is judged as IPv4.
  SI4 IsValid(const QLNSOCKADDR* addr) const;

 private:
  struct RANGE {
    UI1 address[16];  // network order; an IPv4 address takes the first 4
    UI1 bits;         // how many of them count, from the front
  };
  struct FAMILY {
    SI4 count = 0;
    RANGE* ranges = nullptr;  // owned, from calloc
  };

  static SI4 Load(FAMILY* family, int af, PCH10 text);
  static SI4 Parse(RANGE* range, int af, PCH10 text, size_t length);
  static void Empty(FAMILY* family);
  static SI4 Matches(const FAMILY& family, const UI1* address);

  FAMILY v4, v6;
};
using PRANGES = RANGES*;
