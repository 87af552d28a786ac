// child.cpp - a process of the benchmark.
#include "bench/child.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace bench {

namespace {

/// The part that runs between fork and exec; nothing here allocates.
[[noreturn]] void Become(char* const* argv, int in, int out, int processor) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<unsigned>(processor), &set);
  if (sched_setaffinity(0, sizeof set, &set) == 0 && dup2(in, STDIN_FILENO) >= 0 &&
      dup2(out, STDOUT_FILENO) >= 0)
    execv(argv[0], argv);
  _exit(127);
}

}  // namespace

Child::Child(const std::string& program, const std::vector<std::string>& arguments, int processor) {
  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  int input[2];
  int output[2];
  if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0)
    throw std::runtime_error(std::string("no pipe: ") + std::strerror(errno));
  pid = fork();
  if (pid == 0) Become(argv.data(), input[0], output[1], processor);
  close(input[0]);
  close(output[1]);
  in = input[1];
  out = output[0];
  if (pid < 0) throw std::runtime_error(std::string("no process: ") + std::strerror(errno));
}

Child::Child(Child&& other) noexcept
    : pid(std::exchange(other.pid, -1)),
      in(std::exchange(other.in, -1)),
      out(std::exchange(other.out, -1)),
      rest(std::move(other.rest)) {}

Child::~Child() {
  if (pid < 0) return;
  close(in);
  close(out);
  kill(pid, SIGKILL);
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) continue;
}

void Child::Nudge() const {
  // A child that has ended shows in the line that does not come.
  [[maybe_unused]] const ssize_t n = write(in, "\n", 1);
}

nlohmann::json Child::Line() {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point until = Clock::now() + std::chrono::milliseconds(kLineMillis);
  std::size_t end;
  while ((end = rest.find('\n')) == std::string::npos) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
    pollfd wanted{out, POLLIN, 0};
    if (left <= 0 || poll(&wanted, 1, static_cast<int>(left)) == 0)
      throw std::runtime_error("nothing came within " + std::to_string(kLineMillis / 1000) + " s");
    char bytes[4096];
    const ssize_t n = read(out, bytes, sizeof bytes);
    if (n <= 0) throw std::runtime_error("the process ended without a word");
    rest.append(bytes, static_cast<std::size_t>(n));
  }
  const auto line = nlohmann::json::parse(rest.substr(0, end), nullptr, false);
  rest.erase(0, end + 1);
  if (!line.is_object()) throw std::runtime_error("the process wrote something unexpected");
  if (const auto error = line.find("error"); error != line.end())
    throw std::runtime_error(error->get<std::string>());
  return line;
}

}  // namespace bench
