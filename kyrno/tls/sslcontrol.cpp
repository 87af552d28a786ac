// sslcontrol.cpp - the start and the end of TLS in this process, and GnuTLS's own log.
#include "kyrno/tls/sslcontrol.h"

#include <atomic>
#include <cstring>

#include "kyrno/base/kyrnossl.h"
#include "kyrno/base/log.h"

static constexpr UI4 MODULE = 0x00000400;

namespace {

/// From the level behind it on, GnuTLS writes keys.
constexpr int kMaxTraceLevel = 8;
/// How much more is asked of our log than of GnuTLS's.
constexpr UI4 kOwnLevels = 3;

constinit bool started = false;
constinit std::atomic<UI4> users{0};  // hand-over

void LogFunction(int level, const char* text) {
  if (level < 0 || level > kMaxTraceLevel || !text) return;
  if (!LOGif(0, MODULE, static_cast<UI4>(level) + kOwnLevels)) return;
  const int length = static_cast<int>(strcspn(text, "\r\n"));  // our line has an end of its own
  LOG2File("%*s%.*s", 2 * level, "", length, text);
}

}  // namespace

void SslLoad() {
  if (started || !KyrnosslLoaded()) return;
  LOG(1, ("Create SslControl "));
  LOG(1, ("SslInitThreads - thread: "));
  gnutls_global_set_log_level(0);
  gnutls_global_set_log_function(LogFunction);
  started = gnutls_global_init() >= 0;
}

void SslUnload() {
  if (!KyrnosslLoaded()) return;
  // GnuTLS may stay for others in this process when we have gone.
  gnutls_global_set_log_level(0);
  gnutls_global_set_log_function(nullptr);
  if (!started) return;
  LOG(1, ("Destroy SslControl "));
  gnutls_global_deinit();
  started = false;
}

SSLUSE::SSLUSE() { users.fetch_add(1, std::memory_order_acq_rel); }
SSLUSE::~SSLUSE() { users.fetch_sub(1, std::memory_order_acq_rel); }
bool SslIsUsed() { return users.load(std::memory_order_acquire) > 0; }

void SslTrace(SI4 level) {
  if (!KyrnosslLoaded()) return;
  gnutls_global_set_log_level(level < 0 ? 0 : level < kMaxTraceLevel ? level : kMaxTraceLevel);
}
