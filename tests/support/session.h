// session.h - a root of the library for one test, and its events as lines of text.
#pragma once

#include <sched.h>

#include <chrono>
#include <string>
#include <vector>

#include "host/library.h"

namespace support {

/// Bounds a wait that is expected to end by an event.
inline constexpr int kBoundMillis = 20000;

const host::Library& Lib();
/// An exported function that the host has no method for.
void* Entry(const char* name);

/// "Receive SRV.CON00000000.a text": event, object and data, a scalar as its number. A failed wait
/// is "code 1010".
std::string Tell(const host::Event& event);

/// One root with a name of its own, closed by the destructor.
class TestRoot : public host::Session {
 public:
  TestRoot();

  /// Listens on a free port of 127.0.0.1. "S" in the names below.
  int Serve(const std::string& mode, const host::Options& more = {},
            const std::string& name = "S") const;
  /// Connects to a port of 127.0.0.1.
  std::string Dial(const std::string& mode, int port, const host::Options& more = {},
                   const std::string& name = "C") const;

  host::Event Next(const std::string& name) const { return Wait(name, kBoundMillis); }
  std::string Told(const std::string& name) const { return Tell(Next(name)); }
  /// The next n events on or below an object.
  std::vector<std::string> Told(const std::string& name, int n) const;
  /// All events up to the one of the object itself.
  std::vector<std::string> ToldUntilEnd(const std::string& name) const;

  /// The code of a command, from its result or from Call itself.
  int Code(const char* command, const host::ZValue& right) const;
  int Code(const char* command, const host::ZValue& right, const host::ZValue& left) const;
  int State(const std::string& name) const;
  /// Names of the children of an object.
  std::vector<std::string> Children(const std::string& name) const;
};

using List = std::vector<host::ZValue>;
/// A nested vector.
inline host::ZValue Args(List items) { return host::ZValue::List(std::move(items)); }
/// The bytes of a Z block.
std::string ZBytes(const host::ZValue& value);

/// Asks until the answer is true, at most 20 seconds: for changes that have no event.
template <class Question>
bool Eventually(Question question) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kBoundMillis);
  for (; !question(); sched_yield())
    if (std::chrono::steady_clock::now() > end) return false;
  return true;
}

/// Memory of this process in bytes: in use, and reserved.
struct Memory {
  std::size_t resident;
  std::size_t reserved;
  static Memory Now();
};

/// A file with this content, removed by the destructor.
class TempFile {
 public:
  explicit TempFile(const std::string& content);
  ~TempFile();
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  const std::string& Path() const { return path; }

 private:
  std::string path;
};

}  // namespace support
