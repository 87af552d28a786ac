// vatrans.cpp - the byte tables and the reading of new ones.
#include "Apl/vatrans.h"

#include <strings.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/base/mutex.h"
#include "sys/linux/qlnplat.h"

static constexpr UI4 MODULE = 0x01000000;

PCH10 pAPLUnicodeFile = nullptr;

namespace {

// A table that may be replaced at any time: who translates takes a copy first.
class BYTETABLE {
 public:
  void Install(PCH10 table) {
    const MUTEXHOLD hold(lock);
    memcpy(map, table, sizeof map);
    installed.store(true, std::memory_order_release);
  }

  void Translate(PCH1 text, UI4 length) {
    if (length == 0 || !installed.load(std::memory_order_acquire)) return;
    CH1 copy[MAXTRANSSIZE];
    {
      const MUTEXHOLD hold(lock);
      memcpy(copy, map, sizeof copy);
    }
    for (UI4 i = 0; i < length; ++i) text[i] = copy[static_cast<UI1>(text[i])];
  }

 private:
  MUTEX lock;
  std::atomic<bool> installed{false};  // hand-over; never cleared
  CH1 map[MAXTRANSSIZE] GUARDED_BY(lock) = {};
};

constinit BYTETABLE asc2av;
constinit BYTETABLE av2asc;
constinit MUTEX listLock;  // the links of every TRANSLITERATION list

constexpr size_t kMaxLine = 132;          // of a line of code points
constexpr UI4 kNoCodePoint = UINT32_MAX;  // a byte that the file says nothing of

void CopyName(PCH1 to, PCH10 from) {
  const size_t n = strnlen(from, MAXCHARSETNAMESIZE);
  memset(to, ' ', MAXCHARSETNAMESIZE);
  memcpy(to, from, n);
  to[MAXCHARSETNAMESIZE] = 0;
}

bool SameName(PCH10 a, PCH10 b) { return strncasecmp(a, b, MAXCHARSETNAMESIZE) == 0; }

// The record of the two names of `wanted`; where there is none, `last` is the link that ends the
// list.
PTRANS Search(PTRANS* list, const TRANSLITERATION& wanted, PTRANS** last) {
  PTRANS* link = list;
  for (; *link; link = &(*link)->pNextTrans) {
    const PTRANS t = *link;
    if (SameName(t->FromName, wanted.FromName) && SameName(t->ToName, wanted.ToName)) break;
  }
  *last = link;
  return *link;
}

// One character set of the translate file.
class CHARSET {
 public:
  explicit CHARSET(PCH10 padded) {
    size_t n = strnlen(padded, MAXCHARSETNAMESIZE);
    while (n > 0 && padded[n - 1] == ' ') --n;
    memcpy(section, padded, n);
  }

  // Its default character, or -1 when the file does not have the set.
  SI4 Default() const {
    CH1 text[20] = {};
    if (!pAPLUnicodeFile || Key("DefaultChar", text, sizeof text) <= 0) {
      LOG(1, ("Can't read key %s from section %s in file %s", "DefaultChar", section,
              pAPLUnicodeFile ? pAPLUnicodeFile : ""));
      return -1;
    }
    return static_cast<UI1>(strtol(text, nullptr, 10));
  }

  // The code point of each byte. Every key is the index of the first code point in its line.
  void Read() {
    UI4 filled = 0;
    for (UI4 before = kNoCodePoint; filled < MAXTRANSSIZE && filled != before;) {
      before = filled;
      CH1 key[12];
      snprintf(key, sizeof key, "%u", filled);
      CH1 line[kMaxLine + 1] = {};
      if (Key(key, line, sizeof line) > 0) filled = Append(line, filled);
    }
    for (; filled < MAXTRANSSIZE; ++filled) codePoints[filled] = kNoCodePoint;
  }

  UI4 codePoints[MAXTRANSSIZE];

 private:
  SI4 Key(PCH10 key, PCH1 out, UI4 size) const {
    return PLATIni(section, key, "", out, size - 1, pAPLUnicodeFile);
  }

  UI4 Append(PCH1 line, UI4 filled) {
    CH1* rest = nullptr;
    for (CH1* number = strtok_r(line, " ,\t", &rest); number && filled < MAXTRANSSIZE;
         number = strtok_r(nullptr, " ,\t", &rest)) {
      codePoints[filled++] = static_cast<UI4>(strtoul(number, nullptr, 10));
    }
    return filled;
  }

  CH1 section[MAXCHARSETNAMESIZE + 1] = {};
};

}  // namespace

void SetChar2av(PCH10 table) { asc2av.Install(table); }
void SetChar2asc(PCH10 table) { av2asc.Install(table); }

PCH1 VA2avn(PCH1 text, UI4 length) {
  asc2av.Translate(text, length);
  return text;
}

PCH1 VA2ascn(PCH1 text, UI4 length) {
  av2asc.Translate(text, length);
  return text;
}

SI4 FindTrans(PCH10 from, PCH10 to, PTRANS* list, PCH10* table) {
  *table = nullptr;
  std::unique_ptr<TRANSLITERATION> made(new (std::nothrow) TRANSLITERATION());
  if (!made) return ERR_UNI_MEMORY;
  CopyName(made->FromName, from);
  CopyName(made->ToName, to);
  if (SameName(made->FromName, made->ToName)) return 0;

  PTRANS* last = nullptr;
  {
    const MUTEXHOLD hold(listLock);
    const PTRANS found = Search(list, *made, &last);
    if (found) {
      *table = found->Trans;
      return 0;
    }
  }
  const SI4 code = ReadTrans(made.get());  // reads a file: without the lock
  if (code != 0) return code;

  const MUTEXHOLD hold(listLock);
  PTRANS found = Search(list, *made, &last);  // somebody else may have been faster
  if (!found) *last = found = made.release();
  *table = found->Trans;
  return 0;
}

SI4 ReadTrans(PTRANS record) {
  CHARSET source(record->FromName);
  CHARSET target(record->ToName);
  if (source.Default() < 0) return ERR_UNI_CONVERSION;
  const SI4 deflt = target.Default();
  if (deflt < 0) return ERR_UNI_CONVERSION;

  memset(record->Trans, deflt, sizeof record->Trans);
  source.Read();
  target.Read();
  for (UI4 i = 0; i < MAXTRANSSIZE; ++i) {
    if (source.codePoints[i] == kNoCodePoint) continue;
    const UI4* const end = std::end(target.codePoints);
    const UI4* const match = std::find(std::cbegin(target.codePoints), end, source.codePoints[i]);
    if (match != end) record->Trans[i] = static_cast<CH1>(match - target.codePoints);
  }
  return 0;
}
