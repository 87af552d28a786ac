// log.cpp - the diagnostic trace.

#include "kyrno/base/log.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "kyrno/base/error.h"
#include "kyrno/base/mutex.h"
#include "sys/linux/fdhold.h"
#include "sys/linux/qlnplat.h"

namespace {

constexpr CH1 LOGFILE[] = "kyrno.log";

constinit MUTEX logNameLock;
constinit PCH1 pLogFile GUARDED_BY(logNameLock) = nullptr;  // owned; null: LOGFILE

/// Every line appends, so that the end is found and written to in one step.
int OpenLogFile() {
  CH1 name[PATH_MAX];
  {
    MUTEXHOLD hold(logNameLock);
    const PCH10 current = pLogFile ? pLogFile : LOGFILE;
    const size_t n = strlen(current);
    if (n >= sizeof name) return -1;  // longer than any path
    memcpy(name, current, n + 1);
  }
  return open(name, O_WRONLY | O_APPEND | O_CLOEXEC);
}

/// The caller of a log function tests errno afterwards, more often than not.
class ERRNOHOLD {
 public:
  ERRNOHOLD() : saved(errno) {}
  ~ERRNOHOLD() { errno = saved; }
  ERRNOHOLD(const ERRNOHOLD&) = delete;
  ERRNOHOLD& operator=(const ERRNOHOLD&) = delete;

 private:
  const int saved;
};

/// A line in the making. Out of memory it is cut, never lost.
class LINE {
 public:
  LINE() = default;
  ~LINE() {
    if (text != fixed) free(text);
  }
  LINE(const LINE&) = delete;
  LINE& operator=(const LINE&) = delete;

  void Add(PCH10 format, ...) __attribute__((format(printf, 2, 3))) {
    va_list args;
    va_start(args, format);
    AddV(format, args);
    va_end(args);
  }

  void AddV(PCH10 format, va_list args) __attribute__((format(printf, 2, 0))) {
    va_list again;
    va_copy(again, args);
    const int n = vsnprintf(text + size, capacity - size, format, args);
    if (n > 0) {
      const size_t added = static_cast<size_t>(n);
      if (added >= capacity - size && Grow(added)) {
        vsnprintf(text + size, capacity - size, format, again);
      }
      const size_t room = capacity - size - 1;
      size += added < room ? added : room;
    }
    va_end(again);
  }

  void AddTime() {
    CH1 buffer[32] = {};
    const time_t now = time(nullptr);
    if (!ctime_r(&now, buffer)) return;
    Add("%24.24s", buffer);
  }

  /// Ends the line and writes it to the descriptor.
  void Write(int fd) {
    text[size] = '\n';  // in the place of the NUL, which is always there
    [[maybe_unused]] const ssize_t written = write(fd, text, size + 1);
  }

 private:
  bool Grow(size_t added) {
    const size_t wanted = 2 * (size + added + 1);
    PCH1 const grown = static_cast<PCH1>(malloc(wanted));
    if (!grown) return false;
    memcpy(grown, text, size);
    if (text != fixed) free(text);
    text = grown;
    capacity = wanted;
    return true;
  }

  CH1 fixed[1024] = {};
  PCH1 text = fixed;
  size_t size = 0;  // always below the capacity
  size_t capacity = sizeof fixed;
};

}  // namespace

void LOGSet(UI4 setting) {
  uiGlobalLevel.store(setting & ~LOGMASK, std::memory_order_relaxed);
  ulGlobalTrace.store(setting & LOGMASK, std::memory_order_relaxed);
}

UI4 LOGGet() {
  return ulGlobalTrace.load(std::memory_order_relaxed) |
         uiGlobalLevel.load(std::memory_order_relaxed);
}

UI4 LOGOption(PCH10 text) {
  UI4 setting = 0;
  for (PCH10 at = text ? strchr(text, '/') : nullptr; at; at = strchr(at + 1, '/')) {
    const CH1 letter = at[1];
    if (letter == 'M' || letter == 'm') {
      setting += static_cast<UI4>(strtoul(at + 2, nullptr, 0)) & LOGMASK;
    } else if (letter == 'T' || letter == 't') {
      setting += static_cast<UI4>(strtoul(at + 2, nullptr, 0)) & ~LOGMASK;
    }
  }
  return setting;
}

SI4 InitLog(PCH10 name) {
  const bool named = name && *name;
  PCH1 const copy = named ? strdup(name) : nullptr;
  PCH1 former;
  {
    MUTEXHOLD hold(logNameLock);
    former = pLogFile;
    pLogFile = copy;
  }
  free(former);
  return named && !copy ? ERR_MEMORY_ALLOC : 0;
}

void LOGBeforeFork() TSA(acquire_capability(logNameLock)) { logNameLock.Lock(); }
void LOGAfterFork() TSA(release_capability(logNameLock)) { logNameLock.Unlock(); }

FILE* LOGOpen() {
  FDHOLD file(OpenLogFile());
  if (!file) return nullptr;
  FILE* const log = fdopen(file.Get(), "a");
  if (!log) return nullptr;
  (void)file.Release();              // LOGClose closes it from now on
  setvbuf(log, nullptr, _IOLBF, 0);  // a line goes out whole here as well
  return log;
}

void LOGClose(FILE* log) { fclose(log); }

void LOG2File(PCH10 format, ...) {
  const ERRNOHOLD hold;
  const FDHOLD file(OpenLogFile());
  if (!file) return;
  LINE line;
  line.AddTime();
  line.Add(" %25.0f %8u %16p: ", Micros(), static_cast<UI4>(getpid()),
           reinterpret_cast<void*>(pthread_self()));
  va_list args;
  va_start(args, format);
  line.AddV(format, args);
  va_end(args);
  line.Write(file.Get());
}

void LOGStr(PCH10 text) {
  const ERRNOHOLD hold;
  const FDHOLD file(OpenLogFile());
  if (!file) return;
  LINE line;
  line.AddTime();
  line.Add("  %s", text ? text : "");
  line.Write(file.Get());
}

void LOGStrL(PCH10 text, SI4 value) {
  const ERRNOHOLD hold;
  const FDHOLD file(OpenLogFile());
  if (!file) return;
  LINE line;
  line.AddTime();
  // Deliberate: a negative value shows as the large positive one of its 32 bits.
  line.Add("  %s %ld", text ? text : "", static_cast<long>(static_cast<UI4>(value)));
  line.Write(file.Get());
}

void LOGHex(const void* data, UI4 length) {
  const ERRNOHOLD hold;
  const FDHOLD file(OpenLogFile());
  if (!file) return;
  LINE line;
  line.AddTime();
  const SI1* const bytes = static_cast<const SI1*>(data);
  for (UI4 i = 0; bytes && i < length; ++i) {
    if (i % 32 == 0) line.Add("\n");
    // Deliberate: a byte above 0x7f shows four digits, with its sign.
    line.Add("%02hx ", static_cast<UI2>(bytes[i]));
  }
  line.Write(file.Get());
}
