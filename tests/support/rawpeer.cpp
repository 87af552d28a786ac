// rawpeer.cpp - blocking sockets and hand-made headers.
#include "tests/support/rawpeer.h"

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "tests/support/session.h"

namespace support {

namespace {

constexpr int kStuckMillis = 500;

/// Bounds one wait of a socket, SO_RCVTIMEO or SO_SNDTIMEO.
void Limit(const Descriptor& socket, int wait, int millis) {
  const timeval bound{millis / 1000, millis % 1000 * 1000};
  setsockopt(socket.Get(), SOL_SOCKET, wait, &bound, sizeof bound);
}

int Check(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

sockaddr_in Loopback(int port, const char* address = "127.0.0.1") {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<std::uint16_t>(port));
  inet_pton(AF_INET, address, &a.sin_addr);
  return a;
}

void Bind(int fd, const sockaddr_in& to) {
  Check(bind(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to), "bind");
}

/// Port of either end of a socket, which both families keep in the same place; 0 when there is
/// none.
int PortOf(int fd, bool peer) {
  sockaddr_in6 a{};
  socklen_t size = sizeof a;
  auto* address = reinterpret_cast<sockaddr*>(&a);
  if ((peer ? getpeername(fd, address, &size) : getsockname(fd, address, &size)) != 0) return 0;
  return a.sin6_family == AF_INET || a.sin6_family == AF_INET6 ? ntohs(a.sin6_port) : 0;
}

/// Bytes in a queue of a socket. By number: the other end may close at any moment, which is no race
/// of ours for a sanitizer to report.
int Queued(int fd, unsigned long queue) {
  int n = 0;
  return syscall(SYS_ioctl, fd, queue, &n) == 0 ? n : 0;
}

std::uint32_t WordAt(const std::string& bytes, std::size_t at) {
  std::uint32_t network;
  bytes.copy(reinterpret_cast<char*>(&network), sizeof network, at);
  return ntohl(network);
}

std::string Padded(std::string text, std::size_t size) {
  text.resize(size, ' ');
  return text;
}

}  // namespace

Descriptor::~Descriptor() {
  if (fd >= 0) close(fd);
}

RawPeer::RawPeer(int port, const char* from)
    : RawPeer(Descriptor(::socket(AF_INET, SOCK_STREAM, 0))) {
  const int on = 1;  // the port is chosen with the connection: there are more of these than ports
  setsockopt(socket.Get(), IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
  Bind(socket.Get(), Loopback(0, from));
  const sockaddr_in remote = Loopback(port);
  Check(connect(socket.Get(), reinterpret_cast<const sockaddr*>(&remote), sizeof remote),
        "connect");
}

RawPeer::RawPeer(Descriptor connected) : socket(std::move(connected)) {
  const int on = 1;
  Limit(socket, SO_RCVTIMEO, kBoundMillis);
  Limit(socket, SO_SNDTIMEO, kBoundMillis);
  setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void RawPeer::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = send(socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    bytes.remove_prefix(static_cast<std::size_t>(Check(static_cast<int>(n), "send")));
  }
}

void RawPeer::SendApart(std::string_view bytes, std::size_t piece) {
  const int here = socket.Get();
  const int there = OtherEnd();
  for (; !bytes.empty(); bytes.remove_prefix(std::min(piece, bytes.size()))) {
    Send(bytes.substr(0, piece));
    if (!Eventually([&] { return Queued(here, SIOCOUTQ) == 0 && Queued(there, FIONREAD) == 0; }))
      throw std::runtime_error("nobody reads");
  }
}

std::size_t RawPeer::SendUntilStuck(std::size_t most, std::string_view unit) {
  constexpr std::size_t kPiece = 65536;
  std::string some;
  while (some.size() < kPiece + unit.size()) some += unit;
  Limit(socket, SO_SNDTIMEO, kStuckMillis);
  for (std::size_t sent = 0;;) {
    const ssize_t n = send(socket.Get(), some.data() + sent % unit.size(),
                           std::min(kPiece, most - sent), MSG_NOSIGNAL);
    if (n == 0 || (n < 0 && errno == EAGAIN)) return sent;
    sent += static_cast<std::size_t>(Check(static_cast<int>(n), "send"));
  }
}

std::string RawPeer::Receive(std::size_t n) {
  std::string bytes(n, '\0');
  for (std::size_t at = 0; at < n;) {
    const ssize_t got = recv(socket.Get(), bytes.data() + at, n - at, 0);
    if (got == 0) throw std::runtime_error("closed after " + std::to_string(at) + " bytes");
    at += static_cast<std::size_t>(Check(static_cast<int>(got), "recv"));
  }
  return bytes;
}

std::string RawPeer::ReceiveAll() {
  std::string bytes;
  char some[65536];
  for (;;) {
    const ssize_t got = recv(socket.Get(), some, sizeof some, 0);
    if (got == 0 || (got < 0 && errno == ECONNRESET)) return bytes;
    bytes.append(some, static_cast<std::size_t>(Check(static_cast<int>(got), "recv")));
  }
}

void RawPeer::EndSending() { shutdown(socket.Get(), SHUT_WR); }

void RawPeer::Reset() {
  const linger none{1, 0};
  setsockopt(socket.Get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
  Close();
}

int RawPeer::OtherEnd() const {
  const int here = PortOf(socket.Get(), false);
  const int there = PortOf(socket.Get(), true);
  int fd = 0;
  const auto found = [&] {
    for (fd = 0; fd < 1024; ++fd)
      if (PortOf(fd, true) == here && PortOf(fd, false) == there) return true;
    return false;
  };
  if (!Eventually(found)) throw std::runtime_error("nobody accepts");
  return fd;
}

RawListener::RawListener() : socket(::socket(AF_INET, SOCK_STREAM, 0)) {
  Bind(socket.Get(), Loopback(0));
  Check(listen(socket.Get(), SOMAXCONN), "listen");
}

int RawListener::Port() const { return PortOf(socket.Get(), false); }

RawPeer RawListener::Accept() {
  Limit(socket, SO_RCVTIMEO, kBoundMillis);
  return RawPeer(Descriptor(Check(accept(socket.Get(), nullptr, nullptr), "accept")));
}

std::string Word(std::uint32_t value) {
  const std::uint32_t network = htonl(value);
  return std::string(reinterpret_cast<const char*>(&network), sizeof network);
}

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
  const auto field = [&](std::size_t at) {
    const std::string padded = header.substr(at, 32);
    return padded.substr(0, padded.find_last_not_of(' ') + 1);
  };
  return {WordAt(header, 4), field(48), from.Receive(WordAt(header, 0) - kIpmHeaderSize), field(80),
          header[47]};
}

std::string Stored(std::string_view bytes, std::uint32_t claimed) {
  std::uint32_t a = 1;
  std::uint32_t b = 0;
  for (const char c : bytes) {
    a = (a + static_cast<unsigned char>(c)) % 65521;
    b = (b + a) % 65521;
  }
  const auto n = static_cast<std::uint32_t>(bytes.size());
  const std::uint32_t lengths = ~n << 16 | n;  // little-endian, as this machine is
  return Word(claimed) + "\x78\x01\x01" +
         std::string(reinterpret_cast<const char*>(&lengths), sizeof lengths) + std::string(bytes) +
         Word(b << 16 | a);
}

std::string Block(std::string_view payload, std::optional<std::uint32_t> magic) {
  const std::string content = (magic ? Word(*magic) : "") + std::string(payload);
  return Word(static_cast<std::uint32_t>(4 + content.size())) + content;
}

}  // namespace support
