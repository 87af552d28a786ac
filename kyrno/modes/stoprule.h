// stoprule.h - how a stream is cut: a stop list, and whether case matters. Set by an interpreter
// thread, used by the work thread.
#pragma once

#include "Apl/vapl.h"
#include "kyrno/base/mutex.h"
#include "kyrno/net/buffer.h"
#include "kyrno/net/stoplist.h"

class STOPRULE {
 public:
  STOPRULE() = default;
  ~STOPRULE() { FreeList(pStop); }
  STOPRULE(const STOPRULE&) = delete;
  STOPRULE& operator=(const STOPRULE&) = delete;

  /// Takes the list over and frees the one before. A null list leaves none and the flag as it was.
  void Set(PLIST list, bool ignore);
  /// Another list for the same flag.
  void Replace(PLIST list);
  bool IsSet();
  /// How far a stream has been searched, and for which list.
  struct MARK {
    UI4 searched = 0;  // starts before this are known not to match
    UI4 version = 0;   // of the list
  };
  /// End of the first stop behind the first `cut` received bytes of b, counted from the start of
  /// the bytes, or -1. A list that has come since the mark searches everything behind `cut` again.
  SI4 Find(PBUFFER b, UI4 cut, MARK* mark);

 private:
  void Store(PLIST list) TSA(requires_capability(lock));

  MUTEX lock;
  PLIST pStop GUARDED_BY(lock) = nullptr;  // owned
  bool IgnoreCase GUARDED_BY(lock) = true;
  UI4 version GUARDED_BY(lock) = 0;  // of the list, different from that of any other rule
};

/// The property "EOM" of modes raw and text: a text or a nested vector of texts becomes the list.
/// ERR_ARG_STOPLIST leaves the rule as it was.
[[nodiscard]] SI4 ReplaceStop(STOPRULE* rule, PAA value, bool translate);
