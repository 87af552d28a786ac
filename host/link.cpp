// link.cpp - an interpreter's side of the link to a remote development environment.
//
//   work thread    CommNotify ---> notices ---> main thread   GetBuffer, Free, Send
//   main thread    Zeph2Enable ---> CommConfig
//
// The callbacks come without a pointer of the interpreter's: what they need stands in one place.
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <fstream>
#include <mutex>
#include <stdexcept>

#include "host/commands.h"
#include "host/httpfiles.h"

namespace host {

namespace {

constexpr char kLinkRoot[] = "\t\tZEPH";
constexpr const char* kServers[] = {"ZephServer4", "ZephServer", "HttpServer4", "HttpServer"};
constexpr std::uint32_t kBlockCame = 3;
constexpr std::uint32_t kNoSession = 1008;
/// How long an interrupt may go unseen.
constexpr int kTurnMillis = 250;
/// The link tells nobody that a session stands: until then its state is looked at so often.
constexpr int kLookMillis = 50;

struct Notice {
  std::uint32_t code;
  void* node;
};

/// What the link has told, until the main thread gets to it. Put returns at once.
///
/// Threads: any may put.
class Notices {
 public:
  Notices() : wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

  int Fd() const { return wake.Get(); }
  void Put(Notice notice) {
    const std::lock_guard hold(lock);
    waiting.push_back(notice);
    eventfd_write(wake.Get(), 1);
  }
  std::deque<Notice> Take() {
    const std::lock_guard hold(lock);
    eventfd_t count;
    eventfd_read(wake.Get(), &count);
    return std::exchange(waiting, {});
  }

 private:
  const Descriptor wake;
  std::mutex lock;
  std::deque<Notice> waiting;  // guarded by lock
};

/// What the callbacks work on.
struct Interpreter {
  const LinkConfig& config;
  Notices notices;
};

Interpreter* interpreter = nullptr;  // borrowed; set before the link is made and until it has gone

std::int32_t CommNotify(std::uint32_t code, void* node) {
  interpreter->notices.Put({code, node});
  return 0;
}

std::int32_t CommConfig(char* key, char* buffer, std::size_t size) {
  if (size == 0) return 0;
  const std::string value = interpreter->config.Setting(key);
  const std::size_t n = std::min(value.size(), size - 1);
  std::memcpy(buffer, value.data(), n);
  buffer[n] = '\0';
  return 0;
}

/// The link, on for as long as this lives.
class Link {
 public:
  Link(const Console& c, const Library& lib, const Settings& settings, Notices* from, Talk* with)
      : console(c),
        notices(from),
        talk(with),
        table(Make(lib)),
        session(lib, kLinkRoot, Session::Existing()) {
    Trace(session, settings);
    const std::int32_t code = table->pZeph2Enable(1);
    if (code == 0) return;
    throw LibraryError("Zeph2Enable", code, lib.Error("", code).name, ErrorText(code));
  }
  ~Link() { table->pZeph2Enable(0); }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  void TellServers() const {
    for (const char* const name : kServers) {
      const bool stands = session.Run("AGetProp", ZValue::List({name, "LocalAddr"})).Integer() == 0;
      if (stands) TellPort(console, session, name);
    }
  }

  void Run() {
    while (!Interrupted() && !talk->IsOver()) {
      Pause();
      for (const Notice& notice : notices->Take()) Handle(notice);
      if (IsConnected()) talk->Connected();
      SendLines();
    }
  }

 private:
  static TKYRNOFNS* Make(const Library& lib) {
    tZeph2Config config{};
    config.CommNotify = CommNotify;
    config.CommConfig = CommConfig;
    TKYRNOFNS* const made = lib.Zeph2Init(&config);
    if (!made) throw std::runtime_error("no memory for the link");
    return made;
  }

  std::string ErrorText(std::int32_t code) const {
    char text[2048];
    return table->pZeph2Errortext(code, text, sizeof text) < 0 ? "" : text;
  }

  bool IsConnected() const {
    const std::atomic_ref<std::uint32_t> state(table->Zeph2State);
    return state.load(std::memory_order_acquire) == Zeph2Connected;
  }

  /// Until something has happened, or it is time to look.
  void Pause() {
    pollfd wanted[] = {{notices->Fd(), POLLIN, 0}, {talk->InputFd(), POLLIN, 0}};
    const bool mayEnd = talk->IsConnected() && wanted[1].fd >= 0;
    if (poll(wanted, 2, mayEnd ? kTurnMillis : kLookMillis) <= 0) return;
    if ((wanted[1].revents & (POLLIN | POLLHUP | POLLERR)) != 0) talk->ReadInput();
  }

  void Handle(const Notice& notice) {
    if (notice.code == kBlockCame) {
      talk->Connected();  // also where the state was connected for less than a look
      Receive(notice.node);
    } else {
      talk->Gone();
    }
    table->pZeph2Free(notice.node);
  }

  void Receive(void* node) {
    char* data;
    std::uint32_t length;
    table->pZeph2GetBuffer(node, &data, &length);
    if (!data) return;  // went with its connection
    if (const std::string* const back = talk->Block(std::string(data, length))) Send(*back);
  }

  void SendLines() {
    while (const std::string* const line = talk->IsConnected() ? talk->Line() : nullptr) {
      if (!Send(*line)) return;
      talk->Sent();
    }
  }

  /// False without a session, whose end will be told.
  bool Send(const std::string& block) {
    const std::int32_t code = table->pZeph2Send(const_cast<char*>(block.data()),
                                                static_cast<std::uint32_t>(block.size()));
    if (code == kNoSession) return false;
    if (code != 0) console.Note("not sent: " + ErrorText(code));
    return true;
  }

  const Console& console;
  Notices* const notices;  // borrowed
  Talk* const talk;        // borrowed
  TKYRNOFNS* const table;  // the library's
  const Session session;
};

}  // namespace

int ServeLink(const Console& console, const Settings& settings, const LinkOptions& options,
              const TalkOptions& talking) {
  const LinkConfig config(options, Library::DefaultPath());
  // The library goes first: until then its thread may call back.
  Interpreter side{config, {}};
  interpreter = &side;
  Talk talk(console, talking, STDIN_FILENO);
  const Library library;
  CatchInterrupts();
  Link link(console, library, settings, &side.notices, &talk);
  link.TellServers();
  link.Run();
  return 0;
}

}  // namespace host
