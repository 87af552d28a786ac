// zephblocks.h - blocks that have come and that the interpreter has not freed yet.
//
//   work thread    Put ---> number ---> CommNotify(3, number)
//   interpreter                            Find: looks and copies ---> Drop
//
// A block leaves the tree when the interpreter is told of it: what it looks at is there until it
// says Zeph2Free, whatever becomes of the connection meanwhile. Numbers are not used again, so a
// late Zeph2Free meets nothing.
#pragma once

#include "kyrno/base/mutex.h"
#include "kyrno/net/buffer.h"

/// One block.
struct ZEPHBLOCK {
  ZEPHBLOCK* pNext = nullptr;
  PVOID number = nullptr;
  PCH1 block = nullptr;  // owned, for BlockFree
  PCH1 data = nullptr;   // inside block
  UI4 size = 0;
  bool seen = false;  // by Find
};

/// Threads: any.
/// Owner:   the process. What was looked at and not freed is there at its end, since another thread
///          may be copying it then.
class ZEPHBLOCKS {
 public:
  constexpr ZEPHBLOCKS() = default;
  ZEPHBLOCKS(const ZEPHBLOCKS&) = delete;
  ZEPHBLOCKS& operator=(const ZEPHBLOCKS&) = delete;

  /// Takes the first `size` bytes of a complete buffer, whose memory it owns from here on. The
  /// block's number, null without memory.
  [[nodiscard]] PVOID Put(PBUFFER buffer, UI4 size);
  /// A number for something that has no bytes.
  PVOID NewNumber();
  /// False for a number that is not, or no longer, a block's.
  [[nodiscard]] bool Find(PVOID number, PCH1* data, PUI4 size);
  void Drop(PVOID number);
  /// The session is over: drops what nobody has looked at. What was looked at stays.
  void DropUnseen();

  /// A fork takes the lock with it.
  void BeforeFork() TSA(acquire_capability(Lock)) { Lock.Lock(); }
  void AfterFork() TSA(release_capability(Lock)) { Lock.Unlock(); }

 private:
  template <typename WHICH>
  void DropSome(SI4 most, WHICH goes);

  MUTEX Lock;
  ZEPHBLOCK* pFirst GUARDED_BY(Lock) = nullptr;  // owned, oldest first
  ZEPHBLOCK* pLast GUARDED_BY(Lock) = nullptr;
  std::atomic<UI8> numbers{0};  // tally
};
