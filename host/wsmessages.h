// wsmessages.h - whole WebSocket messages from the frames that the library delivers.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/library.h"
#include "host/url.h"

namespace host {

/// "WSFeatures".
inline constexpr int kWsAutoUpgrade = 1;
inline constexpr int kWsStrict = 4;

/// The longest message that is put together.
inline constexpr std::size_t kMaxMessageBytes = std::size_t{64} << 20;

/// The frames of one message.
class WsMessage {
 public:
  /// Takes the data of a "WSReceive": (data, final, opcode). The whole message, characters or
  /// one-byte integers, when that was its last frame. Throws std::length_error above the limit.
  std::optional<ZValue> Add(const ZValue& frame);

 private:
  std::vector<ZValue> parts;
  std::size_t bytes = 0;
};

/// Sends every message back, whole and in its type. Whoever sends a message that is too long is
/// closed with 1009.
class WsEcho {
 public:
  explicit WsEcho(const Session& s) : session(s) {}

  /// Any event of a connection: what does not concern a WebSocket is passed over.
  void Handle(const Event& event);

 private:
  const Session& session;
  std::map<std::string, WsMessage> messages;  // by connection
};

/// Makes a WebSocket of a client of mode http, by the letter of RFC 6455. Throws with the server's
/// answer when it is another.
void UpgradeToWebSocket(const Session& session, const std::string& client, const Url& url);

/// One whole message, or, with an opcode of its own, any frame.
ZValue WsFrame(const ZValue& data);
ZValue WsCloseFrame(int code);

}  // namespace host
