// socket.h - one non-blocking socket, and the wait for all of them.
//
// A turn of the work thread: Clear the sets, let every object mark what it wants (Wait4R, Wait4W,
// WakeAt), SfWait once, then ask each object what is ready (Ready4R, Ready4W).
#pragma once

#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <atomic>

#include "Apl/vapl.h"
#include "kyrno/base/mutex.h"
#include "kyrno/net/buffer.h"
#include "sys/linux/qlnplat.h"

inline constexpr SOCKET INVALID_SOCKET = -1;

using PQLNSOCKADDR = QLNSOCKADDR*;
inline constexpr socklen_t QLNSOCKADDRSIZEOF = sizeof(QLNSOCKADDR);

using SOCKIPADDR = UI4;  ///< an IPv4 address in host order

class CertCollection;  // declared for those who hold certificates; a plain socket never looks
                       // inside
using PCertCollection = CertCollection*;

/// The address family that a socket may use.
enum PROTOCOL : UI4 {
  PIPv4,
  PIPv6,
  PAny,  ///< either; IPv6 preferred where there is any
  PMAX
};

/// The state of one turn's wait. Belongs to the work thread.
struct SOCKETSETS {
  SI4 cntBuffered;  ///< sockets that hold readable data in user space, which the wait cannot see
  F8 deadline;      ///< Micros of the earliest thing that must happen by itself; 0 for none
  fd_set sRead;
  fd_set sWrite;

  /// The wait ends at this time at the latest; the smallest asked for counts.
  void WakeAt(F8 micros) {
    if (deadline == 0 || micros < deadline) deadline = micros;
  }
};
using PSOCKETSETS = SOCKETSETS*;

/// Can the wait watch this descriptor? Others must never reach the sets.
bool CanWatch(SOCKET sock);

/// Starts a turn: nothing wanted, nothing buffered, no deadline.
void Clear(PSOCKETSETS sets);

/// The one wait: until something is ready, the deadline has come or the seconds are over; it only
/// polls when something is buffered. *count is what is ready, buffered sockets included, or -1
/// after a signal, which is no error. After a failure or a signal nothing in the sets is ready.
[[nodiscard]] SOCKERR SfWait(PSOCKETSETS sets, UI4 seconds, PSI4 count);

/// Takes one connection, not blocking and without delay. 0 with INVALID_SOCKET means that there is
/// none to take. ERR_ACCEPT sets *mustRest when the process or the system is out of descriptors or
/// memory: the connection then stays ready, and the listener should rest or it spins.
[[nodiscard]] SOCKERR SfAccept(SOCKET listener, SOCKET* out, bool* mustRest);

/// Records a failing system call in the log, whatever the trace level.
void SockErrLog(int error, PCH10 function);

class RPCSOCK;
using PRPCSOCK = RPCSOCK*;

/// A plain socket; a secure one derives from it.
///
/// Owner:   a connection, a server, a UDP object or a root.
/// Threads: the work thread reads, writes, accepts, waits and closes, and needs no lock to look at
///          its own sock. Any thread may ask for addresses or set options: those operations hold
///          the lock through their call and CloseSocket takes it too, so none of them meets a
///          descriptor number that has been closed and given to somebody else.
/// Errors:  lError after construction; the codes of the operations. Where it says errno, the
///          system's number is returned as it is.
class RPCSOCK {
 public:
  /// Adopts an open descriptor. One that cannot be watched is closed and leaves
  /// ERR_NEW_DATA_SOCKET, as in the next constructor.
  explicit RPCSOCK(SOCKET adopted);
  /// Connects, and blocks for it, or listens, or makes a datagram socket. type is SOCK_STREAM or
  /// SOCK_DGRAM.
  RPCSOCK(PCH10 name, PCH10 service, bool server, PROTOCOL prot, int type);
  virtual ~RPCSOCK();
  RPCSOCK(const RPCSOCK&) = delete;
  RPCSOCK& operator=(const RPCSOCK&) = delete;

  /// Work thread, or whoever owns the socket alone.
  virtual void CloseSocket();

  /// errno of the call, or 0.
  virtual SOCKERR SetNonBlock();
  /// Both in milliseconds; a time of 0 switches keep-alive off. errno of the call, or 0.
  virtual SOCKERR SetKeepalive(UI4 time, UI4 interval);
  /// The local IPv4 address, 0 when it cannot be had.
  virtual SOCKIPADDR IpAddr();
  /// The local port in host order, 0 when it cannot be had.
  virtual SOCKPORT Port();
  virtual SOCKET RawSocket() { return sock.load(std::memory_order_relaxed); }
  /// The local or the peer's address as an array, of which the caller gets a count. The first
  /// answer stands for the socket's life, also when the peer has gone.
  [[nodiscard]] virtual SI4 Info(bool local, PPAA out);
  /// The result of the system's call: 0 or -1.
  virtual SI4 Addr(bool local, PQLNSOCKADDR addr);
  /// The result of the system's call: 0 or -1.
  virtual SOCKERR SetNoDelay();
  virtual SOCKERR SetNoSignal() { return 0; }
  virtual bool isValid() { return RawSocket() != INVALID_SOCKET; }
  virtual bool isConnected();

  /// One receive into what the buffer has room for. 0 without progress means: wait again.
  /// ERR_CLOSED is the peer's orderly close.
  [[nodiscard]] virtual SOCKERR Read(PBUFFER b);
  /// One datagram. An empty one gives ERR_CLOSED.
  [[nodiscard]] virtual SI4 RecvFrom(PBUFFER b, PQLNSOCKADDR addr);
  /// One send of the buffer's next piece; a short one is no error. A buffer that fails to refill
  /// gives its own code.
  [[nodiscard]] virtual SOCKERR Write(PBUFFER b);
  [[nodiscard]] virtual SI4 SendTo(PBUFFER b, const QLNSOCKADDR* addr);
  /// One new connection, which the caller owns. 0 and null: there was none. mustRest as SfAccept.
  [[nodiscard]] virtual SOCKERR Accept(PRPCSOCK* out, bool* mustRest);
  /// Ends sending, not receiving. errno of the call, or 0.
  virtual SOCKERR Shutdown();
  [[nodiscard]] virtual SOCKERR Handshake(bool server);

  /// ERR_NEW_DATA_SOCKET when the socket is closed or cannot be watched.
  virtual SOCKERR Wait4R(PSOCKETSETS sets);
  virtual SOCKERR Wait4W(PSOCKETSETS sets);
  virtual SI4 Ready4R(PSOCKETSETS sets);
  virtual SI4 Ready4W(PSOCKETSETS sets);

  /// The certificate of one side, which the caller owns; an empty vector here.
  virtual PAA paaCert(bool local);
  virtual SI4 Subject(PCH1 buf, UI4 size);
  /// 1 when data waits in user space.
  virtual SI4 PendingRead() { return 0; }
  virtual SI4 SaveCred() { return 0; }
  /// Is the peer's certificate in the collection? Without a collection everybody is.
  virtual bool IsIn(PCertCollection certs) { return certs == nullptr; }

  SI4 lError = 0;  // of construction; constant afterwards

 protected:
  MUTEX Lock;  // sock against CloseSocket, for all threads but the work thread; paaInfo

 private:
  void Adopt(SOCKET s);
  SOCKERR SetOption(int level, int option, int value);

  std::atomic<SOCKET> sock{INVALID_SOCKET};
  PAA paaInfo[2] GUARDED_BY(Lock) = {nullptr, nullptr};  // owned counts: local end, peer
};
