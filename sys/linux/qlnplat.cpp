// qlnplat.cpp - the operating system, other than sockets.

#include "sys/linux/qlnplat.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/time.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "sys/linux/fdhold.h"

static constexpr UI4 MODULE = 0x00000010;

namespace {

#if defined(__has_feature)
#define KYRNO_HAS_FEATURE(x) __has_feature(x)
#else
#define KYRNO_HAS_FEATURE(x) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || \
    KYRNO_HAS_FEATURE(address_sanitizer) || KYRNO_HAS_FEATURE(thread_sanitizer)
constexpr size_t kStackBytes = 512 * 1024;
#else
constexpr size_t kStackBytes = 256 * 1024;
#endif

constexpr int SIGHANDSHAKE = 30;
constexpr size_t kErrorBytes = 1024;
constexpr size_t kPathBytes = PATH_MAX;

// Where Micros gets its time from; null: the system.
constinit std::atomic<MICROSFN> clockSource{nullptr};

sigset_t InterpretersSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int sig : {SIGHANDSHAKE, SIGALRM, SIGQUIT, SIGINT, SIGHUP, SIGPIPE}) {
    sigaddset(&set, sig);
  }
  return set;
}

struct FILECLOSE {
  void operator()(FILE* file) const { fclose(file); }
};
using FILEHOLD = std::unique_ptr<FILE, FILECLOSE>;

PCH10 Shown(PCH10 text) { return text ? text : "NULL"; }

/// Copies a value with its NUL, or as much as there is room for, then without one.
SI4 CopyValue(PCH10 value, size_t n, PCH1 out, UI4 size) {
  if (!out) return static_cast<SI4>(n);
  if (!size) return 0;
  if (size > n) {
    memcpy(out, value, n);
    out[n] = 0;
    return static_cast<SI4>(n);
  }
  memcpy(out, value, size);
  return static_cast<SI4>(size - 1);
}

SI4 CopyDefault(PCH10 deflt, PCH1 out, UI4 size) {
  const PCH10 value = deflt ? deflt : "";
  return CopyValue(value, strlen(value), out, size);
}

/// A list of names, each with a NUL, and one more NUL behind the last.
///
/// Once a name finds no room the running length is beyond the buffer, so no later name fits either:
/// the names in the buffer are always the first ones, without a gap.
class NAMELIST {
 public:
  NAMELIST(PCH1 buffer, UI4 bytes) : out(buffer), size(buffer ? bytes : 0) {}

  void Add(PCH10 name, size_t n) {
    if (length + n + 2 < size) {
      memcpy(out + length, name, n);
      out[length + n] = 0;
      used = length + n + 1;
    }
    length += n + 1;
  }

  SI4 Close() {
    if (used < size) out[used] = 0;
    return static_cast<SI4>(length);
  }

 private:
  const PCH1 out;
  const size_t size;
  size_t length = 0;  // of all names
  size_t used = 0;    // of those in the buffer
};

bool ReadLine(FILE* file, CH1 (&line)[INISTRSIZE]) { return fgets(line, INISTRSIZE, file); }

bool FindSection(FILE* file, PCH10 section) {
  const size_t n = strlen(section);
  CH1 line[INISTRSIZE];
  while (ReadLine(file, line)) {
    if (line[0] == '[' && strncasecmp(line + 1, section, n) == 0 && line[1 + n] == ']') return true;
  }
  return false;
}

struct KEYLINE {
  PCH10 key;
  size_t keyLen;
  PCH10 value;
  size_t valueLen;
};

/// Parts a line with a '='. The key is the first run of other characters than blanks and '=', and
/// may thus stand behind the '=' when nothing stands before it.
bool ParseKeyLine(PCH10 line, KEYLINE* parts) {
  const PCH10 equals = strchr(line, '=');
  if (!equals) return false;

  parts->key = line + strspn(line, " =\t");
  parts->keyLen = strcspn(parts->key, " =\t");
  parts->value = equals + 1 + strspn(equals + 1, "\r\n");
  parts->valueLen = strcspn(parts->value, "\r\n");
  return parts->keyLen > 0;
}

SI4 ListSections(FILE* file, PCH1 out, UI4 size) {
  NAMELIST names(out, size);
  CH1 line[INISTRSIZE];
  while (ReadLine(file, line)) {
    if (line[0] != '[') continue;
    if (const PCH10 end = strchr(line, ']')) {
      names.Add(line + 1, static_cast<size_t>(end - line - 1));
    }
  }
  return names.Close();
}

SI4 ReadIni(PCH10 section, PCH10 key, PCH10 deflt, PCH1 out, UI4 size, FILE* ini) {
  // rewind() would forget an error.
  if (!ini || fseek(ini, 0, SEEK_SET) != 0) return CopyDefault(deflt, out, size);
  if (!section) return ListSections(ini, out, size);
  if (!FindSection(ini, section)) {
    LOG(2, ("Can't find section %s", section));
    return CopyDefault(deflt, out, size);
  }
  if (!key) return GetKeys(ini, out, size);

  const size_t n = strlen(key);
  CH1 line[INISTRSIZE];
  while (ReadLine(ini, line) && line[0] != '[') {
    KEYLINE parts;
    if (!ParseKeyLine(line, &parts) || parts.key[0] == ';') continue;
    if (parts.keyLen < n || strncasecmp(parts.key, key, n) != 0) continue;
    if (!parts.valueLen) return CopyDefault(deflt, out, size);
    return CopyValue(parts.value, parts.valueLen, out, size);
  }
  LOG(2, ("Can't find key %s", key));
  return CopyDefault(deflt, out, size);
}

}  // namespace

// ---- Semaphores ----

QLNSEMA::QLNSEMA(UI4 value, UI4) : count(value) {
  if (sem_init(&sem, 0, value) != 0) lError = ERR_NEW_SEMAPHORE;
}

QLNSEMA::~QLNSEMA() {
  if (!lError) sem_destroy(&sem);
}

SEMRETURN QLNSEMA::wait() {
  if (lError) return SemError;
  int failed;
  do {
    failed = sem_wait(&sem);
  } while (failed && errno == EINTR);
  if (failed) return SemError;
  count.fetch_sub(1, std::memory_order_relaxed);
  return SemReleased;
}

SEMRETURN QLNSEMA::release(UI4 n) {
  if (static_cast<SI4>(n) < 1) return SemOk;
  if (lError) return SemError;
  for (; n; --n) {
    if (sem_post(&sem) != 0) return SemError;
    count.fetch_add(1, std::memory_order_relaxed);
  }
  return SemOk;
}

SEMRETURN QLNSEMATO::wait(UI4 ms) {
  if (lError) return SemError;
  // A look, not a wait: the timed wait would put the thread to sleep even for no time at all.
  const bool taken = sem_trywait(&sem) == 0;
  if (taken) count.fetch_sub(1, std::memory_order_relaxed);
  if (taken || ms == 0) return taken ? SemReleased : SemTimeout;
  timespec until;
  clock_gettime(CLOCK_REALTIME, &until);
  until.tv_sec += ms / 1000;
  until.tv_nsec += (ms % 1000) * 1000000L;
  if (until.tv_nsec >= 1000000000L) {
    until.tv_nsec -= 1000000000L;
    ++until.tv_sec;
  }
  if (sem_timedwait(&sem, &until) != 0) return errno == ETIMEDOUT ? SemTimeout : SemError;
  count.fetch_sub(1, std::memory_order_relaxed);
  return SemReleased;
}

// ---- Threads ----

QLNTHREAD::QLNTHREAD(PTHREADFN fn, PVOID arg) : pf(fn), pArg(arg), owner(getpid()) {
  pthread_attr_t attr;
  if (pthread_attr_init(&attr) == 0) {
    pthread_attr_setstacksize(&attr, kStackBytes);

    // A thread inherits its maker's mask. Blocking them in the thread itself would leave a moment
    // in which it could take a signal that was meant for the interpreter.
    const sigset_t blocked = InterpretersSignals();
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    started = pthread_create(&thread, &attr, Body, this) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attr);
  }
  if (started) return;
  lError.store(ERR_NEW_THREAD, std::memory_order_relaxed);
  Ended.store(1, std::memory_order_release);
}

QLNTHREAD::~QLNTHREAD() { Join(); }

void QLNTHREAD::Join() {
  if (!started || getpid() != owner) return;
  started = false;
  pthread_join(thread, nullptr);
}

void* QLNTHREAD::Body(void* self) {
  QLNTHREAD* const t = static_cast<QLNTHREAD*>(self);
  const UI4 result = t->pf(t->pArg);
  t->lError.store(static_cast<SI4>(result), std::memory_order_relaxed);
  t->Ended.store(1, std::memory_order_release);
  return nullptr;
}

// ---- Libraries ----

QLNLIB::QLNLIB(SI4 sameDir, PCH10 name, PCH1 error) {
  CH1 path[kPathBytes] = {};
  if (sameDir) {
    LOG(1, ("Loading %s ", name));
    Dl_info self{};
    const int found = dladdr(&clockSource, &self);  // any address inside this library
    LOG(3, ("ret %d ", found));
    LOG(3, ("%p %p  ", self.dli_fbase, self.dli_saddr));
    if (found && self.dli_fname) snprintf(path, sizeof path, "%s", self.dli_fname);
    LOG(2, ("Path=%s", path));
    PCH1 const slash = strrchr(path, '/');
    path[slash ? slash - path + 1 : 0] = 0;
  }

  const size_t dir = strlen(path);
  if (strlen(name) >= sizeof path - dir) {
    snprintf(error, kErrorBytes, "The path is too long");
    return;
  }
  memcpy(path + dir, name, strlen(name) + 1);
  LOG(1, ("Trying to load %s", path));
  hLib = dlopen(path, RTLD_LAZY);
  const PCH10 why = hLib ? nullptr : dlerror();
  snprintf(error, kErrorBytes, "%s", why ? why : "");
}

QLNLIB::~QLNLIB() {
  if (hLib) dlclose(hLib);
}

QLNFPTR QLNLIB::fptr(PCH10 name) const {
  // For dlsym a null handle means the whole process.
  return hLib ? reinterpret_cast<QLNFPTR>(dlsym(hLib, name)) : nullptr;
}

// ---- INI files and the environment ----

SI4 PLATIni(PCH10 section, PCH10 key, PCH10 deflt, PCH1 out, UI4 size, PCH10 file) {
  LOG(1, ("PLATIni %s %s %s %lu %s", Shown(section), Shown(key), Shown(deflt),
          static_cast<unsigned long>(size), Shown(file)));
  const FILEHOLD ini(file ? fopen(file, "re") : nullptr);
  if (!ini) LOG(2, ("Can't open file %s", Shown(file)));
  return PLATIni(section, key, deflt, out, size, ini.get());
}

SI4 PLATIni(PCH10 section, PCH10 key, PCH10 deflt, PCH1 out, UI4 size, FILE* file) {
  const SI4 length = ReadIni(section, key, deflt, out, size, file);
  LOG(1, ("PLATIni returns %ld %.*s", static_cast<long>(length),
          out && size ? static_cast<int>(size - 1) : 0, out ? out : ""));
  return length;
}

SI4 GetKeys(FILE* file, PCH1 out, UI4 size) {
  NAMELIST names(out, size);
  CH1 line[INISTRSIZE];
  while (ReadLine(file, line) && line[0] != '[') {
    KEYLINE parts;
    // Deliberate: only a ';' in the first column hides a key here.
    if (line[0] != ';' && ParseKeyLine(line, &parts)) names.Add(parts.key, parts.keyLen);
  }
  return names.Close();
}

SI4 PLATEnvironment(PCH10 name, PCH10 deflt, PCH1 out, UI4 size) {
  LOG(1, ("PLATEnvironment %s %s %lu", name, Shown(deflt), static_cast<unsigned long>(size)));
  if (!size) return 0;
  PCH10 value = getenv(name);
  if (!value) value = deflt ? deflt : "";
  const size_t n = strnlen(value, size - 1);
  memcpy(out, value, n);
  out[n] = 0;
  LOG(2, ("PLATEnvironment return %ld %s", static_cast<long>(n), out));
  return static_cast<SI4>(n);
}

PCH1 PrependConfigDir(PCH10 name) {
  if (strchr(name, '/')) return strdup(name);
  const PCH10 home = getenv("HOME");
  if (!home) return nullptr;
  constexpr CH1 kDir[] = "/.tessor/";
  const size_t size = strlen(home) + sizeof kDir + strlen(name);
  PCH1 const path = static_cast<PCH1>(malloc(size));
  if (path) snprintf(path, size, "%s%s%s", home, kDir, name);
  return path;
}

void ZephHttpDir(PCH1 out) { memcpy(out, kZephHttpDir, sizeof kZephHttpDir); }

// ---- Time ----

F8 Micros() {
  if (const MICROSFN source = clockSource.load(std::memory_order_acquire)) return source();
  timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<F8>(now.tv_sec) * 1e6 + static_cast<F8>(now.tv_usec);
}

void SetMicrosSource(MICROSFN source) { clockSource.store(source, std::memory_order_release); }

void QLNSleep(F8 micros) {
  constexpr F8 kMaxMicros = 1e15;  // thirty years; keeps the cast below in range
  if (!(micros > 0)) return;
  const UI8 span = static_cast<UI8>(micros < kMaxMicros ? micros : kMaxMicros);
  timespec pause;
  pause.tv_sec = static_cast<time_t>(span / 1000000);
  pause.tv_nsec = static_cast<long>(span % 1000000) * 1000;
  nanosleep(&pause, nullptr);
}

// ---- The rest ----

int strerror_r_QLN(int err, PCH1 out, size_t size) {
  const PCH10 text = strerror_r(err, out, size);
  if (text != out) strncpy(out, text, size);
  return 0;
}

SI4 GetDLLVersion(PCH1 out, int size) {
  constexpr CH1 kBanner[] = "Kyrno version 3.2.1503.0, TCP, TLS & UDP for APL, x86-64 ";
  if (size > 0) snprintf(out, static_cast<size_t>(size), "%s", kBanner);
  return 0;
}

int CreateTmpfile() {
  CH1 name[] = "kyrno.tmpXXXXXX";
  FDHOLD file(mkostemp(name, O_CLOEXEC));
  if (file) unlink(name);
  return file.Release();
}

QLNIpv4::QLNIpv4() {
  if (getifaddrs(&iflist) != 0) {
    error = errno;
    pError = "Error on getting available IP!\n";
    iflist = nullptr;
    return;
  }
  for (const ifaddrs* i = iflist; i; i = i->ifa_next) {
    if (i->ifa_addr && i->ifa_addr->sa_family == AF_INET) ++count;
  }
  Next();
}

QLNIpv4::~QLNIpv4() {
  if (iflist) freeifaddrs(iflist);
}

SI4 QLNIpv4::Next() {
  ifcurr = ifcurr ? ifcurr->ifa_next : iflist;
  while (ifcurr && !(ifcurr->ifa_addr && ifcurr->ifa_addr->sa_family == AF_INET)) {
    ifcurr = ifcurr->ifa_next;
  }
  return ifcurr ? 0 : ERR_NO_DATA;
}

void QLNIpv4::Extract() {
  IfName = IpAddr = nullptr;
  ip = nullptr;
  mask = 0;
  if (!ifcurr) return;

  // The system's entry is shorter than the structure that callers copy.
  sockaddr_in in;
  memcpy(&in, ifcurr->ifa_addr, sizeof in);
  current = {};
  memcpy(&current, &in, sizeof in);
  IfName = ifcurr->ifa_name;
  ip = &current;
  IpAddr = inet_ntop(AF_INET, &in.sin_addr, addr, sizeof addr);
  if (!ifcurr->ifa_netmask) return;
  memcpy(&in, ifcurr->ifa_netmask, sizeof in);
  for (UI4 bits = ntohl(in.sin_addr.s_addr); bits; bits <<= 1) ++mask;
}
