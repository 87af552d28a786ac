// remote.cpp - the remote development environment's side of the link.
//
//   this end                                  the link
//     "SupportedProtocols=2"   <--->   "SupportedProtocols=2"
//     "UsingProtocol=2"        <--->   "UsingProtocol=2"
//     blocks                   <--->   blocks
//
// Blocks go over mode blkraw, or as the messages of a WebSocket where the link serves pages.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <utility>

#include "host/commands.h"
#include "host/wsmessages.h"

namespace host {

namespace {

constexpr char kSupported[] = "SupportedProtocols=2";
constexpr char kSupportedWord[] = "SupportedProtocols=";
constexpr char kUsing[] = "UsingProtocol=2";
constexpr int kNoObject = 1010;
constexpr int kFailedRead = 1105;
/// How long a line of standard input, or an interrupt, may go unseen.
constexpr int kTurnMillis = 50;

/// Whether a list such as "SupportedProtocols=1,2" has a 2.
bool SupportsOurs(const std::string& list) {
  for (std::size_t begin = sizeof kSupportedWord - 1; begin <= list.size();) {
    const std::size_t end = std::min(list.find(',', begin), list.size());
    if (list.compare(begin, end - begin, "2") == 0) return true;
    begin = end + 1;
  }
  return false;
}

/// The peer has closed; where it had not read everything, that is a failed read here.
bool IsHangUp(const Event& event) {
  const std::int64_t code = event.event == "Error" ? event.value.Integer() : 0;
  return code == 0 || code == kClosed || code == kFailedRead;
}

/// The events of a client, or of a server and its connections, of which one at a time is the
/// session.
class Environment {
 public:
  Environment(const Console& c, const Session& s, const Meeting& meeting, std::string object,
              Talk* with)
      : console(c),
        session(s),
        listens(meeting.listens),
        isWeb(meeting.url.has_value()),
        waited(std::move(object)),
        talk(with) {
    if (!listens) Begin(waited);
  }

  /// Until all is said, or nothing can come any more.
  void Run() {
    while (!Interrupted() && !talk->IsOver()) {
      const bool any = SendLines();
      const Event event = session.Wait(waited, any ? 0 : kTurnMillis);
      if (event.IsTimeout()) continue;
      if (event.code == kNoObject) return;
      if (event.code != 0) throw session.Lib().Error("AWaitZ " + waited, event.code);
      try {
        Handle(event);
      } catch (const std::runtime_error& error) {
        if (!listens) throw;
        console.Fail(error);  // another link may come
        Drop();
      }
      if (!listens && connection.empty()) return;
    }
  }

 private:
  void Begin(const std::string& name) {
    connection = name;
    Send(kSupported);
  }

  void Drop() {
    if (talk->IsConnected()) talk->Gone();
    if (!connection.empty()) session.Run("AClose", std::exchange(connection, ""));
  }

  void Handle(const Event& event) {
    if (event.event == "Connect") {
      if (connection.empty()) return Begin(event.name);
      session.Run("AClose", event.name);
    }
    if (event.name != connection) return;
    if (event.event == "Closed" || event.event == "Error") return End(event);
    if (const auto block = BlockOf(event)) Take(*block);
    if (event.event == "BlockLast") End(event);
  }

  void End(const Event& event) {
    connection.clear();
    if (!IsHangUp(event))
      throw session.Lib().Error(event.name, static_cast<int>(event.value.Integer()));
    if (!talk->IsConnected())
      throw std::runtime_error("the link hangs up: it has a session, or wants somebody else");
    talk->Gone();
  }

  std::optional<std::string> BlockOf(const Event& event) {
    if (!isWeb) {
      const bool came = event.event == "Block" || event.event == "BlockLast";
      return came ? std::optional(event.value.Bytes()) : std::nullopt;
    }
    if (event.event != "WSReceive") return std::nullopt;
    const auto message = incoming.Add(event.value);
    if (!message) return std::nullopt;
    const Json json = ToJson(*message);
    return json.is_string() ? json.get<std::string>() : message->Bytes();
  }

  void Take(const std::string& block) {
    if (talk->IsConnected()) {
      if (const std::string* const back = talk->Block(block)) Send(*back);
    } else if (block.starts_with(kSupportedWord) && SupportsOurs(block)) {
      Send(kUsing);
    } else if (block == kUsing) {
      talk->Connected();
    } else {
      throw std::runtime_error("this is no link: " + BlockText(block));
    }
  }

  /// What there is of standard input, waiting for none. Whether there was anything: more may
  /// follow.
  bool SendLines() {
    pollfd wanted{talk->InputFd(), POLLIN, 0};
    bool any = wanted.fd >= 0 && poll(&wanted, 1, 0) > 0;
    if (any) talk->ReadInput();
    while (const std::string* const line = talk->IsConnected() ? talk->Line() : nullptr) {
      Send(*line);
      talk->Sent();
      any = true;
    }
    return any;
  }

  void Send(const std::string& block) {
    session.Send(connection, isWeb ? WsFrame(TextValue(block)) : ZValue(block));
  }

  const Console& console;
  const Session& session;
  const bool listens;
  const bool isWeb;
  const std::string waited;
  Talk* const talk;        // borrowed
  std::string connection;  // the session's; empty without one
  WsMessage incoming;
};

}  // namespace

Meeting ParseMeeting(const std::string& peer, const std::string& listen) {
  if (peer.empty() == listen.empty())
    throw std::invalid_argument("give one of HOST:PORT, ws://HOST:PORT/ and --listen [HOST:]PORT");
  if (!listen.empty()) return {ParseEndpoint("blkraw", listen, false), true, {}};
  if (peer.find("://") == std::string::npos)
    return {ParseEndpoint("blkraw", peer, true), false, {}};
  const Url url = ParseUrl(peer, "ws");
  return {{"http", url.host, url.port}, false, url};
}

int Remote(const Console& console, const Settings& settings, const Meeting& meeting,
           const Tuning& tuning, const TalkOptions& talking) {
  const Library library;
  const HostSession session(library, "HOST", settings);
  CatchInterrupts();
  Talk talk(console, talking, STDIN_FILENO);
  std::string object;
  if (meeting.listens) {
    object = session.Server(ServerOptions("", meeting.end, tuning));
    TellPort(console, session, object);
  } else {
    object = session.Client(ClientOptions("", meeting.end, tuning));
    if (meeting.url) UpgradeToWebSocket(session, object, *meeting.url);
  }
  Environment(console, session, meeting, object, &talk).Run();
  return 0;
}

}  // namespace host
