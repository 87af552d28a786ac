// tlspipe.h - the bytes between GnuTLS and a descriptor.
//
// By itself GnuTLS reads a record in two small pieces and writes one record at a time, and a write
// that would block has to be repeated with the same record. Here it reads from what one large
// receive has brought, and writes into a block that goes out as a whole and always takes a record:
// so a record is never half written as far as GnuTLS knows, and neither an alert nor a ticket is
// lost because a peer doesn't read just now.
#pragma once

#include <gnutls/gnutls.h>

#include "kyrno/net/socket.h"
#include "util/freed.h"

/// Owner:   a secure socket.
/// Threads: one at a time.
/// Errors:  errno of the calls, which GnuTLS turns into its own.
class TLSPIPE {
 public:
  static constexpr size_t kInBytes = 65536;      // of one receive
  static constexpr size_t kOutBytes = 65536;     // from so many on nothing more should be sealed
  static constexpr size_t kMostUnsent = 262144;  // a peer that makes GnuTLS write more, and reads
                                                 // nothing, is given up: ENOBUFS

  TLSPIPE() = default;
  TLSPIPE(const TLSPIPE&) = delete;
  TLSPIPE& operator=(const TLSPIPE&) = delete;

  /// Makes a session read and write here, over a descriptor. Both stay the caller's; this must
  /// outlive the session.
  void Attach(gnutls_session_t session, SOCKET descriptor);

  /// Before each step of GnuTLS: the kernel may have new bytes.
  void Begin() { drained = false; }
  /// After it: sends what is held back, as far as the kernel takes it, and gives up memory that
  /// holds nothing. 0, or ERR_SEND, from then on for ever: what was held back is dropped.
  [[nodiscard]] SOCKERR Flush();
  bool HasUnsent() const { return outAt < outEnd; }
  bool HasFailed() const { return failed; }
  bool IsFull() const { return outEnd - outAt >= kOutBytes; }
  /// Received and not read by GnuTLS yet.
  bool HasUnread() const { return inAt < inEnd; }
  /// The descriptor is about to be closed: what is held is dropped.
  void Close();

 private:
  static ssize_t Pull(gnutls_transport_ptr_t pipe, void* to, size_t n);
  static ssize_t Push(gnutls_transport_ptr_t pipe, const void* from, size_t n);
  static int HasBytes(gnutls_transport_ptr_t pipe, unsigned int millis);
  ssize_t Read(void* to, size_t n);
  ssize_t Write(const void* from, size_t n);
  bool Receive();
  bool MakeRoom(size_t n);

  SOCKET sock = INVALID_SOCKET;  // borrowed
  bool failed = false;           // sending has
  bool drained = false;          // the last receive has left nothing in the kernel
  TEXT in;                       // of kInBytes; null while nothing is unread
  TEXT out;                      // of outRoom; null while nothing is unsent
  size_t inAt = 0, inEnd = 0;
  size_t outAt = 0, outEnd = 0, outRoom = 0;
};
