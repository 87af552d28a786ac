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
  /// End of the first stop in what b has received, from the start of the bytes, or -1. Starts
  /// before `from` are known not to match; *next is where a search that found nothing may go on
  /// later.
  SI4 Find(PBUFFER b, UI4 from, UI4* next);

 private:
  MUTEX lock;
  PLIST pStop GUARDED_BY(lock) = nullptr;  // owned
  bool IgnoreCase GUARDED_BY(lock) = true;
};

/// The property "EOM" of modes raw and text: a text or a nested vector of texts becomes the list.
/// ERR_ARG_STOPLIST leaves the rule as it was.
[[nodiscard]] SI4 ReplaceStop(STOPRULE* rule, PAA value, bool translate);
