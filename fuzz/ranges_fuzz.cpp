// ranges_fuzz.cpp - filter texts: 16 bytes of an address, then the text of a list.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kyrno/net/ranges.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 16) return 0;
  const std::string text(reinterpret_cast<const char*>(data) + 16, size - 16);

  RANGES ranges;
  const SI4 error4 = ranges.SetAddr4(text.c_str());
  const SI4 error6 = ranges.SetAddr6(text.c_str());
  if (text.c_str()[0] && !error4 && !error6) abort();  // no text is a list of both families

  QLNSOCKADDR addr{};
  addr.ss_family = AF_INET;
  memcpy(&reinterpret_cast<sockaddr_in*>(&addr)->sin_addr, data, 4);
  const SI4 valid4 = ranges.IsValid(&addr);
  if (error4 && !valid4) abort();  // a refused text leaves no filter

  addr = {};
  addr.ss_family = AF_INET6;
  memcpy(&reinterpret_cast<sockaddr_in6*>(&addr)->sin6_addr, data, 16);
  ranges.IsValid(&addr);
  return 0;
}
