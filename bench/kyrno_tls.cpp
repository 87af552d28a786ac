// kyrno_tls.cpp - the library in mode "raw" over TLS, without a byte of its own on the wire.
#include "bench/kyrno_tls.h"

#include "bench/calls.h"
#include "bench/tls.h"

namespace bench {

namespace {

host::Options With(const host::Options& more, const std::string& name, const std::string& port) {
  host::Options options{{"Name", name}, {"Address", "127.0.0.1"}, {"Port", port}, {"Mode", "raw"}};
  options.insert(options.end(), more.begin(), more.end());
  return options;
}

class KyrnoHandshakeServer : public Server {
 public:
  KyrnoHandshakeServer(const host::Session& s, const Work& work)
      : session(s),
        name(session.Server(With(SecureServer(work), "", "0"))),
        wait(name, kWaitMillis) {}

  int Port() const override { return session.Port(name); }

  void Serve() override {
    for (;;) {
      // "Connect", and "BlockLast", with which the connection is gone.
      Arrival arrival;
      Wait(session, wait, &arrival);
    }
  }

 private:
  const host::Session& session;
  const std::string name;
  const PathArgument wait;
};

class KyrnoConnectClient : public Client {
 public:
  KyrnoConnectClient(const host::Session& s, int port, const Work& work)
      : session(s), options(With(SecureClient(s, work), "", std::to_string(port))) {}

  void Send(unsigned) override { name = session.Client(options); }
  unsigned Receive() override {
    session.Close(name);
    return 1;
  }

 private:
  const host::Session& session;
  const host::Options options;
  std::string name;
};

}  // namespace

host::Options SecureServer(const Work& work) {
  if (!work.IsTls()) return {};
  return {{"PublicCertFile", ZValue::List({"DER", TlsCertificate(work), 0})},
          {"PrivateKeyFile", ZValue::List({"DER", TlsPrivateKey(work), 0})}};
}

host::Options SecureClient(const host::Session& session, const Work& work) {
  if (!work.IsTls()) return {};
  session.SetProp(".", "RootCertDir", TlsTrust());
  return {{"PublicCertFile", ZValue::List({"DER", "", 0})}, {"Priority", kTlsPriority}};
}

std::unique_ptr<Server> MakeKyrnoHandshakeServer(const host::Session& session, const Work& work) {
  return std::make_unique<KyrnoHandshakeServer>(session, work);
}

std::unique_ptr<Client> MakeKyrnoConnectClient(const host::Session& session, int port,
                                               const Work& work) {
  return std::make_unique<KyrnoConnectClient>(session, port, work);
}

}  // namespace bench
