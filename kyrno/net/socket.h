// socket.h - one non-blocking socket, and the wait for all of them.
//
// A turn of the work thread: SfWait once, ask each socket that it brought what is ready (Ready4R,
// Ready4W), then let its object say what it wants from now on: Want nothing, Wait4R, Wait4W,
// Settle. What is wanted stays until it is said anew, and the kernel is told of changes alone.
//
// A forked process shares the kernel's set with its parent. It never touches the set: sockets that
// it closes only close their descriptors.
#pragma once

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>

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

class RPCSOCK;
using PRPCSOCK = RPCSOCK*;

/// The wait of one root: what its sockets want, and what the last wait has brought.
///
/// Owner:   the root. Outlives the sockets that are watched by it.
/// Threads: the work thread's role; SfWait the work thread itself, outside the role. The wait that
///          is going on sees what changes in the set meanwhile. cntBuffered and deadline are the
///          work thread's alone, as SfWait reads them: another holder of the role wakes it up.
/// Errors:  Open: errno.
class SOCKETSETS {
 public:
  static constexpr SI4 kEvents = 256;  // at most, of one wait; the next one brings the others

  SOCKETSETS() = default;
  ~SOCKETSETS();
  SOCKETSETS(const SOCKETSETS&) = delete;
  SOCKETSETS& operator=(const SOCKETSETS&) = delete;

  /// Once.
  [[nodiscard]] SOCKERR Open();
  /// After a fork, in the child: closes its copy.
  void CloseAfterFork();
  /// False in a forked process, which must leave the set alone.
  bool IsOwnProcess() const;

  /// What the last SfWait has brought, from 0 to less than *count. Noted in the socket, and the
  /// owner that Watch has told is the result; null for a socket that has left the set since, and
  /// behind the last one. Before anything is freed: a socket that has gone can't be told from one
  /// that is there.
  PVOID Brought(SI4 i);

  SI4 cntBuffered = 0;  ///< sockets with readable data in user space, which the wait cannot see
  F8 deadline = 0;      ///< Micros of the earliest thing that must happen by itself; 0 for none

  /// The wait ends at this time at the latest; the smallest asked for counts.
  void WakeAt(F8 micros) {
    if (deadline == 0 || micros < deadline) deadline = micros;
  }

 private:
  friend class RPCSOCK;
  friend SOCKERR SfWait(SOCKETSETS* sets, UI4 seconds, PSI4 count);

  int epoll = -1;   // owned
  UI4 mark = 0;     // of the process that has opened it
  SI4 brought = 0;  // by the last wait: so many of the events
  epoll_event events[kEvents] = {};
};
using PSOCKETSETS = SOCKETSETS*;

/// Starts a turn: nothing buffered, no deadline. What the sockets want stays.
void Clear(PSOCKETSETS sets);

/// The one wait: until something is ready, the deadline has come or the seconds are over; it only
/// polls when something is buffered. *count is the number of sockets that it has brought, which
/// Brought tells one by one, plus cntBuffered; -1 after a signal, which is no error, and -1 after a
/// failure, whose errno is the result. Those two have brought nothing.
[[nodiscard]] SOCKERR SfWait(PSOCKETSETS sets, UI4 seconds, PSI4 count);

/// Takes one connection, not blocking and without delay. 0 with INVALID_SOCKET means that there is
/// none to take. ERR_ACCEPT sets *mustRest when the process or the system is out of descriptors or
/// memory: the connection then stays ready, and the listener should rest or it spins.
[[nodiscard]] SOCKERR SfAccept(SOCKET listener, SOCKET* out, bool* mustRest);

/// Records a failing system call in the log, whatever the trace level.
void SockErrLog(int error, PCH10 function);

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
  /// Adopts an open descriptor. A negative one leaves ERR_NEW_DATA_SOCKET.
  explicit RPCSOCK(SOCKET adopted);
  /// Connects, and blocks for it, or listens, or makes a datagram socket. type is SOCK_STREAM or
  /// SOCK_DGRAM. giveUp is a descriptor, the caller's: once it is readable a connect that goes on
  /// ends with ECANCELED, without a try of further addresses; -1 for none. The resolver is not
  /// interrupted.
  RPCSOCK(PCH10 name, PCH10 service, bool server, PROTOCOL prot, int type, int giveUp = -1);
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
  [[nodiscard]] SOCKERR Read(PBUFFER b);
  /// One receive into several pieces, filled one after the other; otherwise as Read. *got is what
  /// came: 0 when there was nothing yet, and less than asked for when there is no more just now.
  [[nodiscard]] virtual SOCKERR ReadV(const iovec* pieces, int count, size_t* got);
  /// One send of several pieces, as if they were one. *sent may be less than there is, and 0 when
  /// the socket takes nothing now. ERR_SEND.
  [[nodiscard]] virtual SOCKERR WriteV(const iovec* pieces, int count, size_t* sent);
  /// One datagram; what does not fit into the buffer is cut off. 0 without progress: there is none.
  /// Deliberate: an empty one gives ERR_CLOSED. ERR_RECV.
  [[nodiscard]] virtual SI4 RecvFrom(PBUFFER b, PQLNSOCKADDR addr);
  /// One send of the buffer's next piece; a short one is no error. A buffer that fails to refill
  /// gives its own code.
  [[nodiscard]] SOCKERR Write(PBUFFER b);
  /// One datagram, the buffer's next piece. *sent stays false when the socket takes nothing now,
  /// and after a failure: ERR_LENGTH when it is too long for a datagram or a piece, ERR_SEND when
  /// it can't go to this address. A buffer that fails to refill gives its own code.
  [[nodiscard]] virtual SI4 SendTo(PBUFFER b, const QLNSOCKADDR* addr, bool* sent);
  /// One new connection, which the caller owns. 0 and null: there was none. mustRest as SfAccept.
  [[nodiscard]] virtual SOCKERR Accept(PRPCSOCK* out, bool* mustRest);
  /// Ends sending, not receiving. errno of the call, or 0.
  virtual SOCKERR Shutdown();
  /// Goes on with what has to come before any data. 0: it is through, at once for a plain socket;
  /// ERR_HANDSHAKE_NOT_COMPLETED: again when the socket is ready; any other code: it has failed.
  [[nodiscard]] virtual SOCKERR Handshake(bool verify);
  /// Sends what the socket has taken and holds back itself, as far as the kernel takes it; a plain
  /// one holds nothing. ERR_SEND.
  [[nodiscard]] virtual SOCKERR Flush() { return 0; }
  /// What the socket itself has to be watched for, beside what its owner wants: EPOLLOUT while it
  /// holds something back.
  virtual UI4 OwnWants() const { return 0; }

  /// Says whose socket this is: Brought answers that. Before the first Settle, and again when
  /// another takes it over.
  void Watch(PVOID owner) { pOwner = owner; }
  /// Begins to say anew what is wanted.
  void Want() { wanted = 0; }
  /// ERR_NEW_DATA_SOCKET when the socket is closed.
  virtual SOCKERR Wait4R(PSOCKETSETS sets);
  virtual SOCKERR Wait4W(PSOCKETSETS sets);
  /// Makes the kernel watch for what was wanted since Want: a system call if that is a change, and
  /// none in a forked process. A socket that wants nothing is out of the set, so that a peer's end
  /// does not wake the root again and again. Forgets what the last wait has brought.
  /// ERR_NEW_DATA_SOCKET when the kernel cannot watch it: what it watched for before stays.
  /// What the socket itself wants comes on top.
  [[nodiscard]] SOCKERR Settle(PSOCKETSETS sets);
  /// What the last wait has brought for this socket, of what it is watched for. Data in user space
  /// counts as readable, an error and the end of both directions as ready for everything.
  virtual SI4 Ready4R(PSOCKETSETS sets);
  virtual SI4 Ready4W(PSOCKETSETS sets);
  /// What the kernel watches for: EPOLLIN, EPOLLOUT.
  UI4 Watched() const { return watched; }

  /// The certificates of one side, of which the caller gets a count; an empty vector here.
  virtual PAA paaCert(bool local);
  /// The peer's name as text; empty here. ERR_LENGTH without room.
  virtual SI4 Subject(PCH1 buf, UI4 size);
  /// 1 when data may wait in user space.
  virtual SI4 PendingRead() { return 0; }
  /// A listener that is about to go leaves what it would take time to load for the next one.
  virtual SI4 SaveCred() { return 0; }
  /// Is the peer's certificate in the collection? Without a collection everybody is.
  virtual bool IsIn(PCertCollection certs) { return certs == nullptr; }

  SI4 lError = 0;  // of construction; constant afterwards

 protected:
  MUTEX Lock;  // sock against CloseSocket, for all threads but the work thread; paaInfo

 private:
  friend class SOCKETSETS;

  void Adopt(SOCKET s);
  SOCKERR SetOption(int level, int option, int value);
  SOCKERR Change(UI4 events);

  std::atomic<SOCKET> sock{INVALID_SOCKET};
  // The work thread's role, or whoever owns the socket alone.
  PVOID pOwner = nullptr;           // borrowed
  PSOCKETSETS pWatching = nullptr;  // borrowed; where it is watched, the same for life
  UI4 wanted = 0;                   // EPOLLIN, EPOLLOUT
  UI4 watched = 0;                  // the same, as the kernel knows it; 0 when it is not in the set
  UI4 ready = 0;                    // the same, of what the last wait has brought
  PAA paaInfo[2] GUARDED_BY(Lock) = {nullptr, nullptr};  // owned counts: local end, peer
};
