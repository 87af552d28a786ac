// ranges.cpp - a filter of addresses.
#include "kyrno/net/ranges.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "kyrno/base/error.h"

namespace {

constexpr UI1 Width(int af) { return af == AF_INET ? 32 : 128; }

// A plain decimal number of at most `limit`, or -1.
int ParseBits(PCH10 at, PCH10 end, int limit) {
  if (at == end) return -1;
  int bits = 0;
  for (; at < end; ++at) {
    if (*at < '0' || *at > '9') return -1;
    bits = bits * 10 + (*at - '0');
    if (bits > limit) return -1;
  }
  return bits;
}

bool SamePrefix(const UI1* a, const UI1* b, UI1 bits) {
  const size_t whole = bits / 8;
  if (memcmp(a, b, whole) != 0) return false;
  const int rest = bits % 8;
  return rest == 0 || ((a[whole] ^ b[whole]) >> (8 - rest)) == 0;
}

}  // namespace

RANGES::~RANGES() {
  Empty(&v4);
  Empty(&v6);
}

SI4 RANGES::SetAddr4(PCH10 text) { return Load(&v4, AF_INET, text); }

SI4 RANGES::SetAddr6(PCH10 text) { return Load(&v6, AF_INET6, text); }

SI4 RANGES::IsValid(const QLNSOCKADDR* addr) const {
  if (addr->ss_family == AF_INET) {
    sockaddr_in in;
    memcpy(&in, addr, sizeof in);
    return Matches(v4, reinterpret_cast<const UI1*>(&in.sin_addr));
  }
  if (addr->ss_family != AF_INET6) return 0;

  sockaddr_in6 in;
  memcpy(&in, addr, sizeof in);
  const UI1* address = in.sin6_addr.s6_addr;
  return IN6_IS_ADDR_V4MAPPED(&in.sin6_addr) ? Matches(v4, address + 12) : Matches(v6, address);
}

SI4 RANGES::Load(FAMILY* family, int af, PCH10 text) {
  Empty(family);
  if (!text || !*text) return 0;

  const size_t commas = static_cast<size_t>(std::count(text, text + strlen(text), ','));
  family->ranges = static_cast<RANGE*>(calloc(commas + 1, sizeof(RANGE)));
  if (!family->ranges) return ERR_MEMORY_ALLOC;

  while (*text) {  // a ',' at the very end has nothing behind it
    const size_t length = strcspn(text, ",");
    if (const SI4 error = Parse(&family->ranges[family->count], af, text, length)) {
      Empty(family);
      return error;
    }
    ++family->count;
    text += length;
    if (*text) ++text;
  }
  return 0;
}

SI4 RANGES::Parse(RANGE* range, int af, PCH10 text, size_t length) {
  PCH10 const end = text + length;
  PCH10 const slash = std::find(text, end, '/');
  const size_t addressLen = static_cast<size_t>(slash - text);
  CH1 address[INET6_ADDRSTRLEN];
  if (addressLen >= sizeof address) return ERR_INVALID_ADDR;
  memcpy(address, text, addressLen);
  address[addressLen] = '\0';
  if (inet_pton(af, address, range->address) != 1) return ERR_INVALID_ADDR;

  const int bits = slash == end ? Width(af) : ParseBits(slash + 1, end, Width(af));
  if (bits < 0) return ERR_INVALID_ADDR;
  range->bits = static_cast<UI1>(bits);
  return 0;
}

void RANGES::Empty(FAMILY* family) {
  free(family->ranges);
  *family = {};
}

SI4 RANGES::Matches(const FAMILY& family, const UI1* address) {
  if (family.count == 0) return 1;
  return std::any_of(family.ranges, family.ranges + family.count, [address](const RANGE& range) {
    return SamePrefix(range.address, address, range.bits);
  });
}
