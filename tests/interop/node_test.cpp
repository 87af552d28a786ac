// node_test.cpp - Node's http and tls and npm's ws as peers, both ways round.
#include "tests/support/echoserver.h"

namespace support {
namespace {

struct NodeServer {
  const Tls& tls;
  Program program;
  const int port = program.Port();

  NodeServer(const Tls& security, const std::string& script)
      : tls(security), program(tls.Node(script, {"server"})) {}
  std::string Url(const std::string& scheme, const std::string& target = "/") const {
    return tls.Url(scheme, port, target);
  }
};

class NodeHttp : public PlainAndSecure {};
INSTANTIATE_TEST_SUITE_P(, NodeHttp, testing::Bool(), PlainAndSecure::Name);
class NodeWs : public PlainAndSecure {};
INSTANTIATE_TEST_SUITE_P(, NodeWs, testing::Bool(), PlainAndSecure::Name);

TEST_P(NodeHttp, IsServedOverOneConnection) {
  const EchoServer echo(tls);
  const auto [code, output] = RunToEnd(tls.Node("http.js", {"client", echo.Url("")}));
  EXPECT_EQ(code, 0);
  EXPECT_EQ(output,
            "GET 200 /one\n"
            "HEAD 200 \n"
            "POST 200 posted\n"
            "PUT 200 1048586 bytes check passed\n"
            "equal true\n"
            "connections 1\n");
  EXPECT_EQ(echo.Connections(), 1);
}

/// A piece as one line.
std::string TellPiece(const Event& event) {
  const ZValue& value = event.value;
  if (event.event == "HTTPHeader")
    return value.At(1).Text() + " " + Field(value.At(3), "Transfer-Encoding");
  if (event.event == "HTTPChunk") return "chunk " + value.At(0).Bytes();
  if (event.event == "HTTPTrailer")
    return "trailer " + Field(value, "Check") + " " + Field(value, "Other");
  return event.event + " " + value.Bytes();
}

TEST_P(NodeHttp, AnswersInChunksAndTrailersAndTakesThem) {
  const NodeServer node(tls, "http.js");
  const TestRoot root;
  root.Dial("http", node.port, tls.OfClient(root));
  root.SetProp("C", "DecodeBuffers", kDecodeAll);
  const auto told = [&root](int n) {
    Lines lines;
    while (n-- > 0) lines.push_back(TellPiece(root.Next("C")));
    return lines;
  };

  const ZValue host = Fields({{"Host", "127.0.0.1"}});
  root.Send("C", Args({"GET", "/", "HTTP/1.1", host, ""}));
  EXPECT_EQ(told(5), (Lines{"200 chunked", "chunk first ", "chunk second ", "chunk third",
                            "trailer passed too"}));

  const ZValue chunked = Fields({{"Host", "127.0.0.1"}, {"Transfer-Encoding", "chunked"}});
  root.Send("C", Args({"PUT", "/", "HTTP/1.1", chunked, ""}));
  root.Send("C", Args({"one ", Fields({{"note", "extension"}})}));
  root.Send("C", Args({"two", Fields({})}));
  root.Send("C", Args({"", Fields({{"Check", "sent"}})}));
  EXPECT_EQ(told(2), (Lines{"200 ", "HTTPBody PUT one two sent"}));

  const Finished got = RunToEnd(tls.Host({"get", node.Url("http")}));
  EXPECT_EQ(got.code, 0);
  EXPECT_EQ(got.output, "first second third");
}

/// What Node's client tells when all of its messages come back. Only a strict server takes
/// fragments that cut a character in two.
void ExpectEchoes(const Tls& tls, const std::string& url, bool strict, const char* closing,
                  const char* close) {
  const auto [code, output] =
      RunToEnd(tls.Node("ws.js", {"client", url, strict ? "fragments" : "whole", closing}));
  EXPECT_EQ(code, 0);
  EXPECT_EQ(output, std::string("text h\u00e9llo \u20ac\n"
                                "text \n"
                                "binary 4 00ff01fe\n"
                                "text 70000\n"
                                "binary 100000 07070707\n"
                                "pong are you there\n") +
                        (strict ? "text one h\u00e9 two\n" : "") + close + "\n");
}

TEST_P(NodeWs, ExchangesMessagesWithAServer) {
  for (const int features : {kUpgrade, kStrictUpgrade}) {
    const EchoServer echo(tls, features);
    const bool strict = features == kStrictUpgrade;
    ExpectEchoes(tls, echo.Url("/"), strict, "ours",
                 strict ? "close 4001 " : "close 1000 Kyrno Over and Out");
    ExpectEchoes(tls, echo.Url("/"), strict, "theirs", "close 1000 Kyrno Over and Out");
  }
}

TEST_P(NodeWs, ExchangesMessagesWithTheHost) {
  Program server(tls.Host({"serve", "websocket", "127.0.0.1:0", "--strict"}));
  ExpectEchoes(tls, tls.Url("ws", server.Port(), "/"), true, "ours", "close 4001 ");
}

TEST_P(NodeWs, ServesAClientInBothModes) {
  for (const int features : {kUpgrade, kStrictUpgrade}) {
    NodeServer node(tls, "ws.js");
    const TestRoot root;
    root.Dial("http", node.port, tls.OfClient(root));
    root.SetProp("C", "WSFeatures", features);
    root.SetProp("C", "WSUpgrade", Args({"/", "127.0.0.1:" + std::to_string(node.port)}));
    EXPECT_EQ(root.Next("C").event, "WSUpgrade");
    const auto frame = [&root] {
      const ZValue value = root.Next("C").value;
      return value.At(0).Bytes() + " " + std::to_string(value.Integer(1)) + " " +
             std::to_string(value.Integer(2));
    };

    root.Send("C", Args({"hello", 1}));
    EXPECT_EQ(frame(), "hello 1 1");
    EXPECT_EQ(node.program.Line(), "text hello");

    const std::string bytes = Pattern(70'000);
    const std::vector<char> elements(bytes.begin(), bytes.end());
    root.Send("C", Args({ZValue::Vector(ZType::I1, elements), 1}));
    EXPECT_TRUE(frame() == bytes + " 1 2");
    EXPECT_EQ(node.program.Line(), "binary 70000 00010203");

    root.Send("C", Args({"fragments", 1}));
    EXPECT_EQ(Lines({frame(), frame(), frame()}), Lines({"one  0 1", "two  0 0", "three 1 0"}));
    EXPECT_EQ(node.program.Line(), "text fragments");

    root.Send("C", Args({"ping", 1}));
    EXPECT_EQ(node.program.Line(), "text ping");
    EXPECT_EQ(node.program.Line(), "pong are you there");

    root.Send("C", Args({"close", 1}));
    EXPECT_EQ(node.program.Line(), "text close");
    EXPECT_EQ(node.program.Line(),
              features == kStrictUpgrade ? "close 4002 " : "close 1000 Kyrno Over and Out");
  }
}

TEST_P(NodeWs, IsClosedByAClientInOrder) {
  NodeServer node(tls, "ws.js");
  Program host(tls.Host({"ws", node.Url("ws")}));
  host.Write("hello\n");
  EXPECT_EQ(host.Line(), "hello");
  host.EndInput();
  EXPECT_EQ(host.Finish().code, 0);
  EXPECT_EQ(node.program.Line(), "text hello");
  EXPECT_EQ(node.program.Line(), "close 1000 Kyrno Over and Out");
}

/// Both sides at once: what comes back from Node in a connection that the library makes or accepts.
TEST(NodeTls, SendsBackAMegabyteBothWaysRound) {
  const Tls tls(true);
  NodeServer server(tls, "tls.js");
  const TestRoot root;
  const int port = root.Serve("raw", tls.OfServer(root));
  Program client(tls.Node("tls.js", {"client", std::to_string(port)}));
  const std::string data = Pattern(1 << 20);

  const auto expectEcho = [&](const std::string& name, Program* node) {
    root.Send(name, data);
    EXPECT_TRUE(Gather(root, name, data.size()) == data);
    EXPECT_EQ(node->Line(), "TLSv1.3 localhost");
  };
  expectEcho(root.Next("S").name, &client);
  expectEcho(root.Dial("raw", server.port, tls.OfClient(root)), &server.program);
}

}  // namespace
}  // namespace support
