// qlnplat.h - the operating system, other than sockets: threads, semaphores, time, libraries, INI
// files, the environment, interfaces and temporary files.
//
// The Winsock names at the end let socket code read the same on every platform.
#pragma once

#include <ifaddrs.h>
#include <netinet/in.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>

#include "kyrno/base/export.h"
#include "sys/linux/qlntypes.h"

using QLNSOCKADDR = sockaddr_storage;

inline constexpr size_t INISTRSIZE = 132;  ///< the longest piece of an INI line, with its NUL

// ---- Semaphores ----

enum SEMRETURN { SemOk = 0, SemReleased = 1, SemTimeout = 2, SemError = 3 };

/// A counting semaphore of this process.
///
/// Threads: any.
/// Errors:  a failed constructor leaves ERR_NEW_SEMAPHORE in lError.
class QLNSEMA {
 public:
  /// The upper limit is ignored: the system has one of its own.
  QLNSEMA(UI4 value, UI4 max);
  ~QLNSEMA();
  QLNSEMA(const QLNSEMA&) = delete;
  QLNSEMA& operator=(const QLNSEMA&) = delete;

  /// SemReleased when a post was taken, else SemError. Signals don't end the wait: whoever guards
  /// data by a semaphore must not get past it because one arrived.
  SEMRETURN wait();

  /// Posts n times. SemOk, also for n below 1 as a signed number; SemError at the first failure.
  SEMRETURN release(UI4 n);

  std::atomic<UI4> count;  ///< posts less waits; a tally for inspection, which decides nothing
  SI4 lError = 0;          ///< constant after construction

 protected:
  sem_t sem;
};

/// A semaphore whose wait can be bounded.
class QLNSEMATO : public QLNSEMA {
 public:
  using QLNSEMA::QLNSEMA;
  using QLNSEMA::wait;

  /// SemReleased, SemTimeout, or SemError, which a signal causes too: the caller searches again.
  SEMRETURN wait(UI4 ms);
};
using PQLNSEMA = QLNSEMA*;
using PQLNSEMATO = QLNSEMATO*;

// ---- Threads ----

using PTHREADFN = UI4 (*)(PVOID);

/// A thread, started by the constructor.
///
/// Owner:   whoever makes it, and asks its function to return before the destructor waits for that.
/// Threads: Ended and lError may be read from any; Join and the destructor belong to the owner, and
///          never to the thread itself.
/// Errors:  a failed start leaves Ended 1 and lError ERR_NEW_THREAD.
///
/// SIGHANDSHAKE, SIGALRM, SIGQUIT, SIGINT, SIGHUP and SIGPIPE are blocked in it from its first
/// instruction: they stay with the interpreter's own threads.
class QLNTHREAD {
 public:
  QLNTHREAD(PTHREADFN fn, PVOID arg);
  ~QLNTHREAD();
  QLNTHREAD(const QLNTHREAD&) = delete;
  QLNTHREAD& operator=(const QLNTHREAD&) = delete;

  /// Waits until the function has returned; at once when that was waited for already, when the
  /// start had failed, and in a forked child, where the thread doesn't exist.
  void Join();

  std::atomic<SI4> lError{0};  ///< what the function returned; complete once Ended is 1
  std::atomic<UI4> Ended{0};   ///< hand-over: 1 when the function has returned

 private:
  static void* Body(void* self);

  const PTHREADFN pf;
  const PVOID pArg;
  const pid_t owner;  // the process that the thread lives in
  pthread_t thread{};
  bool started = false;  // and not yet joined
};
using PQLNTHREAD = QLNTHREAD*;

// ---- Libraries ----

using QLNFPTR = void (*)();

/// A library opened at run time, closed by the destructor.
class QLNLIB {
 public:
  /// With sameDir not 0 the file beside this library is opened, else the name as it stands, which
  /// the system searches for. error (1024 bytes) becomes empty, or tells why hLib is null.
  QLNLIB(SI4 sameDir, PCH10 name, PCH1 error);
  ~QLNLIB();
  QLNLIB(const QLNLIB&) = delete;
  QLNLIB& operator=(const QLNLIB&) = delete;

  /// The address of a function or variable; null when it is absent or nothing is open.
  QLNFPTR fptr(PCH10 name) const;

  void* hLib = nullptr;
};
using PQLNLIB = QLNLIB*;

// ---- INI files and the environment ----

/// Reads an INI file, which is opened anew at each call. Any thread.
///
///   section, key    the key's value; an empty value counts as absent
///   section, null   the names of the section's keys, each with a NUL, and one more NUL
///   null, any       the same of all sections
///
/// A section matches exactly but for case. Deliberate: a key matches when it starts with the asked
/// one, so "KeepAlive" finds "KeepAliveTime". Lines are read in pieces of INISTRSIZE - 1 bytes, and
/// each piece counts as a line.
///
/// What can't be found yields deflt. Result: the length. A value is cut to size - 1 bytes and then
/// has no closing NUL: the caller zeroes its buffer and passes one byte less. The length of a list
/// counts the names that found no room too; the list itself is always closed. With out null only
/// the length is computed.
SI4 PLATIni(PCH10 section, PCH10 key, PCH10 deflt, PCH1 out, UI4 size, PCH10 file);
/// The same of a file that stays open, read from its beginning: who asks for several keys gets all
/// of them from one file. Null is one that isn't there. The mark of an error stays in the file.
SI4 PLATIni(PCH10 section, PCH10 key, PCH10 deflt, PCH1 out, UI4 size, FILE* file);

/// The names of the keys from here to the end of the section, as PLATIni lists them.
SI4 GetKeys(FILE* file, PCH1 out, UI4 size);

/// The variable's value, or deflt, cut to size - 1 bytes and always closed. Result: its length.
SI4 PLATEnvironment(PCH10 name, PCH10 deflt, PCH1 out, UI4 size);

/// The path of a configuration file: the name itself if it holds a '/', else the file of that name
/// in ".tessor" under HOME. The caller frees it. Null without HOME or memory.
[[nodiscard]] PCH1 PrependConfigDir(PCH10 name);

inline constexpr CH1 kZephHttpDir[] = "/opt/zeph-4.2/resources/app/";

/// Where the remote development environment's pages are installed; out holds sizeof kZephHttpDir.
void ZephHttpDir(PCH1 out);

// ---- Time ----

/// Microseconds since the epoch by the wall clock. Every time-out is a difference of two of these.
extern "C" KYRNO_EXPORT F8 Micros();

/// Replaces the clock behind Micros, for tests that step through time. Null: the wall clock again.
using MICROSFN = F8 (*)();
void SetMicrosSource(MICROSFN source);

/// Sleeps once; a signal cuts it short.
void QLNSleep(F8 micros);
inline void InitTimer() {}

// ---- The rest ----

/// The text of an errno, cut to size and then without a NUL. Always 0.
int strerror_r_QLN(int err, PCH1 out, size_t size);

/// The library's banner, cut to size with its NUL. Always 0.
SI4 GetDLLVersion(PCH1 out, int size);

/// A file without a name in the current directory, gone with its descriptor; -1 on failure.
[[nodiscard]] int CreateTmpfile();

/// The IPv4 addresses of this machine's interfaces:
///
///   QLNIpv4 list;
///   for (int i = 0; i < list.count; ++i, list.Next()) { list.Extract(); ... }
///
/// Threads: one at a time.
class QLNIpv4 {
 public:
  QLNIpv4();  ///< stands on the first address; a failure leaves error and pError
  ~QLNIpv4();
  QLNIpv4(const QLNIpv4&) = delete;
  QLNIpv4& operator=(const QLNIpv4&) = delete;

  /// 0, or ERR_NO_DATA behind the last; after that it starts over.
  SI4 Next();

  /// Fills IfName, ip, IpAddr and mask from the current address; behind the last, clears them.
  void Extract();

  PCH10 pError = nullptr;     ///< null without an error
  int error = 0;              ///< errno of the failure
  int count = 0;              ///< addresses in the list
  PCH10 IfName = nullptr;     ///< lives as long as this object, as the next two do
  QLNSOCKADDR* ip = nullptr;  ///< complete: all its bytes may be copied
  PCH10 IpAddr = nullptr;     ///< in text
  int mask = 0;               ///< length of the prefix

 private:
  ifaddrs* iflist = nullptr;
  ifaddrs* ifcurr = nullptr;
  QLNSOCKADDR current{};
  CH1 addr[INET6_ADDRSTRLEN] = {};
};
using PQLNIpv4 = QLNIpv4*;

inline constexpr int SD_SEND = SHUT_WR;
inline SI4 InitSocket(PVOID* state) {
  *state = nullptr;
  return 0;
}
inline SI4 WSAGetLastError() { return errno; }
inline int closesocket(SOCKET s) { return close(s); }
