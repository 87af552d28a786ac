// kyrno.cpp - the library as one of the measured systems: mode "command", arguments prepared as
// blocks, one application thread on each side.
//
//   command   ASendZ flag 0   AWaitZ brings it, ARespondZ returns its block, AWaitZ brings that
//   array     ASendZ flag 2   AWaitZ brings it
//
// The stream of TLS is the same over TLS. The other modes: bench/kyrno_web.cpp,
// bench/kyrno_tls.cpp.
#include "bench/kyrno.h"

#include "bench/calls.h"
#include "bench/kyrno_tls.h"
#include "bench/kyrno_web.h"

namespace bench {

namespace {

host::Options OptionsOf(const std::string& name, const std::string& port,
                        const host::Options& more) {
  host::Options options{
      {"Name", name}, {"Address", "127.0.0.1"}, {"Port", port}, {"Mode", "command"}};
  options.insert(options.end(), more.begin(), more.end());
  return options;
}

class KyrnoServer : public Server {
 public:
  KyrnoServer(const host::Session& s, const Work& work)
      : session(s),
        name(session.Server(OptionsOf("", "0", SecureServer(work)))),
        wait(name, kWaitMillis),
        answer(1) {}

  int Port() const override { return session.Port(name); }

  void Serve() override {
    const std::size_t commandSize = TextBlock(kCommandBytes).size() * sizeof(std::uint32_t);
    for (;;) {
      Arrival arrival;
      if (!Wait(session, wait, &arrival)) continue;
      if (arrival.event != "Receive" || arrival.data.Size() != commandSize) continue;
      answer.SetPath(arrival.name);
      Pass(session, "ARespondZ", answer, arrival.data.Get());
    }
  }

 private:
  const host::Session& session;
  const std::string name;
  const PathArgument wait;
  PathArgument answer;
};

/// The connections are the objects C00, C01 ... of one root. Of a single one the client waits for
/// that object, of several for the root.
class KyrnoClient : public Client {
 public:
  KyrnoClient(const host::Session& s, int port, const Work& work)
      : session(s),
        wait(work.connections == 1 ? NameOf(0) : ".", kWaitMillis),
        push(NameOf(0), host::kSendNoAnswer),
        command(TextBlock(kCommandBytes)),
        array(TextBlock(work.bytes)) {
    const host::Options secure = SecureClient(session, work);
    for (unsigned i = 0; i < work.connections; ++i) {
      session.Client(OptionsOf(NameOf(i), std::to_string(port), secure));
      sends.emplace_back(NameOf(i), host::kSendPlain);
    }
    for (unsigned i = 0; i < work.outstanding; ++i) free.push_back(i % work.connections);
  }

  void Send(unsigned n) override {
    for (unsigned i = 0; i < n; ++i) {
      Pass(session, "ASendZ", sends[free.back()], command.data());
      free.pop_back();
    }
  }

  unsigned Receive() override {
    Arrival arrival;
    if (!Wait(session, wait, &arrival)) throw std::runtime_error("no answer came");
    if (arrival.event != "Receive")
      throw std::runtime_error("event \"" + std::string(arrival.event) + "\" came for an answer");
    if (arrival.data.Size() != command.size() * sizeof command[0])
      throw std::runtime_error("an answer of another size");
    free.push_back(NumberIn(arrival.name));
    return 1;
  }

  void Push() override { Pass(session, "ASendZ", push, array.data()); }

 private:
  static std::string NameOf(unsigned i) {
    return {'C', static_cast<char>('0' + i / 10), static_cast<char>('0' + i % 10)};
  }
  static unsigned NumberIn(std::string_view path) {
    return static_cast<unsigned>((path[1] - '0') * 10 + (path[2] - '0'));
  }

  const host::Session& session;
  std::vector<PathArgument> sends;  // of each connection
  std::vector<unsigned> free;       // connection of each command that may be sent
  const PathArgument wait;
  const PathArgument push;
  const Block command;
  const Block array;
};

class Kyrno : public System {
 public:
  std::unique_ptr<Server> Listen(const Work& work) override {
    if (work.speech == Speech::TlsHandshake) return MakeKyrnoHandshakeServer(session, work);
    if (work.speech == Speech::Own || work.speech == Speech::TlsStream)
      return std::make_unique<KyrnoServer>(session, work);
    return MakeKyrnoWebServer(session, work);
  }
  std::unique_ptr<Client> Connect(int port, const Work& work) override {
    if (work.speech == Speech::TlsConnect) return MakeKyrnoConnectClient(session, port, work);
    if (work.speech == Speech::Udp) return MakeKyrnoDatagramClient(session, port);
    return std::make_unique<KyrnoClient>(session, port, work);
  }

 private:
  const host::Library library;
  const host::Session session{library, "BENCH"};
};

}  // namespace

std::unique_ptr<System> MakeKyrno() { return std::make_unique<Kyrno>(); }

}  // namespace bench
