// demo.h - what the parts of the demo share.
//
//   this process, root "CALLER"             the other process, root "SERVER"
//     client "command"  ------------------->  server "command"   answers, see demo_peer.cpp
//     client "blkraw", "blktext"  --------->  servers of these   send each block back
//     client "raw", "text", "onward"  ----->  servers of these   send everything back
//     client "lines"  --------------------->  server "lines"     numbers each line
//     client "http"  ---------------------->  server "http"      files, chunks: demo_webpeer.h
//     client "websocket"  ----------------->  server "websocket" sends each message back
//     client "udp"  ----------------------->  server "udp"       sends each datagram back
//     clients "secure", "https", "wss"  --->  servers of these   as "command", "http",
//                                             "websocket", over TLS with certificates both ways
//
//   client "near" -> server "front" <=> relay <=> client "onward": all but the end of it here
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "host/commands.h"
#include "host/httphead.h"

namespace host {

/// The two stop sequences of the "lines" stream, in the order of search.
inline const std::vector<std::string> kLineStops{"\r\n", "\n"};

/// Word that marks the blocks of the demo.
inline constexpr int kDemoMagic = 0x44454D4F;

/// Names of the commands that the other process treats in a way of their own.
inline constexpr char kProgressName[] = "progress";
inline constexpr char kReverseName[] = "reverse";
inline constexpr int kProgressReports = 3;
inline constexpr int kReverseCommands = 20;
/// A command of this name is answered with the subject of the certificate that its sender showed.
inline constexpr char kWhoName[] = "who";
/// A command of this text wants no answer: it asks for the answer to the last one that is held.
inline constexpr char kNextPlease[] = "next";

/// What the other process answers to requests: a file, the same file compressed, chunks as they
/// came.
inline constexpr char kFileTarget[] = "/file";
inline constexpr char kGzipTarget[] = "/gzip";
inline constexpr char kEchoTarget[] = "/echo";
inline const HttpFields kFileFields{{"Content-Type", "text/plain"}};
inline const HttpFields kGzipFields{{"Content-Type", "text/plain"}, {"Content-Encoding", "gzip"}};
inline const HttpFields kChunked{{"Transfer-Encoding", "chunked"}};
/// The bytes of that file.
std::string ServedBytes();

/// What the other process reports as progress number i.
ZValue ProgressReport(int i);
/// What it sends back for line number i.
std::string NumberedLine(int i, const std::string& line);

/// Every element type at every rank from 0 to 3 and empty, nested arrays, and odd shapes.
const std::vector<ZValue>& SampleArrays();
/// Bytes that repeat late: the same for the same seed.
std::string SampleBytes(std::size_t n, std::uint32_t seed);

/// The mode of a server of the demo.
std::string DemoMode(const std::string& server);

/// One run: the session, the ports of the other process, and the score.
class DemoRun {
 public:
  DemoRun(const Session& s, const Console& c, std::map<std::string, int> p, std::string folder)
      : session(s), console(c), certs(std::move(folder)), ports(std::move(p)) {}

  const Session& session;
  const Console& console;
  const std::string certs;  ///< the folder of DemoCerts

  /// A client of the name, connected to the other process' server; where it sends to.
  std::string Connect(const std::string& client, const std::string& server,
                      const Tuning& tuning = {});
  /// The next event there. Throws std::runtime_error when none comes in time.
  Event Await(const std::string& name);
  /// Shows the event with the verdict, whether it is of that kind and holds that value.
  void Judge(const Event& event, const std::string& kind, const ZValue& value);
  /// Judges the next event there.
  void Expect(const std::string& name, const std::string& kind, const ZValue& value) {
    Judge(Await(name), kind, value);
  }
  /// As many bytes of a stream as were sent, in whatever pieces they come.
  void ExpectStream(const std::string& name, const std::string& bytes);

  int Compared() const { return compared; }
  int Different() const { return different; }
  std::uint64_t BytesBack() const { return bytesBack; }
  /// Counts something that could not even be compared.
  void CountFailure() { ++different; }

 private:
  /// Scores one comparison, and gives the word for it.
  std::string Score(bool equal);

  const std::map<std::string, int> ports;
  int compared = 0;
  int different = 0;
  std::uint64_t bytesBack = 0;
};

/// What the binary and the text modes deliver for these bytes.
ZValue Unit(const std::string& mode, const std::string& bytes);

void DemoCommands(DemoRun& run);
void DemoBlocks(DemoRun& run);
void DemoStreams(DemoRun& run);
void DemoRelay(DemoRun& run);
void DemoHttp(DemoRun& run);
void DemoWebSocket(DemoRun& run);
void DemoUdp(DemoRun& run);
void DemoSecure(DemoRun& run);

// What a connected client of mode http can do, over TLS or not.
void DemoFile(DemoRun& run, const std::string& client);
void DemoUpgrade(DemoRun& run, const std::string& client);
void DemoTextMessages(DemoRun& run, const std::string& client);

}  // namespace host
