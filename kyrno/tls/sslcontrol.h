// sslcontrol.h - the start and the end of TLS in this process, and GnuTLS's own log.
#pragma once

#include "sys/linux/qlntypes.h"

/// Once, after LoadKyrnossl and before any other thread; nothing happens without the support
/// library.
void SslLoad();
/// Before UnloadKyrnossl, when no root is left.
void SslUnload();

/// Held by a thread that calls GnuTLS outside the gate, which unloading doesn't wait for: a process
/// that ends meanwhile keeps the support library.
class SSLUSE {
 public:
  SSLUSE();
  ~SSLUSE();
  SSLUSE(const SSLUSE&) = delete;
  SSLUSE& operator=(const SSLUSE&) = delete;
};
bool SslIsUsed();

/// How much GnuTLS tells the log, 0 for nothing. From level 9 on GnuTLS writes keys: those lines
/// never reach the log. Any thread.
void SslTrace(SI4 level);
