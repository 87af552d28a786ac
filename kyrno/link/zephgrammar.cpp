// zephgrammar.cpp - the two short texts that say where the link connects or listens.
#include "kyrno/link/zephgrammar.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "kyrno/link/zephconfig.h"

namespace {

constexpr size_t kMaxAddress = 512;
constexpr UI4 kMaxPort = 65535;

/// A mistake in any text of this process; tally.
std::atomic<bool> rs_error{false};

/// What takes a text apart, from its front. A piece that is taken is kept here, so that the record
/// changes only when the whole text was good; Port and Protocol alone tell of a bad one too.
class PARSER {
 public:
  PARSER(PCH10 text, PCH10 textEnd, tZeph2Config* config, bool* error)
      : at(text), end(textEnd), record(config), failed(error) {}

  void Init() {
    bool good;
    do {
      good = Item();
    } while (good && Skip(','));
    Finish(direction == DIRUndefined ? DIRConfig : direction);
    if (record->Direction != DIRUndefined) memcpy(record->ConfigFile, path, sizeof path);
  }

  void Endpoint() {
    if (Address(true)) Port();
    record->Protocol = PAny;
    if (Skip('[')) Protocol();
    Finish(record->Direction);
  }

 private:
  bool Fail() {
    *failed = true;
    return false;
  }
  bool Skip(CH1 c) {
    if (at == end || *at != c) return false;
    ++at;
    return true;
  }
  bool SkipWord(PCH10 word) {
    const size_t n = strlen(word);
    if (static_cast<size_t>(end - at) < n || strncasecmp(at, word, n) != 0) return false;
    at += n;
    return true;
  }

  bool Item() {
    static constexpr struct {
      PCH10 word;
      TDirection direction;
    } words[] = {
        {"connect", DIRConnect}, {"serve", DIRListen}, {"poll", DIRPoll}, {"http", DIRHttp}};
    for (const auto& one : words)
      if (SkipWord(one.word)) return Direction(one.direction);
    return SkipWord("config") ? File() : Fail();
  }

  // Deliberate: an address that is left out is none, and "localhost" nowhere.
  bool Direction(TDirection wanted) {
    if (direction != DIRUndefined)
      Fail();
    else
      direction = wanted;
    record->Protocol = PAny;
    if (!Skip(':')) return Fail();
    if (!Address(false)) return false;
    Port();
    return true;
  }

  /// With the ':' behind it, which a plain one at the end of the text may do without.
  bool Address(bool mayEnd) {
    const bool isBracketed = Skip('[');
    size_t n = 0;
    for (const CH1 last = isBracketed ? ']' : ':'; at < end && *at != last; ++at) {
      if (*at == ' ') continue;
      if (*at == '[' || *at == ']' || n == kMaxAddress)
        Fail();
      else
        address[n++] = *at;
    }
    if (isBracketed && !Skip(']')) return Fail();
    if (!isBracketed && mayEnd && at == end) return true;
    return Skip(':') || Fail();
  }

  void Port() {
    PCH10 const first = at;
    UI4 port = 0;
    for (; at < end && *at >= '0' && *at <= '9'; ++at)
      port = std::min(port * 10 + static_cast<UI4>(*at - '0'), kMaxPort + 1);
    record->Port = at == first ? kZephPort : port;
    if (port <= kMaxPort) return;
    record->Port = UINT32_MAX;
    Fail();
  }

  void Protocol() {
    static constexpr struct {
      PCH10 mark;
      PROTOCOL protocol;
    } marks[] = {{"ipv6", PIPv6}, {"dual", PAny}, {"ipv4", PIPv4}};
    constexpr size_t kMark = 4;
    const size_t left = static_cast<size_t>(end - at);
    const auto* const found =
        std::find_if(std::begin(marks), std::end(marks), [this, left](const auto& one) {
          return left >= kMark && memcmp(at, one.mark, kMark) == 0;
        });
    if (found == std::end(marks)) {
      Fail();
      return;
    }
    record->Protocol = found->protocol;
    at += kMark;
    if (!Skip(']')) Fail();
  }

  /// To the next ','; with its NUL it has to fit.
  bool File() {
    if (*path) Fail();
    if (!Skip(':')) return true;
    for (size_t n = 0; at < end && *at != ','; ++at) {
      if (*at == '[' || *at == ']' || n == sizeof path - 1)
        Fail();
      else
        path[n++] = *at;
    }
    return true;
  }

  void Finish(TDirection found) {
    const bool good = at == end && !*failed;
    record->Direction = good && SetText(&record->pAddress, address) ? found : DIRUndefined;
  }

  PCH10 at;
  const PCH10 end;
  tZeph2Config* const record;
  bool* const failed;
  TDirection direction = DIRUndefined;
  CH1 address[kMaxAddress + 1] = {};
  CH1 path[sizeof tZeph2Config::ConfigFile] = {};
};

/// Parses with the memory of earlier mistakes.
template <typename PARSE>
void ParseSticky(PARSE parse) {
  bool error = rs_error.load(std::memory_order_relaxed);
  parse(&error);
  if (error) rs_error.store(true, std::memory_order_relaxed);
}

}  // namespace

void ParseZephInit(PCH10 text, tZeph2Config* config, bool* error) {
  PARSER(text, text + strlen(text), config, error).Init();
}

void rs_parse(PCH10 text, PCH10 end, tZeph2Config* config, bool* error) {
  PARSER(text, end, config, error).Endpoint();
}

void ParseZephInit(PCH10 text, tZeph2Config* config) {
  ParseSticky([&](bool* error) { ParseZephInit(text, config, error); });
}

void rs_parse(PCH10 text, PCH10 end, tZeph2Config* config) {
  ParseSticky([&](bool* error) { rs_parse(text, end, config, error); });
}
