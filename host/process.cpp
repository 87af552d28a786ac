// process.cpp - a second process of this program.
#include "host/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace host {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kEndMillis = 5'000;

/// Polls for something to read or the end of the pipe.
bool Readable(int fd, Clock::time_point until) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
    pollfd wanted{fd, POLLIN, 0};
    const int n = poll(&wanted, 1, left > 0 ? static_cast<int>(left) : 0);
    if (n >= 0 || errno != EINTR) return n > 0;
  }
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0)
    throw std::runtime_error(std::string("no pipe: ") + std::strerror(errno));

  std::vector<char*> argv{const_cast<char*>("kyrno-host")};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], kPipe);
  const int failed = posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  pipe = ends[0];
  if (failed != 0) {
    close(pipe);
    throw std::runtime_error(std::string("no second process: ") + std::strerror(failed));
  }
}

ChildProcess::~ChildProcess() {
  End();
  close(pipe);
}

std::string ChildProcess::ReadLine(int millis) {
  const auto until = Clock::now() + std::chrono::milliseconds(millis);
  std::string line;
  while (Readable(pipe, until)) {
    char c;
    if (read(pipe, &c, 1) != 1) throw std::runtime_error("the second process ended early");
    if (c == '\n') return line;
    line += c;
  }
  throw std::runtime_error("the second process did not get ready");
}

int ChildProcess::End() {
  if (pid < 0) return 0;
  kill(pid, SIGTERM);
  if (!WaitForEnd(kEndMillis)) kill(pid, SIGKILL);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
  pid = -1;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

bool ChildProcess::WaitForEnd(int millis) const {
  const auto until = Clock::now() + std::chrono::milliseconds(millis);
  char rest[256];
  while (Readable(pipe, until))
    if (read(pipe, rest, sizeof rest) <= 0) return true;
  return false;
}

}  // namespace host
