// send.cpp - a client that sends values and prints what comes back.
#include <algorithm>

#include "host/commands.h"

namespace host {

namespace {

/// What is still to come, counted as the mode counts.
class Outstanding {
 public:
  explicit Outstanding(const std::string& mode) : streams(mode == "raw" || mode == "text") {}

  void Sent(const ZValue& value) { expected += streams ? value.Bytes().size() : 1; }
  void Came(const Event& event) {
    const bool unit = event.event == "Receive" || event.event == "Block" ||
                      event.event == "BlockLast" || event.event == "Error";
    if (unit) expected -= std::min<std::size_t>(expected, streams ? Size(event) : 1);
  }
  bool Any() const { return expected > 0; }

 private:
  static std::size_t Size(const Event& event) {
    return event.event == "Error" ? 0 : event.value.Bytes().size();
  }

  const bool streams;  ///< answers have no bounds, so that bytes are counted
  std::size_t expected = 0;
};

/// The peer's end of the connection is over with this event.
bool EndsConnection(const Event& event, const std::string& client) {
  return event.event == "BlockLast" ||
         ((event.event == "Closed" || event.event == "Error") && event.name == client);
}

}  // namespace

int Send(const Console& console, const Settings& settings, const Endpoint& end,
         const Tuning& tuning, const std::vector<ZValue>& values, int waitMillis) {
  const Library library;
  const HostSession session(library, "HOST", settings);
  const std::string client = session.Client(ClientOptions("", end, tuning));
  // A client of mode udp is named with its peer behind it; what fails is the client itself.
  const std::string waited = client.substr(0, client.find('.'));
  Outstanding outstanding(end.mode);
  for (const ZValue& value : values) {
    session.Send(client, value);
    outstanding.Sent(value);
  }

  bool failed = false;
  while (outstanding.Any()) {
    const Event event = session.Wait(waited, waitMillis);
    if (event.IsTimeout()) {
      if (end.mode == "command") throw library.Error("no answer", kTimeout);
      console.Note("nothing more came back within " + std::to_string(waitMillis) + " ms");
      break;
    }
    if (event.code != 0) throw library.Error("AWaitZ " + waited, event.code);
    console.Show("got", event);
    outstanding.Came(event);
    if (event.event == "Error") {
      failed = true;
      console.Fail(library.Error(event.name, static_cast<int>(event.value.Integer())));
    }
    if (EndsConnection(event, waited)) {
      if (end.mode == "command" && outstanding.Any()) throw library.Error("no answer", kClosed);
      break;
    }
  }
  return failed ? 1 : 0;
}

}  // namespace host
