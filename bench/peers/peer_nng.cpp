// peer_nng.cpp - nng, by the pattern that suits each work: REQ and REP for single commands, PAIR
// for many at once and for arrays, because it keeps one connection busy in both directions. A
// client of many connections has a REQ socket for each and waits for their answers in turn.
#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>

#include "bench/peer.h"

namespace {

using bench::kCommandBytes;
using bench::Work;

void Check(int result, const char* doing) {
  if (result != 0) throw std::runtime_error(std::string(doing) + ": " + nng_strerror(result));
}

constexpr int kRoom = 64;  // messages

/// A message that goes back to nng unless it was sent.
class Message {
 public:
  explicit Message(nng_msg* message) : msg(message) {}
  explicit Message(std::size_t bytes) { Check(nng_msg_alloc(&msg, bytes), "message"); }
  ~Message() { nng_msg_free(msg); }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  std::size_t Size() const { return nng_msg_len(msg); }
  void Fill(const std::vector<char>& bytes) {
    std::memcpy(nng_msg_body(msg), bytes.data(), bytes.size());
  }
  void Send(nng_socket to) {
    Check(nng_sendmsg(to, msg, 0), "send");
    msg = nullptr;
  }

 private:
  nng_msg* msg = nullptr;  // owned
};

struct Socket {
  explicit Socket(const Work& work, bool listens) {
    const bool pair = work.IsBulk() || work.outstanding > work.connections;
    Check(pair      ? nng_pair0_open(&handle)
          : listens ? nng_rep0_open(&handle)
                    : nng_req0_open(&handle),
          "socket");
    if (pair) {
      // Without room a sender meets the network thread at each message.
      Check(nng_socket_set_int(handle, NNG_OPT_SENDBUF, kRoom), "room to send");
      Check(nng_socket_set_int(handle, NNG_OPT_RECVBUF, kRoom), "room to receive");
    }
    Check(nng_socket_set_size(handle, NNG_OPT_RECVMAXSZ, 0), "no limit of size");
  }
  ~Socket() { nng_close(handle); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  nng_msg* Receive() {
    nng_msg* msg = nullptr;
    Check(nng_recvmsg(handle, &msg, 0), "receive");
    return msg;
  }

  nng_socket handle = NNG_SOCKET_INITIALIZER;
};

class NngServer : public bench::Server {
 public:
  explicit NngServer(const Work& work) : socket(work, true) {
    nng_listener listener = NNG_LISTENER_INITIALIZER;
    Check(nng_listen(socket.handle, "tcp://127.0.0.1:0", &listener, 0), "listen");
    Check(nng_listener_get_int(listener, NNG_OPT_TCP_BOUND_PORT, &port), "port");
  }

  int Port() const override { return port; }

  void Serve() override {
    for (;;) {
      Message message(socket.Receive());
      if (message.Size() == kCommandBytes) message.Send(socket.handle);
    }
  }

 private:
  Socket socket;
  int port = 0;
};

class NngClient : public bench::Client {
 public:
  NngClient(int port, const Work& work)
      : command(kCommandBytes), array(work.IsBulk() ? work.bytes : 0) {
    const std::string url = "tcp://127.0.0.1:" + std::to_string(port);
    for (unsigned i = 0; i < work.connections; ++i) {
      sockets.push_back(std::make_unique<Socket>(work, false));
      Check(nng_dial(sockets.back()->handle, url.c_str(), nullptr, 0), "dial");
    }
  }

  void Send(unsigned n) override {
    for (unsigned i = 0; i < n; ++i) SendOne(command);
  }

  unsigned Receive() override {
    const Message answer(Next(&receiving).Receive());
    if (answer.Size() != kCommandBytes) throw std::runtime_error("an answer of another size");
    return 1;
  }

  void Push() override { SendOne(array); }

 private:
  void SendOne(const std::vector<char>& bytes) {
    Message message(bytes.size());
    message.Fill(bytes);
    message.Send(Next(&sending).handle);
  }

  Socket& Next(std::size_t* turn) {
    Socket& next = *sockets[*turn];
    if (++*turn == sockets.size()) *turn = 0;
    return next;
  }

  std::vector<std::unique_ptr<Socket>> sockets;
  std::size_t sending = 0;    // whose turn it is
  std::size_t receiving = 0;  // the same
  const std::vector<char> command;
  const std::vector<char> array;
};

class Nng : public bench::System {
 public:
  std::unique_ptr<bench::Server> Listen(const Work& work) override {
    return std::make_unique<NngServer>(work);
  }
  std::unique_ptr<bench::Client> Connect(int port, const Work& work) override {
    return std::make_unique<NngClient>(port, work);
  }
};

}  // namespace

int main(int argc, char** argv) {
  return bench::RunPeer({argv + 1, argv + argc},
                        [](const std::string&) { return std::make_unique<Nng>(); });
}
