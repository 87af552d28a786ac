// plain.cpp - a client of bare sockets in the protocol of either server.
//
//   plain-kyrno     a header of 115 bytes and a Z block, see kyrno/modes/command.h
//   plain-sockets   the payload's length, 4 bytes, and the payload, see bench/peers/sockets.cpp
//
// In the work "connect" each command has a connection of its own. The client closes it in the
// orderly way, as an ordinary client does, and keeps a port busy for a minute by that. The
// connections therefore come from several addresses, so that there are ports for all of them.
#include "bench/plain.h"

#include "bench/socket.h"
#include "host/zvalue.h"

namespace bench {

namespace {

constexpr unsigned kAddresses = 16;

/// The answer is as long as the command and starts with the bytes given.
struct Protocol {
  std::string command;
  std::string answerStart;
};

std::string NetworkWord(std::size_t value) {
  const std::uint32_t word = htonl(static_cast<std::uint32_t>(value));
  return std::string(reinterpret_cast<const char*>(&word), sizeof word);
}

Protocol KyrnoProtocol() {
  constexpr std::size_t kHeader = 115;
  constexpr std::size_t kCommand = 1;
  constexpr std::size_t kAnswer = 3;
  constexpr std::size_t kNameBytes = 32;
  const std::vector<std::uint32_t> z = host::ZValue(std::string(kCommandBytes, 'k')).Encode();
  const std::string payload(reinterpret_cast<const char*>(z.data()), z.size() * sizeof z[0]);

  const std::string length = NetworkWord(kHeader + payload.size());
  std::string name = "ask";
  name.resize(kNameBytes, ' ');
  const std::string features = std::string(31, ' ') + '\0';
  const std::string header = length + NetworkWord(kCommand) + "Kyrno000" + features + name +
                             std::string(kNameBytes, ' ') + std::string(3, '\0');
  return {header + payload, length + NetworkWord(kAnswer)};
}

Protocol SocketsProtocol() {
  const std::uint32_t length = kCommandBytes;
  const std::string head(reinterpret_cast<const char*>(&length), sizeof length);
  return {head + std::string(kCommandBytes, 'k'), head};
}

class PlainClient : public Client {
 public:
  PlainClient(const Protocol& p, int serverPort, bool onceOnly)
      : protocol(p), port(serverPort), once(onceOnly), answer(p.command.size(), '\0') {
    if (!once) Open();
  }

  void Send(unsigned n) override {
    for (unsigned i = 0; i < n; ++i) {
      if (once) Open();
      SendAll(connection.Get(), protocol.command.data(), protocol.command.size());
    }
  }

  unsigned Receive() override {
    const auto n = static_cast<std::size_t>(
        Checked(recv(connection.Get(), answer.data(), answer.size(), MSG_WAITALL), "recv"));
    if (n != answer.size()) throw std::runtime_error("the server closed the connection");
    if (!answer.starts_with(protocol.answerStart))
      throw std::runtime_error("an answer of another size or kind");
    if (once) connection = Descriptor();
    return 1;
  }

 private:
  void Open() {
    Descriptor opened = NewSocket();
    if (once) {
      // The port is chosen by connect, when the whole address pair is known.
      SetOption(opened.Get(), IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, "IP_BIND_ADDRESS_NO_PORT");
      const sockaddr_in from = Loopback(0, 1 + opens++ % kAddresses);
      Checked(bind(opened.Get(), reinterpret_cast<const sockaddr*>(&from), sizeof from), "bind");
    }
    bench::Connect(opened.Get(), port);
    connection = std::move(opened);
  }

  const Protocol& protocol;
  const int port;
  const bool once;  // a connection for each command
  std::string answer;
  Descriptor connection;
  unsigned opens = 0;
};

class Plain : public System {
 public:
  explicit Plain(Protocol p) : protocol(std::move(p)) {}

  std::unique_ptr<Client> Connect(int port, const Work& work) override {
    return std::make_unique<PlainClient>(protocol, port, work.ConnectsEachTime());
  }

 private:
  const Protocol protocol;
};

}  // namespace

std::unique_ptr<System> MakePlain(std::string_view name) {
  if (name == kPlainKyrno) return std::make_unique<Plain>(KyrnoProtocol());
  if (name == kPlainSockets) return std::make_unique<Plain>(SocketsProtocol());
  throw std::runtime_error("no such system: " + std::string(name));
}

}  // namespace bench
