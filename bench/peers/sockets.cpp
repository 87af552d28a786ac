// sockets.cpp - bare TCP sockets with TCP_NODELAY: what the machine gives without any library.
//
//   sockets        one thread on each side; one system call moves as many messages as there are
//   sockets-2t     the same, but on each side a network thread receives and hands over to the
//                  application's thread, which sends
//   sockets-call   one thread on each side, one system call for each message; commands alone
//
// Where many connections come, the server has them all in one epoll, and so has a client of many.
//
// A frame is its payload's length, 4 bytes, and the payload. Of datagrams see bench/datagram.h.
#include <condition_variable>
#include <mutex>
#include <span>
#include <thread>

#include "bench/datagram.h"
#include "bench/peer.h"
#include "bench/socket.h"

namespace {

using bench::Checked;
using bench::Descriptor;
using bench::kCommandBytes;
using bench::Poll;
using bench::SendAll;
using bench::Work;

constexpr std::size_t kHead = sizeof(std::uint32_t);
constexpr std::size_t kCommandFrame = kHead + kCommandBytes;
constexpr std::size_t kReadBytes = 65536;
constexpr std::size_t kSmallReadBytes = 4096;  // for each of many connections

enum class Style { Batch, TwoThreads, CallPerMessage };

std::size_t PayloadBytes(const char* frame) {
  std::uint32_t n;
  std::memcpy(&n, frame, sizeof n);
  return n;
}

std::vector<char> MakeFrames(std::size_t payload, unsigned n) {
  const auto head = static_cast<std::uint32_t>(payload);
  std::vector<char> frames((kHead + payload) * n);
  for (unsigned i = 0; i < n; ++i)
    std::memcpy(frames.data() + (kHead + payload) * i, &head, sizeof head);
  return frames;
}

/// Bytes that came in on one connection.
struct Input {
  Input(int descriptor, const Work& work)
      : fd(descriptor),
        bytes(work.manyConnections ? kSmallReadBytes : std::max(kReadBytes, kHead + work.bytes)) {}

  /// Appends what one recv brings; false at the end of the stream.
  bool Fill() {
    const auto n = Checked(recv(fd, bytes.data() + used, bytes.size() - used, 0), "recv");
    used += static_cast<std::size_t>(n);
    return n > 0;
  }
  /// Appends one command by one recv; false at the end of the stream.
  bool FillCommand() {
    used = static_cast<std::size_t>(
        Checked(recv(fd, bytes.data(), kCommandFrame, MSG_WAITALL), "recv"));
    return used == kCommandFrame;
  }
  /// Bytes in the whole frames at the front.
  std::size_t Whole() const {
    std::size_t at = 0;
    while (used - at >= kHead) {
      const std::size_t frame = kHead + PayloadBytes(bytes.data() + at);
      if (used - at < frame) break;
      at += frame;
    }
    return at;
  }
  void Drop(std::size_t n) {
    used -= n;
    std::memmove(bytes.data(), bytes.data() + n, used);
  }
  /// Calls take for each of the whole frames, and drops them.
  template <class Take>
  void TakeFrames(Take take) {
    std::size_t at = 0;
    for (const std::size_t whole = Whole(); at < whole;) {
      const std::size_t payload = PayloadBytes(bytes.data() + at);
      take(bytes.data() + at, kHead + payload);
      at += kHead + payload;
    }
    Drop(at);
  }

  int fd;
  std::size_t used = 0;
  std::vector<char> bytes;
};

/// The place where the network thread leaves whole frames for the application's thread. Both
/// threads swap buffers with it: nothing is copied but the frame cut at the end.
class Handover {
 public:
  explicit Handover(const Work& work) : slot(-1, work) {}

  /// Waits for the place to be free. The cut frame stays with the input.
  void Put(Input& input) {
    const std::size_t whole = input.Whole();
    if (whole == 0) return;
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return !full || closed; });
    const std::size_t rest = input.used - whole;
    std::memcpy(slot.bytes.data(), input.bytes.data() + whole, rest);
    std::swap(slot.bytes, input.bytes);
    slot.used = whole;
    slot.fd = input.fd;
    input.used = rest;
    full = true;
    changed.notify_all();
  }
  /// False when nothing more will come.
  bool Take(Input& input) {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return full || closed; });
    if (!full) return false;
    std::swap(slot, input);
    full = false;
    changed.notify_all();
    return true;
  }
  void Close() {
    const std::scoped_lock lock(mutex);
    closed = true;
    changed.notify_all();
  }

 private:
  std::mutex mutex;
  std::condition_variable changed;
  Input slot;           // guarded by mutex, as the rest
  bool full = false;    // slot holds frames
  bool closed = false;  // the network thread has ended, or is to end
};

class SocketServer : public bench::Server {
 public:
  SocketServer(const Work& w, Style s)
      : work(w), style(s), listener(bench::NewSocket()), handover(w) {
    port = bench::BindToFreePort(listener.Get());
    Checked(listen(listener.Get(), SOMAXCONN), "listen");
  }

  int Port() const override { return port; }

  void Serve() override {
    if (style != Style::TwoThreads) return ServeConnections();
    std::jthread network([this] {
      ServeConnections();
      handover.Close();
    });
    Input input(-1, work);
    while (handover.Take(input)) Answer(input);
  }

 private:
  void ServeConnections() {
    if (work.manyConnections) return ServeMany();
    const Descriptor connection = Accept();
    Input input(connection.Get(), work);
    while (Turn(input)) continue;
  }

  void ServeMany() {
    struct Connection {
      Connection(Descriptor accepted, const Work& w)
          : owned(std::move(accepted)), input(owned.Get(), w) {}
      const Descriptor owned;
      Input input;
    };
    std::vector<std::unique_ptr<Connection>> connections;  // by descriptor
    Poll poll;
    poll.Watch(listener.Get());
    for (;;)
      for (const epoll_event& event : poll.Wait()) {
        if (event.data.fd != listener.Get()) {
          auto& connection = connections[static_cast<std::size_t>(event.data.fd)];
          if (!Turn(connection->input)) connection.reset();
          continue;
        }
        Descriptor accepted = Accept();
        const int fd = accepted.Get();
        const auto at = static_cast<std::size_t>(fd);
        if (at >= connections.size()) connections.resize(at * 2 + 1);
        poll.Watch(fd);
        connections[at] = std::make_unique<Connection>(std::move(accepted), work);
      }
  }

  Descriptor Accept() const {
    Descriptor connection(
        static_cast<int>(Checked(accept(listener.Get(), nullptr, nullptr), "accept")));
    bench::SetNoDelay(connection.Get());
    return connection;
  }

  /// Receives once, and answers or hands over; false at the end of the stream.
  bool Turn(Input& input) {
    switch (style) {
      case Style::Batch:
        if (!input.Fill()) return false;
        Answer(input);
        return true;
      case Style::TwoThreads:
        if (!input.Fill()) return false;
        handover.Put(input);
        return true;
      case Style::CallPerMessage:
        if (!input.FillCommand()) return false;
        Answer(input);
        return true;
    }
    return false;
  }

  void Answer(Input& input) {
    answers.clear();
    input.TakeFrames([&](const char* frame, std::size_t n) {
      if (n == kCommandFrame) answers.insert(answers.end(), frame, frame + n);
    });
    SendAll(input.fd, answers.data(), answers.size());
  }

  const Work& work;
  const Style style;
  const Descriptor listener;
  int port = 0;
  Handover handover;          // in the style of two threads
  std::vector<char> answers;  // the answering thread's
};

class SocketClient : public bench::Client {
 public:
  SocketClient(int port, const Work& w, Style s)
      : work(w),
        style(s),
        connection(bench::NewSocket()),
        commands(MakeFrames(kCommandBytes, w.IsBulk() ? 1 : w.outstanding)),
        array(w.IsBulk() ? MakeFrames(w.bytes, 1) : std::vector<char>()),
        input(connection.Get(), w),
        handover(w) {
    bench::Connect(connection.Get(), port);
    if (style == Style::TwoThreads) network = std::jthread([this] { Network(); });
  }

  ~SocketClient() override {
    shutdown(connection.Get(), SHUT_RDWR);
    handover.Close();
  }

  void Send(unsigned n) override {
    const std::size_t step = style == Style::CallPerMessage ? 1 : n;
    for (std::size_t i = 0; i < n; i += step)
      SendAll(connection.Get(), commands.data(), step * kCommandFrame);
  }

  unsigned Receive() override {
    unsigned answers = 0;
    while (answers == 0) {
      const bool more = style == Style::TwoThreads       ? handover.Take(input)
                        : style == Style::CallPerMessage ? input.FillCommand()
                                                         : input.Fill();
      if (!more) throw std::runtime_error("the server closed the connection");
      input.TakeFrames([&](const char*, std::size_t n) {
        if (n != kCommandFrame) throw std::runtime_error("an answer of another size");
        ++answers;
      });
    }
    return answers;
  }

  void Push() override { SendAll(connection.Get(), array.data(), array.size()); }

 private:
  void Network() {
    Input arriving(connection.Get(), work);
    try {
      while (arriving.Fill()) handover.Put(arriving);
    } catch (const std::system_error&) {
      // The application's thread learns it from the end of the handover.
    }
    handover.Close();
  }

  const Work& work;
  const Style style;
  const Descriptor connection;
  const std::vector<char> commands;
  const std::vector<char> array;
  Input input;
  Handover handover;
  std::jthread network;  // last, so that it ends before what it uses
};

/// Many connections, one command at a time on each.
class FanClient : public bench::Client {
 public:
  FanClient(int port, const Work& work) : command(MakeFrames(kCommandBytes, 1)) {
    for (unsigned i = 0; i < work.connections; ++i) {
      const int fd = connections.emplace_back(bench::NewSocket()).Get();
      bench::Connect(fd, port);
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
      if (Checked(recv(fd, answer.data(), answer.size(), MSG_WAITALL), "recv") != kCommandFrame ||
          PayloadBytes(answer.data()) != kCommandBytes)
        throw std::runtime_error("the connection was closed or brought another size");
      silent.push_back(fd);
    }
    return static_cast<unsigned>(events.size());
  }

 private:
  const std::vector<char> command;
  std::array<char, kCommandFrame> answer;
  std::vector<Descriptor> connections;
  std::vector<int> silent;  // those with no command on its way
  Poll poll;
};

class Sockets : public bench::System {
 public:
  explicit Sockets(const std::string& name) : style(StyleOf(name)) {}

  std::unique_ptr<bench::Server> Listen(const Work& work) override {
    Check(work);
    if (work.speech == bench::Speech::Udp) return std::make_unique<bench::DatagramServer>();
    return std::make_unique<SocketServer>(work, style);
  }
  std::unique_ptr<bench::Client> Connect(int port, const Work& work) override {
    Check(work);
    if (work.speech == bench::Speech::Udp) return std::make_unique<bench::DatagramClient>(port);
    if (work.connections > 1) return std::make_unique<FanClient>(port, work);
    return std::make_unique<SocketClient>(port, work, style);
  }

 private:
  static Style StyleOf(const std::string& name) {
    if (name == "sockets") return Style::Batch;
    if (name == "sockets-2t") return Style::TwoThreads;
    if (name == "sockets-call") return Style::CallPerMessage;
    throw std::runtime_error("no such system: " + name);
  }

  void Check(const Work& work) const {
    if (style == Style::CallPerMessage && work.IsBulk())
      throw std::runtime_error("one system call cannot move an array");
    if (style == Style::TwoThreads && work.connections > 1)
      throw std::runtime_error("a client of many has one thread");
    if (style != Style::Batch && work.speech == bench::Speech::Udp)
      throw std::runtime_error("a datagram is one system call in one thread");
  }

  const Style style;
};

}  // namespace

int main(int argc, char** argv) {
  return bench::RunPeer({argv + 1, argv + argc},
                        [](const std::string& name) { return std::make_unique<Sockets>(name); });
}
