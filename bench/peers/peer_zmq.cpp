// peer_zmq.cpp - ZeroMQ, by the pattern that suits each work: REQ and REP for single commands,
// DEALER and ROUTER for many at once, PUSH and PULL for arrays. A client of many connections polls
// a DEALER for each.
//
// PUSH has no way back: the client of a bulk work pulls on a port of its own, which the closing
// command names, and the server pushes the answer there.
#include <zmq.h>

#include "bench/peer.h"

namespace {

using bench::kCommandBytes;
using bench::Work;

/// Failures show as negative results all over this interface.
int Checked(int result, const char* doing) {
  if (result < 0) throw std::runtime_error(std::string(doing) + ": " + zmq_strerror(zmq_errno()));
  return result;
}

struct Socket {
  Socket(void* context, int type) : handle(zmq_socket(context, type)) {
    if (!handle) throw std::runtime_error(std::string("socket: ") + zmq_strerror(zmq_errno()));
    const int linger = 0;
    Checked(zmq_setsockopt(handle, ZMQ_LINGER, &linger, sizeof linger), "linger");
  }
  ~Socket() { zmq_close(handle); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  int Bind() {
    Checked(zmq_bind(handle, "tcp://127.0.0.1:*"), "bind");
    char endpoint[64];
    std::size_t size = sizeof endpoint;
    Checked(zmq_getsockopt(handle, ZMQ_LAST_ENDPOINT, endpoint, &size), "endpoint");
    return bench::ToInt(std::strrchr(endpoint, ':') + 1);
  }
  void Connect(int port) {
    const std::string endpoint = "tcp://127.0.0.1:" + std::to_string(port);
    Checked(zmq_connect(handle, endpoint.c_str()), "connect");
  }
  void Send(const void* from, std::size_t n, int flags = 0) {
    Checked(zmq_send(handle, from, n, flags), "send");
  }

  void* const handle;
};

struct Message {
  Message() { zmq_msg_init(&msg); }
  ~Message() { zmq_msg_close(&msg); }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  void Receive(Socket& from) { Checked(zmq_msg_recv(&msg, from.handle, 0), "receive"); }
  void Send(Socket& to, int flags = 0) { Checked(zmq_msg_send(&msg, to.handle, flags), "send"); }
  std::size_t Size() const { return zmq_msg_size(&msg); }
  const void* Data() { return zmq_msg_data(&msg); }

  zmq_msg_t msg;
};

/// A command of a bulk work: the port that awaits the answer stands in front.
using Command = std::array<char, kCommandBytes>;

class ZmqServer : public bench::Server {
 public:
  ZmqServer(void* c, const Work& w)
      : work(w),
        context(c),
        socket(c, w.IsBulk()          ? ZMQ_PULL
                  : w.outstanding > 1 ? ZMQ_ROUTER
                                      : ZMQ_REP),
        port(socket.Bind()) {}

  int Port() const override { return port; }

  void Serve() override {
    if (work.IsBulk()) return Pull();
    const bool routed = work.outstanding > 1;
    for (;;) {
      Message sender;
      Message command;
      if (routed) sender.Receive(socket);
      command.Receive(socket);
      if (routed) sender.Send(socket, ZMQ_SNDMORE);
      command.Send(socket);
    }
  }

 private:
  void Pull() {
    Socket back(context, ZMQ_PUSH);
    for (bool connected = false;;) {
      Message message;
      message.Receive(socket);
      if (message.Size() != kCommandBytes) continue;
      if (!connected) {
        int answerPort;
        std::memcpy(&answerPort, message.Data(), sizeof answerPort);
        back.Connect(answerPort);
        connected = true;
      }
      message.Send(back);
    }
  }

  const Work& work;
  void* const context;  // borrowed
  Socket socket;
  const int port;
};

class ZmqClient : public bench::Client {
 public:
  ZmqClient(void* context, int port, const Work& work)
      : socket(context, work.IsBulk()          ? ZMQ_PUSH
                        : work.outstanding > 1 ? ZMQ_DEALER
                                               : ZMQ_REQ),
        array(work.IsBulk() ? work.bytes : 0) {
    socket.Connect(port);
    if (!work.IsBulk()) return;
    back = std::make_unique<Socket>(context, ZMQ_PULL);
    const int answerPort = back->Bind();
    std::memcpy(command.data(), &answerPort, sizeof answerPort);
  }

  void Send(unsigned n) override {
    for (unsigned i = 0; i < n; ++i) socket.Send(command.data(), command.size());
  }

  unsigned Receive() override {
    Message answer;
    answer.Receive(back ? *back : socket);
    if (answer.Size() != kCommandBytes) throw std::runtime_error("an answer of another size");
    return 1;
  }

  /// Lends the array, which ZeroMQ then need not copy.
  void Push() override {
    Message message;
    const auto keep = [](void*, void*) {};
    Checked(zmq_msg_init_data(&message.msg, array.data(), array.size(), keep, nullptr), "message");
    message.Send(socket);
  }

 private:
  Socket socket;
  std::unique_ptr<Socket> back;  // null but for bulk works
  std::vector<char> array;
  Command command{};
};

/// Many connections, one command at a time on each.
class FanClient : public bench::Client {
 public:
  FanClient(void* context, int port, const Work& work) {
    for (unsigned i = 0; i < work.connections; ++i) {
      sockets.push_back(std::make_unique<Socket>(context, ZMQ_DEALER));
      sockets.back()->Connect(port);
      items.push_back({sockets.back()->handle, 0, ZMQ_POLLIN, 0});
      silent.push_back(i);
    }
  }

  void Send(unsigned n) override {
    for (unsigned i = 0; i < n; ++i) {
      sockets[silent.back()]->Send(command.data(), command.size());
      silent.pop_back();
    }
  }

  unsigned Receive() override {
    Checked(zmq_poll(items.data(), static_cast<int>(items.size()), -1), "poll");
    unsigned answers = 0;
    for (unsigned i = 0; i < items.size(); ++i) {
      if (!(items[i].revents & ZMQ_POLLIN)) continue;
      Message answer;
      answer.Receive(*sockets[i]);
      if (answer.Size() != kCommandBytes) throw std::runtime_error("an answer of another size");
      silent.push_back(i);
      ++answers;
    }
    return answers;
  }

  void Push() override { throw std::runtime_error("a client of many sends commands alone"); }

 private:
  const Command command{};
  std::vector<std::unique_ptr<Socket>> sockets;
  std::vector<zmq_pollitem_t> items;  // of each socket
  std::vector<unsigned> silent;       // sockets with no command on its way
};

class Zmq : public bench::System {
 public:
  Zmq() : context(zmq_ctx_new()) {}
  ~Zmq() override { zmq_ctx_term(context); }

  std::unique_ptr<bench::Server> Listen(const Work& work) override {
    return std::make_unique<ZmqServer>(context, work);
  }
  std::unique_ptr<bench::Client> Connect(int port, const Work& work) override {
    if (work.connections > 1) return std::make_unique<FanClient>(context, port, work);
    return std::make_unique<ZmqClient>(context, port, work);
  }

 private:
  void* const context;  // owned
};

}  // namespace

int main(int argc, char** argv) {
  return bench::RunPeer({argv + 1, argv + argc},
                        [](const std::string&) { return std::make_unique<Zmq>(); });
}
