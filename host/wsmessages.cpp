// wsmessages.cpp - whole WebSocket messages from the frames that the library delivers.
#include "host/wsmessages.h"

#include <algorithm>
#include <stdexcept>

namespace host {

namespace {

constexpr int kOpcodeClose = 8;
constexpr int kTooLong = 1009;
constexpr int kUpgradeMillis = 20'000;

/// The parts as one vector of the widest of their types.
ZValue Join(const std::vector<ZValue>& parts) {
  ZType type = parts.front().Type();
  std::size_t count = 0;
  for (const ZValue& part : parts) {
    if (ElementBits(part.Type()) > ElementBits(type)) type = part.Type();
    count += part.Count();
  }
  const std::size_t width = ElementBits(type) / 8;
  std::vector<unsigned char> data(count * width);
  unsigned char* to = data.data();
  for (const ZValue& part : parts) {
    const std::size_t narrow = ElementBits(part.Type()) / 8;
    const std::vector<unsigned char>& from = part.Data();
    if (narrow == width) {
      to = std::copy(from.begin(), from.end(), to);
      continue;
    }
    // Little-endian: the bytes that a wider element has more are the high ones, and stay 0.
    for (std::size_t at = 0; at < from.size(); at += narrow, to += width)
      std::copy_n(from.data() + at, narrow, to);
  }
  return ZValue(type, {static_cast<std::uint32_t>(count)}, std::move(data));
}

}  // namespace

std::optional<ZValue> WsMessage::Add(const ZValue& frame) {
  const ZValue& data = frame.Items().at(0);
  const bool last = frame.At(1).Integer() != 0;
  if (parts.empty() && last) return data;

  bytes += data.Data().size();
  if (bytes > kMaxMessageBytes) throw std::length_error("a message is too long");
  parts.push_back(data);
  if (!last) return std::nullopt;
  const ZValue whole = Join(parts);
  *this = WsMessage();
  return whole;
}

void WsEcho::Handle(const Event& event) {
  if (event.event == "Closed" || event.event == "Error") messages.erase(event.name);
  if (event.event != "WSReceive") return;
  try {
    if (const auto message = messages[event.name].Add(event.value))
      session.Send(event.name, WsFrame(*message));
  } catch (const std::length_error&) {
    messages.erase(event.name);
    session.Send(event.name, WsCloseFrame(kTooLong), kSendAndClose);
  }
}

void UpgradeToWebSocket(const Session& session, const std::string& client, const Url& url) {
  session.SetProp(client, "WSFeatures", kWsAutoUpgrade | kWsStrict);
  session.SetProp(client, "WSUpgrade", ZValue::List({url.target, url.Authority()}));
  const Event event = session.Wait(client, kUpgradeMillis);
  if (event.code != 0 || event.IsTimeout())
    throw session.Lib().Error("no WebSocket", event.code != 0 ? event.code : kTimeout);
  if (event.event == "HTTPHeader") {
    const std::string answer = event.value.Text();
    throw std::runtime_error("no WebSocket: " + answer.substr(0, answer.find_first_of("\r\n")));
  }
  if (event.event != "WSUpgrade")
    throw session.Lib().Error("no WebSocket", static_cast<int>(event.value.Integer()));
}

ZValue WsFrame(const ZValue& data) { return ZValue::List({data, 1}); }

ZValue WsCloseFrame(int code) {
  const std::vector<unsigned char> payload{static_cast<unsigned char>(code >> 8),
                                           static_cast<unsigned char>(code & 0xFF)};
  return ZValue::List({ZValue(ZType::I1, {2}, payload), 1, kOpcodeClose});
}

}  // namespace host
