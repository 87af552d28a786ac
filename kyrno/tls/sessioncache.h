// sessioncache.h - what TLS sessions need to be resumed, by key.
//
// A ring: a new key takes the next slot, whatever was used last, and when all are taken it
// overwrites the oldest. A key that is there already keeps its slot. Entries are copies; they are
// session secrets, and wiped when they go.
#pragma once

#include <gnutls/gnutls.h>

#include "kyrno/annotate.h"
#include "kyrno/base/mutex.h"
#include "sys/linux/qlntypes.h"
#include "util/ref.h"

/// Session caching, both sides.
#define SessionCaching 1

inline constexpr SI4 kClientSessions = 100;   // of a root's clients together
inline constexpr SI4 kServerSessions = 1000;  // of one listener
inline constexpr SI4 kMaxSessions = 100000;   // a larger cache has no more: it is searched in order

/// One entry: copies of key and data, empty while unused.
class SessionData2 {
 public:
  SessionData2() = default;
  ~SessionData2() { Clear(); }
  SessionData2(const SessionData2&) = delete;
  SessionData2& operator=(const SessionData2&) = delete;

  /// False without memory; what was there has gone either way.
  [[nodiscard]] bool SetKey(const gnutls_datum_t& from);
  [[nodiscard]] bool SetData(const gnutls_datum_t& from);
  bool IsThisKey(const gnutls_datum_t& other) const;
  /// A copy in a block for QLN_gnutls_free; empty when there is no data, or no memory.
  gnutls_datum_t GetData() const;
  void Clear();

 private:
  gnutls_datum_t key = {nullptr, 0};  // owned, both
  gnutls_datum_t data = {nullptr, 0};
};

/// Owner:   the root's clients share one, a listener and its accepted sockets another.
/// Threads: any.
class SessionCache2 : public COUNTED {
 public:
  /// A size below 1, or no memory, makes a cache that keeps nothing.
  explicit SessionCache2(SI4 size);
  ~SessionCache2() override;

  void Add(const gnutls_datum_t& key, const gnutls_datum_t& data);
  /// The data of a key, in a block for QLN_gnutls_free; empty when it isn't there.
  gnutls_datum_t Retrieve(const gnutls_datum_t& key);
  void Remove(const gnutls_datum_t& key);

 private:
  SessionData2* Find(const gnutls_datum_t& key) TSA(exclusive_locks_required(Lock));

  MUTEX Lock;
  SessionData2* cache GUARDED_BY(Lock) = nullptr;  // owned; cacheSize entries
  SI4 cacheSize GUARDED_BY(Lock) = 0;
  SI4 nextIndex GUARDED_BY(Lock) = 0;
  SI4 maxIndex GUARDED_BY(Lock) = -1;  // the highest slot in use
};

// GnuTLS calls these for the sessions of a server; `cache` is a SessionCache2 or null, which gives
// GNUTLS_E_DB_ERROR or an empty datum.
int DBStoreFunc(void* cache, gnutls_datum_t key, gnutls_datum_t data);
gnutls_datum_t DBRetrieveFunc(void* cache, gnutls_datum_t key);
int DBRemoveFunc(void* cache, gnutls_datum_t key);
