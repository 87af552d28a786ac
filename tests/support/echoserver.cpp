// echoserver.cpp - a server of mode "http" in this process.
#include "tests/support/echoserver.h"

#include <strings.h>

namespace support {

namespace {

/// Half of a vector: the elements from `begin` up to `end`.
ZValue Part(const ZValue& vector, std::size_t begin, std::size_t end) {
  const std::size_t size = host::ElementBits(vector.Type()) / 8;
  const unsigned char* const data = vector.Data().data();
  return ZValue(vector.Type(), {static_cast<std::uint32_t>(end - begin)},
                std::vector<unsigned char>(data + begin * size, data + end * size));
}

}  // namespace

ZValue Fields(const std::vector<std::pair<std::string, std::string>>& fields) {
  std::vector<ZValue> cells;
  for (const auto& [name, value] : fields) {
    cells.emplace_back(name);
    cells.emplace_back(value);
  }
  return ZValue({static_cast<std::uint32_t>(fields.size()), 2}, std::move(cells));
}

std::string Field(const ZValue& fields, const std::string& name) {
  for (std::uint64_t i = 0; i + 1 < fields.Count(); i += 2)
    if (strcasecmp(fields.At(i).Text().c_str(), name.c_str()) == 0) return fields.At(i + 1).Text();
  return "";
}

EchoServer::EchoServer(const Tls& security, int wsFeatures, std::string compressible)
    : tls(security),
      features(wsFeatures),
      file(std::move(compressible)),
      port(root.Serve("http", tls.OfServer(root))) {
  root.SetProp("S", "DecodeBuffers", kDecodeAll);
  root.SetProp("S", "WSFeatures", features);
  thread = std::thread([this] { Serve(); });
}

EchoServer::~EchoServer() {
  root.Close("S");  // ends the wait of the thread
  thread.join();
}

void EchoServer::Serve() {
  for (;;) {
    const Event event = root.Wait("S", kBoundMillis);
    if (event.IsTimeout()) continue;
    if (event.code != 0 || event.name == "S") return;
    try {
      Handle(event);
    } catch (const std::exception& error) {
      ADD_FAILURE() << Tell(event) << ": " << error.what();
    }
  }
}

void EchoServer::Handle(const Event& event) {
  Request& request = requests[event.name];
  if (event.event == "Connect") {
    ++connections;
  } else if (event.event == "HTTPHeader") {
    Begin(event, &request);
  } else if (event.event == "HTTPBody") {
    Answer(event.name, event.value.Bytes());
  } else if (event.event == "HTTPChunk") {
    request.chunks.push_back(event.value.At(0));
  } else if (event.event == "HTTPTrailer") {
    AnswerChunks(event, &request);
  } else if (event.event == "WSReceive") {
    EchoFrame(event);
  }
}

void EchoServer::Begin(const Event& event, Request* request) {
  const ZValue fields = event.value.At(3);
  *request = {event.value.At(0).Text(), event.value.At(1).Text(), {}};
  if (!Field(fields, "Expect").empty()) root.Send(event.name, "HTTP/1.1 100 Continue\r\n\r\n");
  const std::string length = Field(fields, "Content-Length");
  if ((!length.empty() && length != "0") || !Field(fields, "Transfer-Encoding").empty()) return;

  const std::string& target = request->target;
  if (request->method == "HEAD") {
    root.Send(event.name,
              "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(target.size()) + "\r\n\r\n");
  } else if (target == "/gzip" || target == "/deflate") {
    const std::string encoding = target.substr(1);
    root.Send(event.name, Args({"HTTP/1.1", "200", "OK", Fields({{"Content-Encoding", encoding}}),
                                Args({"", file, encoding})}));
  } else {
    Answer(event.name, target);
  }
}

void EchoServer::Answer(const std::string& name, const std::string& body) {
  root.Send(name, Args({"HTTP/1.1", "200", "OK", Fields({{"Content-Type", "text/plain"}}), body}));
}

void EchoServer::AnswerChunks(const Event& trailer, Request* request) {
  root.Send(trailer.name, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
  for (const ZValue& chunk : request->chunks) root.Send(trailer.name, Args({chunk, Fields({})}));
  root.Send(trailer.name, Args({"", trailer.value}));
}

void EchoServer::EchoFrame(const Event& event) {
  const ZValue data = event.value.At(0);
  const auto fin = static_cast<std::int32_t>(event.value.Integer(1));
  if (!fin) ++fragments;
  if (data.Type() == ZType::C1 && data.Text() == "close") return root.Close(event.name);

  const std::size_t n = data.Count();
  const std::size_t half = features == kStrictUpgrade ? n / 2 : 0;
  if (half > 0) root.Send(event.name, Args({Part(data, 0, half), 0}));
  root.Send(event.name, Args({Part(data, half, n), fin}));
}

}  // namespace support
