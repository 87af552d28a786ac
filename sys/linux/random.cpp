// random.cpp - bytes that nobody can predict.

#include "sys/linux/random.h"

#include <sys/auxv.h>
#include <sys/random.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "kyrno/base/log.h"
#include "sys/linux/forkmark.h"
#include "util/sha1.h"

namespace {

constexpr UI4 kSupplyBytes = 256;  // so few are never handed out in part by getrandom

/// What a thread has left. A mark of 0: nothing yet.
struct SUPPLY {
  UI4 mark;  // of the process that drew it: a forked child must not hand out the same again
  UI4 left;  // the bytes at the end of data
  UI1 data[kSupplyBytes];
};
constinit thread_local SUPPLY supply{};

// Tally: tells the blocks of the makeshift apart, and when it began.
constinit std::atomic<UI8> madeBlocks{0};

// Where a sandbox or an old kernel has no getrandom: the 16 secret bytes that the kernel gave the
// process at its start, hashed with what never comes twice. A peer can't know them; a forked child
// can, and has another mark.
void MakeShift(PUI1 to, UI4 n, int error) {
  struct {
    UI1 secret[16];
    UI8 block;
    timespec now;
    UI4 mark;
  } seed;
  memset(&seed, 0, sizeof seed);
  if (const auto* const secret = reinterpret_cast<const UI1*>(getauxval(AT_RANDOM)))
    memcpy(seed.secret, secret, sizeof seed.secret);
  seed.mark = FORKMARK::Current();

  while (n > 0) {
    seed.block = madeBlocks.fetch_add(1, std::memory_order_relaxed);
    if (seed.block == 0) LOGStrL("getrandom failed, random bytes are hashed instead", error);
    clock_gettime(CLOCK_MONOTONIC, &seed.now);
    SHA1Context hash;
    SHA1Reset(&hash);
    SHA1Input(&hash, reinterpret_cast<const UI1*>(&seed), sizeof seed);
    UI1 digest[SHA1HashSize];
    SHA1Result(&hash, digest);
    const UI4 piece = std::min<UI4>(n, sizeof digest);
    memcpy(to, digest, piece);
    to += piece;
    n -= piece;
  }
}

void FromSystem(PUI1 to, UI4 n) {
  while (n > 0) {
    const ssize_t got = getrandom(to, n, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return MakeShift(to, n, errno);
    to += got;
    n -= static_cast<UI4>(got);
  }
}

}  // namespace

void RandomBytes(PUI1 to, UI4 n) {
  if (n >= kSupplyBytes) return FromSystem(to, n);

  SUPPLY* const own = &supply;
  const UI4 mark = FORKMARK::Current();
  if (own->mark != mark || own->left < n) {
    FromSystem(own->data, kSupplyBytes);
    own->left = kSupplyBytes;
    own->mark = mark;
  }
  memcpy(to, own->data + kSupplyBytes - own->left, n);
  own->left -= n;
}
