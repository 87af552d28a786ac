// program.h - other programs as the counterparts of a test.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "tests/support/rawpeer.h"

namespace support {

using Words = std::vector<std::string>;

/// How a program ended: its exit code, 128 + n for a signal, and what it had still to say.
struct Finished {
  int code;
  std::string output;
};

/// A program that runs beside the test, in a process group of its own which ends with this object.
/// Its standard error is the test's.
///
/// Errors: std::runtime_error, also when it keeps the test waiting for more than a minute.
class Program {
 public:
  /// The first word is a path, or found in the usual folders.
  explicit Program(const Words& words);
  /// Asks it to end, and insists after a while.
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  pid_t Id() const { return pid; }
  /// The next line of its output.
  std::string Line();
  /// The number behind "port ", or as openssl says it, in the first line that has one.
  int Port();
  void Write(std::string_view text);
  void EndInput() { input = Descriptor(); }
  /// Waits for it to end by itself.
  Finished Finish();
  /// The most memory that it has had resident so far, in bytes.
  std::size_t PeakMemory() const;

 private:
  /// False at the end of its output.
  bool Read();
  int Reap();

  pid_t pid = -1;
  Descriptor process;  // ready to be read when the program has ended
  Descriptor input;
  Descriptor output;
  std::string pending;
};

/// Runs a program to its end.
Finished RunToEnd(const Words& words);
/// kyrno-host with these arguments, the one beside this test.
Words Host(Words arguments);

/// Nothing listens on it, at this moment.
int FreePort();
/// Waits until something does.
void AwaitPort(int port);

/// An empty folder, removed with all that it has then.
struct TempFolder {
  TempFolder();
  TempFolder(const TempFolder&) = delete;
  ~TempFolder();
  /// Writes a file there and returns its path.
  std::string File(const std::string& name, std::string_view content) const;
  std::string path;
};

/// All bytes of a file.
std::string Content(const std::string& path);
/// n bytes that repeat at no power of 2.
std::string Pattern(std::size_t n);

}  // namespace support
