// stoplist_fuzz.cpp - the search for message ends against a plain one, whole and byte by byte.
//
// Input: flags, then items of one length byte (modulo 8) and that many bytes up to an item of
// length 0 (or 4 items), then the stream. Flag bit 0: letters match in either case; bit 1: an
// empty item is in the list too.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "kyrno/net/buffer.h"
#include "tests/kyrno/net/stoptexts.h"

namespace {

std::string Fold(std::string_view text, bool ignoreCase) {
  std::string folded(text);
  for (CH1& c : folded) c = ignoreCase && c >= 'a' && c <= 'z' ? static_cast<CH1>(c - 32) : c;
  return folded;
}

SI4 PlainSearch(std::string_view text, const std::vector<std::string_view>& items,
                bool ignoreCase) {
  const std::string folded = Fold(text, ignoreCase);
  for (size_t at = 0; !text.empty() && at <= text.size(); ++at) {
    for (const std::string_view item : items) {
      if (folded.compare(at, item.size(), Fold(item, ignoreCase)) == 0) {
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
  if (whole.FindStop(stops.Get(), ignoreCase, nullptr) != expected) abort();
  whole.Rewind();
  whole.FindStop1(stops.Get(), ignoreCase, nullptr);

  BUFFER trickle(static_cast<UI4>(rest.size()));
  UI4 from = 0;
  for (size_t i = 0; i < rest.size(); ++i) {
    trickle.Append(&rest[i], 1);
    const SI4 end = trickle.FindStop(stops.Get(), ignoreCase, nullptr, from);
    if (end != PlainSearch(rest.substr(0, i + 1), items, ignoreCase)) abort();
    if (end >= 0) break;
    from = trickle.SearchedTo(stops.Get());
  }
  return 0;
}
