// socket.h - bare sockets for the benchmark's programs.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>
#include <system_error>
#include <utility>

namespace bench {

/// The result of a system call. Throws std::system_error for a negative one.
inline ssize_t Checked(ssize_t result, const char* doing) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), doing);
  return result;
}

/// Owns a descriptor; -1 is none.
class Descriptor {
 public:
  explicit Descriptor(int descriptor = -1) : fd(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd, other.fd);
    return *this;
  }
  ~Descriptor() {
    if (fd >= 0) close(fd);
  }
  int Get() const { return fd; }

 private:
  int fd;
};

/// 127.0.0.1, or another address of that network: number is the last part of it.
inline sockaddr_in Loopback(int port, unsigned number = 1) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK - 1 + number);
  return address;
}

inline Descriptor NewSocket(int type = SOCK_STREAM) {
  return Descriptor(static_cast<int>(Checked(socket(AF_INET, type, 0), "socket")));
}

/// Many connections, watched for something to receive.
class Poll {
 public:
  void Watch(int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    Checked(epoll_ctl(poll.Get(), EPOLL_CTL_ADD, fd, &event), "epoll");
  }
  /// Waits; valid until the next call.
  std::span<const epoll_event> Wait() {
    const auto n = Checked(
        epoll_wait(poll.Get(), events.data(), static_cast<int>(events.size()), -1), "epoll");
    return std::span(events).first(static_cast<std::size_t>(n));
  }

 private:
  const Descriptor poll{static_cast<int>(Checked(epoll_create1(0), "epoll"))};
  std::array<epoll_event, 64> events;
};

inline void SetOption(int fd, int level, int option, const char* doing) {
  const int on = 1;
  Checked(setsockopt(fd, level, option, &on, sizeof on), doing);
}

/// Returns the port.
inline int BindToFreePort(int fd) {
  sockaddr_in address = Loopback(0);
  socklen_t size = sizeof address;
  Checked(bind(fd, reinterpret_cast<sockaddr*>(&address), size), "bind");
  Checked(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), "name");
  return ntohs(address.sin_port);
}

inline void SetNoDelay(int fd) { SetOption(fd, IPPROTO_TCP, TCP_NODELAY, "TCP_NODELAY"); }

inline void Connect(int fd, int port) {
  const sockaddr_in address = Loopback(port);
  Checked(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), "connect");
  SetNoDelay(fd);
}

inline void SendAll(int fd, const char* from, std::size_t n) {
  while (n > 0) {
    const auto sent = static_cast<std::size_t>(Checked(send(fd, from, n, 0), "send"));
    from += sent;
    n -= sent;
  }
}

}  // namespace bench
