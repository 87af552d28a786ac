// kyrno_web.cpp - the library in the modes of the web: one application thread, which answers each
// request by one call.
//
//   HTTP        AWaitZ "HTTPHeader"   ASendZ of the whole answer, prepared as text
//   file        AWaitZ "HTTPHeader"   ASendZ of (header, file name), prepared
//   WebSocket   AWaitZ "WSReceive"    ASendZ of the block that came: (data, fin, opcode)
//   UDP         AWaitZ "Block"        ASendZ of the block that came
#include "bench/kyrno_web.h"

#include "bench/calls.h"
#include "bench/web.h"

namespace bench {

namespace {

constexpr int kAutoUpgrade = 1;
constexpr std::string_view kHeader = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n";

host::Options OptionsOf(const std::string& name, const std::string& port, const char* mode) {
  return {{"Name", name}, {"Address", "127.0.0.1"}, {"Port", port}, {"Mode", mode}};
}

/// How a kind of server behaves.
struct Conduct {
  const char* mode;
  const char* event;  ///< what is answered; all other events are only taken
  Block answer;       ///< empty: the block that came goes back
};

Conduct ConductOf(const Work& work) {
  switch (work.speech) {
    case Speech::Http: {
      const std::string length = "Content-Length: " + std::to_string(kHello.size());
      const std::string answer = std::string(kHeader) + length + "\r\n\r\n" + kHello.data();
      return {"http", "HTTPHeader", ZValue(answer).Encode()};
    }
    case Speech::HttpFile: {
      const std::string header = std::string(kHeader) + "\r\n";
      return {"http", "HTTPHeader", ZValue::List({header, MakeFileToServe(work)}).Encode()};
    }
    case Speech::WebSocket:
      return {"http", "WSReceive", {}};
    case Speech::Udp:
      return {"udp", "Block", {}};
    case Speech::Own:
    case Speech::TlsHandshake:
    case Speech::TlsStream:
    case Speech::TlsConnect:
      break;
  }
  throw std::runtime_error("this work is not one of the web");
}

class KyrnoWebServer : public Server {
 public:
  KyrnoWebServer(const host::Session& s, const Work& work)
      : session(s),
        conduct(ConductOf(work)),
        name(session.Server(OptionsOf("", "0", conduct.mode))),
        wait(name, kWaitMillis),
        answer(host::kSendPlain) {
    if (work.speech == Speech::WebSocket) session.SetProp(name, "WSFeatures", kAutoUpgrade);
  }

  int Port() const override { return session.Port(name); }

  void Serve() override {
    for (;;) {
      Arrival arrival;
      if (!Wait(session, wait, &arrival) || arrival.event != conduct.event) continue;
      answer.SetPath(arrival.name);
      const Block& block = conduct.answer;
      // A client may have gone meanwhile; one that waits in vain will say so.
      TryPass(session, "ASendZ", answer, block.empty() ? arrival.data.Get() : block.data());
    }
  }

 private:
  const host::Session& session;
  const Conduct conduct;
  const std::string name;
  const PathArgument wait;
  PathArgument answer;
};

class KyrnoDatagramClient : public Client {
 public:
  KyrnoDatagramClient(const host::Session& s, int port)
      : session(s),
        command(TextBlock(kCommandBytes)),
        path(session.Client(OptionsOf("C", std::to_string(port), "udp"))),
        send(path, host::kSendPlain),
        wait("C", kWaitMillis) {}

  void Send(unsigned n) override {
    for (unsigned i = 0; i < n; ++i) Pass(session, "ASendZ", send, command.data());
  }

  unsigned Receive() override {
    Arrival arrival;
    if (!Wait(session, wait, &arrival)) throw std::runtime_error("no answer came");
    if (arrival.event != "Block" || arrival.data.Size() != command.size() * sizeof command[0])
      throw std::runtime_error("something else came for an answer");
    return 1;
  }

 private:
  const host::Session& session;
  const Block command;
  const std::string path;  // of the server's address
  const PathArgument send;
  const PathArgument wait;
};

}  // namespace

std::unique_ptr<Server> MakeKyrnoWebServer(const host::Session& session, const Work& work) {
  return std::make_unique<KyrnoWebServer>(session, work);
}

std::unique_ptr<Client> MakeKyrnoDatagramClient(const host::Session& session, int port) {
  return std::make_unique<KyrnoDatagramClient>(session, port);
}

}  // namespace bench
