// stoplist_fuzz.cpp - the search for message ends against a plain one, whole and byte by byte.
//
// Input: flags, then items of one length byte (modulo 8) and that many bytes up to an item of
// length 0 (or 4 items), then the stream. Flag bit 0: letters match in either case; bit 1: an
// empty item is in the list too.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "kyrno/net/buffer.h"
#include "tests/kyrno/net/stoptexts.h"

namespace {

void Require(bool holds) {
  if (!holds) abort();
}

bool Matches(std::string_view a, std::string_view b, bool ignoreCase) {
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i] == b[i]) continue;
    const auto upper = [](CH1 c) { return toupper(static_cast<unsigned char>(c)); };
    if (!ignoreCase || upper(a[i]) != upper(b[i])) return false;
  }
  return true;
}

SI4 PlainSearch(std::string_view text, const std::vector<std::string_view>& items,
                bool ignoreCase) {
  if (text.empty()) return -1;
  for (size_t at = 0; at <= text.size(); ++at) {
    for (const std::string_view item : items) {
      if (item.size() > text.size() - at) continue;
      if (Matches(item, text.substr(at, item.size()), ignoreCase)) {
        return static_cast<SI4>(at + item.size());
      }
    }
  }
  return -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 4096) return 0;
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  const bool ignoreCase = rest[0] & 1;
  std::vector<std::string_view> items;
  if (rest[0] & 2) items.push_back({});
  rest.remove_prefix(1);
  while (!rest.empty() && items.size() < 4) {
    const size_t n = static_cast<size_t>(rest[0]) % 8;
    rest.remove_prefix(1);
    if (n == 0 || n > rest.size()) break;
    items.push_back(rest.substr(0, n));
    rest.remove_prefix(n);
  }
  const STOPTEXTS stops(items);
  const SI4 expected = PlainSearch(rest, items, ignoreCase);

  BUFFER whole(static_cast<UI4>(rest.size()) + 4);
  whole.Append(rest.data(), static_cast<UI4>(rest.size()));
  Require(whole.FindStop(stops.Get(), ignoreCase, nullptr) == expected);
  whole.Rewind();
  whole.FindStop1(stops.Get(), ignoreCase, nullptr);

  BUFFER trickle(static_cast<UI4>(rest.size()));
  UI4 from = 0;
  for (size_t i = 0; i < rest.size(); ++i) {
    trickle.Append(&rest[i], 1);
    const SI4 end = trickle.FindStop(stops.Get(), ignoreCase, nullptr, from);
    Require(end == PlainSearch(rest.substr(0, i + 1), items, ignoreCase));
    if (end >= 0) break;
    from = trickle.SearchedTo(stops.Get());
  }
  return 0;
}
