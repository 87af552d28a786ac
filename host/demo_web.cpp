// demo_web.cpp - the demo's calls in the modes of the web: HTTP, WebSocket, and datagrams.
#include "host/demo.h"
#include "host/httphead.h"
#include "host/wsmessages.h"

namespace host {

namespace {

/// "DecodeBuffers": headers, trailers, chunks and bodies, all taken apart.
constexpr int kDecodeAll = 15;

constexpr int kText = 1;
constexpr int kBinary = 2;

constexpr char kVersion[] = "HTTP/1.1";
const HttpFields kHost{{"Host", "demo"}};

/// What a decoded answer's header is.
ZValue AnswerHead(HttpFields fields, std::size_t length) {
  fields.emplace_back("Content-Length", std::to_string(length));
  const ZValue message = HttpMessage(kVersion, "200", "OK", fields, "");
  return ZValue::List({message.At(0), message.At(1), message.At(2), message.At(3)});
}

/// The same file, compressed on its way out.
void GzipFile(DemoRun& run) {
  run.session.Send("http", HttpMessage("GET", kGzipTarget, kVersion, kHost, ""));
  const Event header = run.Await("http");
  Event body = run.Await("http");
  run.Judge(header, "HTTPHeader", AnswerHead(kGzipFields, body.value.Data().size()));
  body.value = run.session.Lib().Gunzip(body.value.Text());
  run.Judge(body, "HTTPBody", ServedBytes());
}

/// A body of a length that nobody knows at the start, there and back.
void Chunks(DemoRun& run) {
  const ZValue noExtensions(ZType::C1, {0, 2}, {});
  const ZValue trailer({1, 2}, {"Pieces", "2"});
  const auto send = [&](const ZValue& value) { run.session.Send("http", value); };

  send(HttpMessage("POST", kEchoTarget, kVersion, {kHost[0], kChunked[0]}, ""));
  for (const ZValue& data : {ZValue("a piece"), ZValue(SampleBytes(100'000, 7))})
    send(ZValue::List({data, noExtensions}));
  send(ZValue::List({"", trailer}));

  const ZValue head = HttpMessage(kVersion, "200", "OK", kChunked, "");
  run.Expect("http", "HTTPHeader", ZValue::List({head.At(0), head.At(1), head.At(2), head.At(3)}));
  run.Expect("http", "HTTPChunk", ZValue::List({"a piece", noExtensions}));
  run.Expect("http", "HTTPChunk", ZValue::List({SampleBytes(100'000, 7), noExtensions}));
  run.Expect("http", "HTTPTrailer", trailer);
}

/// What one whole message arrives as.
ZValue Received(const ZValue& data, int opcode) { return ZValue::List({data, 1, opcode}); }

ZValue Binary(const std::string& bytes) {
  return ZValue(ZType::I1, {static_cast<std::uint32_t>(bytes.size())},
                {bytes.begin(), bytes.end()});
}

}  // namespace

void DemoFile(DemoRun& run, const std::string& client) {
  run.session.SetProp(client, "DecodeBuffers", kDecodeAll);
  run.session.Send(client, HttpMessage("GET", kFileTarget, kVersion, kHost, ""));
  const std::string bytes = ServedBytes();
  run.Expect(client, "HTTPHeader", AnswerHead(kFileFields, bytes.size()));
  run.Expect(client, "HTTPBody", bytes);
}

void DemoUpgrade(DemoRun& run, const std::string& client) {
  run.session.SetProp(client, "WSFeatures", kWsAutoUpgrade | kWsStrict);
  run.session.SetProp(client, "WSUpgrade", ZValue::List({"/", "demo"}));
  const Event upgraded = run.Await(client);
  run.Judge(upgraded, "WSUpgrade", upgraded.value);  // it answers a key made by chance
}

void DemoTextMessages(DemoRun& run, const std::string& client) {
  for (const char* text : {"", "first", "\u03c0 is 3 and a bit", "\U0001F980 and more"}) {
    const ZValue characters = TextValue(text);
    run.session.Send(client, WsFrame(characters));
    run.Expect(client, "WSReceive", Received(characters, kText));
  }
}

void DemoHttp(DemoRun& run) {
  run.Connect("http", "http");
  DemoFile(run, "http");
  GzipFile(run);
  Chunks(run);
}

void DemoWebSocket(DemoRun& run) {
  run.Connect("websocket", "websocket");
  DemoUpgrade(run, "websocket");
  DemoTextMessages(run, "websocket");
  for (const std::string& bytes : {std::string("\0\x7f\x80\xff", 4), SampleBytes(100'000, 8)}) {
    run.session.Send("websocket", WsFrame(Binary(bytes)));
    run.Expect("websocket", "WSReceive", Received(Binary(bytes), kBinary));
  }
  // A message in three frames comes back whole.
  run.session.Send("websocket", ZValue::List({"one, ", 0}));
  run.session.Send("websocket", ZValue::List({"two, ", 0}));
  run.session.Send("websocket", ZValue::List({TextValue("\u03c0"), 1}));
  run.Expect("websocket", "WSReceive", Received(TextValue("one, two, \u03c0"), kText));
}

void DemoUdp(DemoRun& run) {
  const std::string peer = run.Connect("udp", "udp");
  for (const std::string& bytes : {std::string("datagram"), SampleBytes(30'000, 9)}) {
    run.session.Send(peer, bytes);
    run.Expect("udp", "Block", bytes);
  }
}

}  // namespace host
