// session.h - a root of the library for one test, its peers, and its events as lines of text.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "host/library.h"
#include "tests/support/rawpeer.h"

namespace support {

using Lines = std::vector<std::string>;
using host::Event;
using host::Options;
using host::ZType;
using host::ZValue;

/// Bounds a wait that is expected to end by an event.
inline constexpr int kBoundMillis = 20000;

/// Sanitizers change what memory costs and how long things take.
#ifndef __has_feature
#define __has_feature(feature) 0  // only clang has it
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || \
    __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

const host::Library& Lib();
/// An exported function that the host has no method for.
void* Entry(const char* name);

/// "Receive SRV.CON00000000.a text": event, object and data, a scalar as its number. A failed wait
/// is "code 1010".
std::string Tell(const Event& event);
Lines Sorted(Lines lines);

/// Options of an object at a port of 127.0.0.1. Those given as more win.
Options AtPort(int port, const std::string& mode, const std::string& name, Options more);

/// One root with a name of its own, closed by the destructor.
class TestRoot : public host::Session {
 public:
  TestRoot();

  /// Listens on a free port.
  int Serve(const std::string& mode, const Options& more = {}, const std::string& name = "S") const;
  std::string Dial(const std::string& mode, int port, const Options& more = {},
                   const std::string& name = "C") const;

  Event Next(const std::string& name) const { return Wait(name, kBoundMillis); }
  std::string Told(const std::string& name) const { return Tell(Next(name)); }
  /// The next n events on or below an object.
  Lines Told(const std::string& name, int n) const;

  /// The code of a command, from its result or from Call itself.
  int Code(const char* command, const ZValue& right, const std::optional<ZValue>& left = {}) const;
  int State(const std::string& name) const;
  /// Names of the children of an object.
  Lines Children(const std::string& name) const;
};

/// A server "S" with one peer that the test plays.
struct Served {
  TestRoot root;
  const int port;
  RawPeer peer;
  const std::string name;  // of the connection

  explicit Served(const std::string& mode, const Options& more = {})
      : port(root.Serve(mode, more)), peer(port), name(root.Next("S").name) {}
};

/// A client "C" whose peer the test plays.
struct Dialled {
  TestRoot root;
  RawListener listener;
  RawPeer peer;

  explicit Dialled(const std::string& mode, const Options& more = {})
      : peer((root.Dial(mode, listener.Port(), more), listener.Accept())) {}
};

/// A client "C" and a server "S" in one root.
struct Paired {
  TestRoot root;
  const int port;
  const std::string name;  // of the server's connection

  explicit Paired(const std::string& mode, const Options& more = {})
      : port(root.Serve(mode, more)), name((root.Dial(mode, port, more), root.Next("S").name)) {}
};

/// A nested vector.
inline ZValue Args(std::vector<ZValue> items) { return ZValue::List(std::move(items)); }
/// The bytes of a Z block.
std::string ZBytes(const ZValue& value);

/// Asks until the answer is true, at most 20 seconds: for changes that have no event.
template <class Question>
bool Eventually(Question question) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kBoundMillis);
  for (; !question(); sched_yield())
    if (std::chrono::steady_clock::now() > end) return false;
  return true;
}

/// Runs a body in a process of its own, whose failed expectations are a failure here.
template <class Body>
void RunApart(Body body) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT((body(), std::exit(testing::Test::HasFailure())), testing::ExitedWithCode(0), "");
}

/// Lets this process have as many descriptors as it may.
void AllowDescriptors();

/// Memory of this process in bytes: in use, and reserved.
struct Memory {
  std::size_t resident;
  std::size_t reserved;
  static Memory Now();
};

/// A file with this content, removed by the destructor.
struct TempFile {
  explicit TempFile(const std::string& content);
  TempFile(const TempFile&) = delete;
  ~TempFile();
  std::string path;
};

}  // namespace support
