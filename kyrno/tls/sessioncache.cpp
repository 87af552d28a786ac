// sessioncache.cpp - what TLS sessions need to be resumed, by key.
#include "kyrno/tls/sessioncache.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "kyrno/base/kyrnossl.h"
#include "kyrno/base/log.h"

static constexpr UI4 MODULE = 0x00000400;

namespace {

void Wipe(gnutls_datum_t* datum) {
  if (datum->data) explicit_bzero(datum->data, datum->size);
  free(datum->data);
  *datum = {nullptr, 0};
}

bool Copy(gnutls_datum_t* to, const gnutls_datum_t& from) {
  Wipe(to);
  if (!from.data || from.size == 0) return true;
  to->data = static_cast<unsigned char*>(malloc(from.size));
  if (!to->data) return false;
  memcpy(to->data, from.data, from.size);
  to->size = from.size;
  return true;
}

void Trace(PCH10 what, void* cache, const gnutls_datum_t& key) {
  if (!LOGif(0, MODULE, 3)) return;
  LOG2File("%s %p", what, cache);
  LOGHex(key.data, key.size);
}

}  // namespace

bool SessionData2::SetKey(const gnutls_datum_t& from) { return Copy(&key, from); }
bool SessionData2::SetData(const gnutls_datum_t& from) { return Copy(&data, from); }

bool SessionData2::IsThisKey(const gnutls_datum_t& other) const {
  return key.size != 0 && key.size == other.size && memcmp(key.data, other.data, key.size) == 0;
}

gnutls_datum_t SessionData2::GetData() const {
  gnutls_datum_t copy = {nullptr, 0};
  if (data.size == 0) return copy;
  copy.data = static_cast<unsigned char*>(QLN_gnutls_malloc(data.size));
  if (!copy.data) return copy;
  memcpy(copy.data, data.data, data.size);
  copy.size = data.size;
  return copy;
}

void SessionData2::Clear() {
  Wipe(&key);
  Wipe(&data);
}

SessionCache2::SessionCache2(SI4 size) {
  if (size < 1) return;
  const SI4 n = size < kMaxSessions ? size : kMaxSessions;
  cache = new (std::nothrow) SessionData2[static_cast<size_t>(n)];
  if (cache) cacheSize = n;
}

SessionCache2::~SessionCache2() {
  MUTEXHOLD hold(Lock);
  delete[] cache;
}

SessionData2* SessionCache2::Find(const gnutls_datum_t& key) {
  for (SI4 i = 0; i <= maxIndex; ++i)
    if (cache[i].IsThisKey(key)) return &cache[i];
  return nullptr;
}

void SessionCache2::Add(const gnutls_datum_t& key, const gnutls_datum_t& data) {
  if (!key.data || key.size == 0) return;
  MUTEXHOLD hold(Lock);
  if (cacheSize == 0) return;
  SessionData2* slot = Find(key);
  if (!slot) {
    slot = &cache[nextIndex];
    nextIndex = (nextIndex + 1) % cacheSize;
    if (maxIndex < cacheSize - 1) ++maxIndex;
    if (!slot->SetKey(key)) return slot->Clear();
  }
  if (!slot->SetData(data)) slot->Clear();
}

gnutls_datum_t SessionCache2::Retrieve(const gnutls_datum_t& key) {
  MUTEXHOLD hold(Lock);
  const SessionData2* const slot = Find(key);
  return slot ? slot->GetData() : gnutls_datum_t{nullptr, 0};
}

void SessionCache2::Remove(const gnutls_datum_t& key) {
  MUTEXHOLD hold(Lock);
  if (SessionData2* const slot = Find(key)) slot->Clear();
}

int DBStoreFunc(void* cache, gnutls_datum_t key, gnutls_datum_t data) {
  Trace("DBStore", cache, key);
  if (!cache) return GNUTLS_E_DB_ERROR;
  static_cast<SessionCache2*>(cache)->Add(key, data);
  return 0;
}

gnutls_datum_t DBRetrieveFunc(void* cache, gnutls_datum_t key) {
  Trace("DBRetrieve", cache, key);
  return cache ? static_cast<SessionCache2*>(cache)->Retrieve(key) : gnutls_datum_t{nullptr, 0};
}

int DBRemoveFunc(void* cache, gnutls_datum_t key) {
  Trace("DBRemove", cache, key);
  if (!cache) return GNUTLS_E_DB_ERROR;
  static_cast<SessionCache2*>(cache)->Remove(key);
  return 0;
}
