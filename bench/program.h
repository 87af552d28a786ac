// program.h - other programs as servers: the process that is started as the server becomes them.
//
// They listen on a port that this process has found, and say nothing when they are up, so their
// clients look.
#pragma once

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "bench/peer.h"
#include "bench/socket.h"

namespace bench {

/// Waits until somebody listens.
inline void AwaitListener(int port) {
  constexpr std::chrono::seconds kPatience{5};
  constexpr std::chrono::milliseconds kPause{1};
  const sockaddr_in address = Loopback(port);
  const auto until = std::chrono::steady_clock::now() + kPatience;
  for (;;) {
    const Descriptor socket = NewSocket();
    if (connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
      return;
    if (std::chrono::steady_clock::now() >= until) Checked(-1, "connect");
    std::this_thread::sleep_for(kPause);
  }
}

/// Replaces this process; returns only by throwing.
inline void Become(std::vector<std::string> command) {
  std::vector<char*> argv;
  for (std::string& word : command) argv.push_back(word.data());
  argv.push_back(nullptr);
  execvp(argv[0], argv.data());
  Checked(-1, argv[0]);
}

/// Becomes the server when it is to serve.
class ProgramServer : public Server {
 public:
  ProgramServer() {
    SetOption(holder.Get(), SOL_SOCKET, SO_REUSEADDR, "SO_REUSEADDR");
    port = BindToFreePort(holder.Get());
  }
  int Port() const override { return port; }

 private:
  // It stays open and silent, so that nobody else gets the port; who reuses addresses may.
  const Descriptor holder = NewSocket();
  int port = 0;
};

}  // namespace bench
