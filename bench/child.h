// child.h - a process of the benchmark, and the pipes to its standard input and output.
#pragma once

#include <sys/types.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace bench {

/// Started on one processor by the constructor, ended by its id in the destructor; it ends with
/// this process in any case.
///
/// Errors: std::runtime_error.
class Child {
 public:
  Child(const std::string& program, const std::vector<std::string>& arguments, int processor);
  Child(Child&& other) noexcept;
  Child& operator=(Child&&) = delete;
  ~Child();

  pid_t Pid() const { return pid; }
  /// Writes the byte that makes a client go on.
  void Nudge() const;
  /// The next line. Throws when it does not come in time, and what it says if it is an error.
  nlohmann::json Line();

 private:
  static constexpr int kLineMillis = 8'000;

  pid_t pid = -1;
  int in = -1;       // owned, the writing end of the child's standard input
  int out = -1;      // owned, the reading end of its standard output
  std::string rest;  // bytes behind the last line
};

}  // namespace bench
