// echoserver.h - a server of mode "http" in this process, for programs that come as clients.
//
//   GET, HEAD /...    200 and the target as text; a HEAD's without it
//   GET /gzip         200 and the file that it has been given, compressed; so too /deflate
//   a body            200 and the same body
//   a chunked body    200, the same chunks and the same trailer
//   a WebSocket       each frame comes back, in strict mode as two; the text "close" closes
#pragma once

#include <atomic>
#include <map>
#include <thread>

#include "tests/support/secured.h"

namespace support {

/// WSFeatures.
inline constexpr int kUpgrade = 1;
inline constexpr int kStrictUpgrade = 5;
/// DecodeBuffers: all pieces.
inline constexpr int kDecodeAll = 15;

/// A header block or trailer as the library takes and gives it, one row for each field.
ZValue Fields(const std::vector<std::pair<std::string, std::string>>& fields);
/// The value of a field, empty when there is none.
std::string Field(const ZValue& fields, const std::string& name);

/// Serves on a thread of its own until it is destroyed.
class EchoServer {
 public:
  /// The file is that of "/gzip" and "/deflate". What it is told of TLS has to live longer.
  explicit EchoServer(const Tls& security, int wsFeatures = kUpgrade,
                      std::string compressible = "");
  ~EchoServer();

  int Port() const { return port; }
  std::string Url(const std::string& target) const { return tls.Url("http", port, target); }
  /// Connections that have come.
  int Connections() const { return connections; }
  /// Frames that have come and were not the last of their message.
  int Fragments() const { return fragments; }

 private:
  struct Request {
    std::string method;
    std::string target;
    std::vector<ZValue> chunks;
  };

  void Serve();
  void Handle(const Event& event);
  void Begin(const Event& event, Request* request);
  void Answer(const std::string& name, const std::string& body);
  void AnswerChunks(const Event& trailer, Request* request);
  void EchoFrame(const Event& event);

  const Tls& tls;
  const TestRoot root;
  const int features;
  const std::string file;
  const int port;
  std::map<std::string, Request> requests;  // by connection; the thread's
  std::atomic<int> connections{0};
  std::atomic<int> fragments{0};
  std::thread thread;
};

}  // namespace support
