// program.cpp - other programs as the counterparts of a test.
#include "tests/support/program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <stdexcept>

#include "tests/support/session.h"

namespace support {

namespace {

constexpr int kProgramMillis = 60'000;
constexpr int kEndMillis = 5'000;
constexpr int kPipeSize = 1 << 20;  // nobody reads what a server tells of its events

bool Readable(int fd, int millis) {
  pollfd wanted{fd, POLLIN, 0};
  int n;
  while ((n = poll(&wanted, 1, millis)) < 0 && errno == EINTR) continue;
  return n > 0;
}

[[noreturn]] void Fail(const std::string& what, int error) {
  throw std::runtime_error(what + ": " + std::strerror(error));
}

}  // namespace

Program::Program(const Words& words) {
  int in[2], out[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, in) != 0) Fail("no socket pair", errno);
  input = Descriptor(in[0]);
  const Descriptor childInput(in[1]);
  if (pipe2(out, O_CLOEXEC) != 0) Fail("no pipe", errno);
  output = Descriptor(out[0]);
  const Descriptor childOutput(out[1]);
  fcntl(out[1], F_SETPIPE_SZ, kPipeSize);

  // A test that is ended or crashes takes it along.
  Words command{"setpriv", "--pdeathsig", "TERM", "--"};
  command.insert(command.end(), words.begin(), words.end());
  std::vector<char*> argv;
  for (std::string& word : command) argv.push_back(word.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[1], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  const int failed = posix_spawnp(&pid, argv[0], &actions, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) {
    pid = -1;
    Fail("cannot run " + words[0], failed);
  }
  process = Descriptor(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

Program::~Program() {
  if (pid < 0) return;
  const pid_t group = -pid;
  kill(group, SIGTERM);
  if (!Readable(process.Get(), kEndMillis)) kill(group, SIGKILL);
  Reap();
}

bool Program::Read() {
  if (!Readable(output.Get(), kProgramMillis)) throw std::runtime_error("a program says nothing");
  char some[16384];
  const ssize_t n = read(output.Get(), some, sizeof some);
  if (n > 0) pending.append(some, static_cast<std::size_t>(n));
  return n > 0;
}

std::string Program::Line() {
  std::size_t end;
  while ((end = pending.find('\n')) == std::string::npos)
    if (!Read()) throw std::runtime_error("a program ended early, after: " + pending);
  const std::string line = pending.substr(0, end);
  pending.erase(0, end + 1);
  return line;
}

int Program::Port() {
  for (std::smatch found;;) {
    const std::string line = Line();
    if (std::regex_search(line, found, std::regex("(?:port |ACCEPT .*:)(\\d+)")))
      return std::stoi(found[1]);
  }
}

void Program::Write(std::string_view text) {
  while (!text.empty()) {
    const ssize_t n = send(input.Get(), text.data(), text.size(), MSG_NOSIGNAL);
    if (n < 0) Fail("a program does not read", errno);
    text.remove_prefix(static_cast<std::size_t>(n));
  }
}

Finished Program::Finish() {
  while (Read()) continue;
  if (!Readable(process.Get(), kProgramMillis)) throw std::runtime_error("a program does not end");
  return {Reap(), std::exchange(pending, "")};
}

int Program::Reap() {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
  pid = -1;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::size_t Program::PeakMemory() const {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::size_t kilobytes = 0;
  for (std::string word; status >> word;)
    if (word == "VmHWM:") status >> kilobytes;
  if (kilobytes == 0) throw std::runtime_error("no peak memory to read");
  return kilobytes * 1024;
}

Finished RunToEnd(const Words& words) { return Program(words).Finish(); }

Words Host(Words arguments) {
  const auto self = std::filesystem::read_symlink("/proc/self/exe");
  arguments.insert(arguments.begin(), self.parent_path() / "kyrno-host");
  return arguments;
}

int FreePort() { return RawListener().Port(); }

void AwaitPort(int port) {
  const bool listening = Eventually([port] {
    try {
      RawPeer peer(port);
      return true;
    } catch (const std::runtime_error&) {
      return false;
    }
  });
  if (!listening) throw std::runtime_error("nothing listens on port " + std::to_string(port));
}

TempFolder::TempFolder() : path("/tmp/kyrno_test_XXXXXX") {
  if (!mkdtemp(path.data())) Fail("cannot make a folder", errno);
}

TempFolder::~TempFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

std::string TempFolder::File(const std::string& name, std::string_view content) const {
  const std::string file = path + "/" + name;
  std::ofstream(file, std::ios::binary) << content;
  return file;
}

std::string Content(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path);
  std::string content(std::filesystem::file_size(path), '\0');
  file.read(content.data(), static_cast<std::streamsize>(content.size()));
  return content;
}

std::string Pattern(std::size_t n) {
  std::string bytes(n, '\0');
  for (std::size_t i = 0; i < n; ++i) bytes[i] = static_cast<char>(i % 251);
  return bytes;
}

}  // namespace support
