// websocket.cpp - bare sockets that speak as much of RFC 6455 as an echo of short texts needs.
//
//   0      1         2      6
//   | 0x81 | 0x80|n  | mask | n bytes, masked |    a command, one final text frame
//   | 0x81 | n       | n bytes |                   its echo
#include "bench/websocket.h"

#include "bench/socket.h"

namespace bench {

namespace {

constexpr char kFinalText = static_cast<char>(0x81);
constexpr unsigned char kMasked = 0x80;
constexpr std::size_t kMaxShort = 125;  // bytes that need no longer length
constexpr std::string_view kMask = "\x5a\x17\xc3\x88";

// The key and its answer are those of the standard's own example, section 1.3.
constexpr std::string_view kUpgrade =
    "GET / HTTP/1.1\r\n"
    "Host: 127.0.0.1\r\n"
    "Upgrade: websocket\r\n"
    "Connection: Upgrade\r\n"
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
    "Sec-WebSocket-Version: 13\r\n"
    "\r\n";
constexpr std::string_view kAccept = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";

std::string MakeCommand(std::string_view text) {
  std::string frame{kFinalText, static_cast<char>(kMasked | text.size())};
  frame += kMask;
  for (std::size_t i = 0; i < text.size(); ++i)
    frame += static_cast<char>(text[i] ^ kMask[i % kMask.size()]);
  return frame;
}

std::string MakeEcho(std::string_view text) {
  return std::string{kFinalText, static_cast<char>(text.size())}.append(text);
}

Descriptor Upgraded(int port) {
  Descriptor connection = NewSocket();
  Connect(connection.Get(), port);
  SendAll(connection.Get(), kUpgrade.data(), kUpgrade.size());
  std::string answer;
  while (!answer.ends_with("\r\n\r\n")) {
    std::array<char, 4096> bytes;
    const auto n = Checked(recv(connection.Get(), bytes.data(), bytes.size(), 0), "recv");
    if (n == 0) throw std::runtime_error("the server closed instead of an upgrade");
    answer.append(bytes.data(), static_cast<std::size_t>(n));
  }
  if (!answer.starts_with("HTTP/1.1 101 ") || answer.find(kAccept) == std::string::npos)
    throw std::runtime_error("the server refused the upgrade");
  return connection;
}

class WebSocketClient : public Client {
 public:
  WebSocketClient(int port, const Work& work)
      : command(MakeCommand(std::string(work.bytes, 'k'))),
        echo(MakeEcho(std::string(work.bytes, 'k'))),
        received(echo.size(), '\0') {
    static_assert(kCommandBytes <= kMaxShort);
    for (unsigned i = 0; i < work.connections; ++i) {
      const int fd = connections.emplace_back(Upgraded(port)).Get();
      poll.Watch(fd);
      silent.push_back(fd);
    }
  }

  void Send(unsigned n) override {
    for (unsigned i = 0; i < n; ++i) {
      SendAll(silent.back(), command.data(), command.size());
      silent.pop_back();
    }
  }

  unsigned Receive() override {
    const std::span<const epoll_event> events = poll.Wait();
    for (const epoll_event& event : events) {
      const int fd = event.data.fd;
      const auto n = Checked(recv(fd, received.data(), received.size(), MSG_WAITALL), "recv");
      if (n != static_cast<ssize_t>(echo.size()) || received != echo)
        throw std::runtime_error("the connection was closed or brought something else");
      silent.push_back(fd);
    }
    return static_cast<unsigned>(events.size());
  }

 private:
  const std::string command;
  const std::string echo;
  std::string received;
  std::vector<Descriptor> connections;
  std::vector<int> silent;  // those with no message on its way
  Poll poll;
};

}  // namespace

std::unique_ptr<Client> MakeWebSocketClient(int port, const Work& work) {
  return std::make_unique<WebSocketClient>(port, work);
}

}  // namespace bench
