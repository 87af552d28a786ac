// ws.cpp - a WebSocket client between standard input and standard output.
//
//   end of input --> silence --> close, sent --> the peer's close, or silence --> end
//                                  a close of the peer, at any time   ---------> end
//
// Many peers answer a close at once, ahead of what they would have said to the last message: hence
// the first silence.
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <thread>

#include "host/commands.h"
#include "host/httpfiles.h"
#include "host/wsmessages.h"

namespace host {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kNoObject = 1010;

/// How long nothing has been said, by either side. Any thread.
class Silence {
 public:
  void Break() { since.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed); }
  int Millis() const {
    const Clock::duration now = Clock::now().time_since_epoch();
    const Clock::duration begin(since.load(std::memory_order_relaxed));
    return static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now - begin).count());
  }

 private:
  std::atomic<Clock::rep> since{Clock::now().time_since_epoch().count()};
};

/// Sends the lines of standard input from a thread of its own, which Wait of the main thread does
/// not hold up, and closes the connection at the end of input.
class LineSender {
 public:
  LineSender(const Session& s, std::string to, Silence* quiet, int waitMillis)
      : session(s),
        client(std::move(to)),
        silence(quiet),
        wait(waitMillis),
        stop(eventfd(0, EFD_CLOEXEC)),
        thread([this] { Run(); }) {}
  ~LineSender() { End(); }

  bool HasClosed() const { return closed.load(std::memory_order_acquire); }
  /// Ends the thread, though its input may not be at an end, and throws what it failed with.
  void Finish() {
    End();
    if (failure) std::rethrow_exception(failure);
  }

 private:
  void End() {
    eventfd_write(stop.Get(), 1);
    if (thread.joinable()) thread.join();
  }

  void Run() {
    try {
      while (ReadMore()) SendLines();
      if (!stopped && !pending.empty()) SendLine(pending);
      for (int left = wait; !stopped && left > 0; left = wait - silence->Millis()) Pause(left);
    } catch (const std::exception&) {
      failure = std::current_exception();
    }
    if (stopped) return;
    try {
      session.Close(client);
    } catch (const LibraryError&) {
      // It is closed already.
    }
    silence->Break();
    closed.store(true, std::memory_order_release);
  }

  void Pause(int millis) {
    pollfd wanted{stop.Get(), POLLIN, 0};
    stopped = poll(&wanted, 1, millis) > 0;
  }

  /// False at the end of input, or when there is no more use for it.
  bool ReadMore() {
    pollfd wanted[] = {{STDIN_FILENO, POLLIN, 0}, {stop.Get(), POLLIN, 0}};
    while (poll(wanted, 2, -1) < 0 && errno == EINTR) continue;
    stopped = (wanted[1].revents & POLLIN) != 0;
    if (stopped) return false;
    char bytes[65536];
    const ssize_t n = read(STDIN_FILENO, bytes, sizeof bytes);
    if (n > 0) pending.append(bytes, static_cast<std::size_t>(n));
    return n > 0;
  }

  void SendLines() {
    std::size_t begin = 0;
    for (std::size_t end; (end = pending.find('\n', begin)) != std::string::npos; begin = end + 1)
      SendLine(pending.substr(begin, end - begin));
    pending.erase(0, begin);
  }

  void SendLine(const std::string& line) {
    session.Send(client, WsFrame(TextValue(line)));
    silence->Break();
  }

  const Session& session;
  const std::string client;
  Silence* const silence;  // borrowed
  const int wait;
  std::atomic<bool> closed{false};
  std::string pending;
  bool stopped = false;
  std::exception_ptr failure;  // read when the thread has ended
  const Descriptor stop;
  std::thread thread;  // the last, since it uses the others
};

void ShowMessage(const Console& console, const ZValue& message) {
  const Json json = ToJson(message);
  // Text as it is; bytes in the notation, since a terminal is no place for them.
  console.Say(json.is_string() ? json.get<std::string>() : Print(json),
              {{"event", "Message"}, {"kind", Kind(message)}, {"value", json}});
}

bool IsEnd(const Event& event) {
  return event.event == "Closed" || (event.event == "Error" && event.value.Integer() == kClosed);
}

}  // namespace

int WebSocket(const Console& console, const Settings& settings, const Url& url, const Tls& tls,
              int waitMillis) {
  const Library library;
  const HostSession session(library, "HOST", settings);
  Tuning tuning;
  tuning.tls = tls;
  const std::string client =
      session.Client(ClientOptions("", {"http", url.host, url.port}, tuning));
  UpgradeToWebSocket(session, client, url);

  Silence silence;
  LineSender sender(session, client, &silence, waitMillis);
  WsMessage incoming;
  for (;;) {
    const Event event = session.Wait(client, waitMillis);
    if (event.IsTimeout()) {
      if (sender.HasClosed() && silence.Millis() >= waitMillis) break;
      continue;
    }
    silence.Break();
    // A connection that this side has closed goes without an event.
    if (event.code == kNoObject || IsEnd(event)) break;
    if (event.code != 0) throw library.Error("AWaitZ " + client, event.code);
    if (event.event == "Error")
      throw library.Error(event.name, static_cast<int>(event.value.Integer()));
    if (event.event != "WSReceive") continue;
    if (const auto message = incoming.Add(event.value)) ShowMessage(console, *message);
  }
  sender.Finish();
  return 0;
}

}  // namespace host
