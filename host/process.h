// process.h - a second process of this program, and the pipe on which it tells its first line.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace host {

/// Starts in the constructor; ended by its id in the destructor, at the latest.
///
/// Errors: std::runtime_error.
class ChildProcess {
 public:
  /// Runs this program with the arguments, and the writing end of the pipe as descriptor kPipe.
  explicit ChildProcess(const std::vector<std::string>& arguments);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  static constexpr int kPipe = 3;

  /// The first line that the child writes to its pipe.
  std::string ReadLine(int millis);
  /// Asks it to end, insists when it does not, and returns its exit code; 128 + n for a signal.
  int End();

 private:
  /// Whether the child has closed its pipe, which it does by ending.
  bool WaitForEnd(int millis) const;

  pid_t pid = -1;
  int pipe = -1;  // owned, the reading end
};

}  // namespace host
