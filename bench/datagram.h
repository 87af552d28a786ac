// datagram.h - bare UDP sockets, one thread and one system call for each datagram: what the machine
// gives without any library.
#pragma once

#include "bench/peer.h"
#include "bench/socket.h"

namespace bench {

/// Returns each datagram to its sender.
class DatagramServer : public Server {
 public:
  int Port() const override { return port; }

  void Serve() override {
    std::array<char, kCommandBytes> bytes;
    for (;;) {
      sockaddr_in from{};
      socklen_t size = sizeof from;
      auto* const address = reinterpret_cast<sockaddr*>(&from);
      const auto n = static_cast<std::size_t>(
          Checked(recvfrom(socket.Get(), bytes.data(), bytes.size(), 0, address, &size), "recv"));
      Checked(sendto(socket.Get(), bytes.data(), n, 0, address, size), "send");
    }
  }

 private:
  const Descriptor socket = NewSocket(SOCK_DGRAM);
  const int port = BindToFreePort(socket.Get());
};

class DatagramClient : public Client {
 public:
  explicit DatagramClient(int port) {
    const sockaddr_in address = Loopback(port);
    Checked(connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
            "connect");
  }

  void Send(unsigned n) override {
    for (unsigned i = 0; i < n; ++i)
      Checked(send(socket.Get(), bytes.data(), bytes.size(), 0), "send");
  }

  unsigned Receive() override {
    const auto n = Checked(recv(socket.Get(), bytes.data(), bytes.size(), 0), "recv");
    if (n != static_cast<ssize_t>(bytes.size()))
      throw std::runtime_error("a datagram of another size");
    return 1;
  }

 private:
  const Descriptor socket = NewSocket(SOCK_DGRAM);
  std::array<char, kCommandBytes> bytes{};
};

}  // namespace bench
