// rawpeer.cpp - blocking sockets and hand-made headers.
#include "tests/support/rawpeer.h"

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace support {

namespace {

constexpr int kBoundSeconds = 20;
constexpr int kStuckMillis = 500;

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_in Loopback(int port, const char* address = "127.0.0.1") {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<std::uint16_t>(port));
  inet_pton(AF_INET, address, &a.sin_addr);
  return a;
}

/// Port of either end of a socket; 0 when there is none.
int PortOf(int fd, bool peer) {
  sockaddr_storage a{};
  socklen_t size = sizeof a;
  auto* address = reinterpret_cast<sockaddr*>(&a);
  if ((peer ? getpeername(fd, address, &size) : getsockname(fd, address, &size)) != 0) return 0;
  if (a.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in*>(&a)->sin_port);
  if (a.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6*>(&a)->sin6_port);
  return 0;
}

/// Bytes in a queue of a socket. By number: the other end may close at any moment, which is no race
/// of ours for a sanitizer to report.
int Queued(int fd, unsigned long queue) {
  int n = 0;
  return syscall(SYS_ioctl, fd, queue, &n) == 0 ? n : 0;
}

std::chrono::steady_clock::time_point Deadline() {
  return std::chrono::steady_clock::now() + std::chrono::seconds(kBoundSeconds);
}

}  // namespace

Descriptor::~Descriptor() {
  if (fd >= 0) close(fd);
}

RawPeer::RawPeer(int port, const char* from) : socket(::socket(AF_INET, SOCK_STREAM, 0)) {
  const sockaddr_in local = Loopback(0, from);
  const int on = 1;  // the port is chosen with the connection: there are more of these than ports
  setsockopt(socket.Get(), IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
  if (bind(socket.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0)
    Fail("bind");
  const sockaddr_in remote = Loopback(port);
  if (connect(socket.Get(), reinterpret_cast<const sockaddr*>(&remote), sizeof remote) != 0)
    Fail("connect");
  *this = RawPeer(std::move(socket));
}

RawPeer::RawPeer(Descriptor connected) : socket(std::move(connected)) {
  const timeval bound{kBoundSeconds, 0};
  const int on = 1;
  setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
  setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
  setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void RawPeer::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = send(socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n < 0) Fail("send");
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
}

void RawPeer::SendApart(std::string_view bytes, std::size_t piece) {
  const int other = OtherEnd();
  for (; !bytes.empty(); bytes.remove_prefix(std::min(piece, bytes.size()))) {
    Send(bytes.substr(0, piece));
    WaitUntilRead(other);
  }
}

void RawPeer::WaitUntilRead(int other) const {
  for (const auto end = Deadline();
       Queued(socket.Get(), SIOCOUTQ) != 0 || Queued(other, FIONREAD) != 0; sched_yield())
    if (std::chrono::steady_clock::now() > end) throw std::runtime_error("nobody reads");
}

std::size_t RawPeer::SendUntilStuck(std::size_t most) {
  const std::string some(65536, 's');
  std::size_t sent = 0;
  while (sent < most) {
    pollfd wish{socket.Get(), POLLOUT, 0};
    if (poll(&wish, 1, kStuckMillis) == 0) break;
    const ssize_t n = send(socket.Get(), some.data(), std::min(some.size(), most - sent),
                           MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno != EAGAIN) Fail("send");
    if (n > 0) sent += static_cast<std::size_t>(n);
  }
  return sent;
}

std::string RawPeer::Receive(std::size_t n) {
  std::string bytes(n, '\0');
  for (std::size_t at = 0; at < n;) {
    const ssize_t got = recv(socket.Get(), bytes.data() + at, n - at, 0);
    if (got < 0) Fail("recv");
    if (got == 0) throw std::runtime_error("closed after " + std::to_string(at) + " bytes");
    at += static_cast<std::size_t>(got);
  }
  return bytes;
}

std::string RawPeer::ReceiveAll() {
  std::string bytes;
  char some[65536];
  for (;;) {
    const ssize_t got = recv(socket.Get(), some, sizeof some, 0);
    if (got == 0 || (got < 0 && errno == ECONNRESET)) return bytes;
    if (got < 0) Fail("recv");
    bytes.append(some, static_cast<std::size_t>(got));
  }
}

void RawPeer::EndSending() { shutdown(socket.Get(), SHUT_WR); }

void RawPeer::Close() { socket = Descriptor(); }

void RawPeer::Reset() {
  const linger none{1, 0};
  setsockopt(socket.Get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
  Close();
}

int RawPeer::OtherEnd() const {
  const int here = PortOf(socket.Get(), false);
  const int there = PortOf(socket.Get(), true);
  for (const auto end = Deadline(); std::chrono::steady_clock::now() < end; sched_yield())
    for (int fd = 0; fd < 1024; ++fd)
      if (PortOf(fd, true) == here && PortOf(fd, false) == there) return fd;
  throw std::runtime_error("nobody accepts");
}

RawListener::RawListener() : socket(::socket(AF_INET, SOCK_STREAM, 0)) {
  const sockaddr_in any = Loopback(0);
  const int on = 1;
  setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(socket.Get(), reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) Fail("bind");
  if (listen(socket.Get(), SOMAXCONN) != 0) Fail("listen");
  port = PortOf(socket.Get(), false);
}

RawPeer RawListener::Accept() {
  pollfd wish{socket.Get(), POLLIN, 0};
  if (poll(&wish, 1, kBoundSeconds * 1000) != 1) throw std::runtime_error("nobody connects");
  return RawPeer(Descriptor(accept(socket.Get(), nullptr, nullptr)));
}

std::string Word(std::uint32_t value) {
  const std::uint32_t network = htonl(value);
  return std::string(reinterpret_cast<const char*>(&network), sizeof network);
}

std::uint32_t WordAt(std::string_view bytes, std::size_t at) {
  std::uint32_t network;
  std::memcpy(&network, bytes.substr(at, sizeof network).data(), sizeof network);
  return ntohl(network);
}

namespace {

std::string Padded(std::string text, std::size_t size) {
  text.resize(size, ' ');
  return text;
}

std::string Trimmed(std::string_view field) {
  return std::string(field.substr(0, field.find_last_not_of(' ') + 1));
}

}  // namespace

std::string Ipm::Header(std::uint32_t length) const {
  return Word(length) + Word(type) + "Kyrno000" + Padded("", 31) + features + Padded(name, 32) +
         Padded(subname, 32) + std::string(3, '\0');
}

std::string Ipm::Bytes() const {
  return Header(static_cast<std::uint32_t>(kIpmHeaderSize + payload.size())) + payload;
}

Ipm Ipm::Read(RawPeer& from) {
  const std::string header = from.Receive(kIpmHeaderSize);
  if (header.substr(8, 8) != "Kyrno000") throw std::runtime_error("not a header");
  Ipm message{WordAt(header, 4), Trimmed(std::string_view(header).substr(48, 32)), "",
              Trimmed(std::string_view(header).substr(80, 32)), header[47]};
  message.payload = from.Receive(WordAt(header, 0) - kIpmHeaderSize);
  return message;
}

std::string Stored(std::string_view bytes, std::uint32_t claimed) {
  constexpr std::size_t kMost = 65535;
  std::uint32_t a = 1;
  std::uint32_t b = 0;
  for (const char c : bytes) {
    a = (a + static_cast<unsigned char>(c)) % 65521;
    b = (b + a) % 65521;
  }
  std::string stream = "\x78\x01";
  do {
    const std::string_view part = bytes.substr(0, kMost);
    bytes.remove_prefix(part.size());
    stream += bytes.empty() ? '\1' : '\0';
    for (const std::size_t n : {part.size(), ~part.size()}) {
      stream += static_cast<char>(n & 255);
      stream += static_cast<char>(n >> 8 & 255);
    }
    stream += part;
  } while (!bytes.empty());
  return Word(claimed) + stream + Word(b << 16 | a);
}

std::string Block(std::string_view payload) {
  return Word(static_cast<std::uint32_t>(4 + payload.size())) + std::string(payload);
}

std::string Block(std::string_view payload, std::uint32_t magic) {
  return Word(static_cast<std::uint32_t>(8 + payload.size())) + Word(magic) + std::string(payload);
}

}  // namespace support
