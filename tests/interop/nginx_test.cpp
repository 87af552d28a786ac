// nginx_test.cpp - nginx as a server to read from, and as a proxy before a server of the library.
#include "tests/support/echoserver.h"

namespace support {
namespace {

// As any user: every path that is built in has one here instead. Without a master the one process
// keeps its user. Server side includes make the length of a page unknown, so that it goes in
// chunks.
constexpr char kConfiguration[] = R"(
daemon off; master_process off; worker_processes 1; pid FOLDER/pid; error_log stderr;
events { worker_connections 64; }
http {
  access_log off; default_type text/html; server_tokens off;
  client_body_temp_path FOLDER/t1; proxy_temp_path FOLDER/t2; fastcgi_temp_path FOLDER/t3;
  uwsgi_temp_path FOLDER/t4; scgi_temp_path FOLDER/t5;
  KEYS
  upstream application { server 127.0.0.1:UPSTREAM; keepalive 4; }
  server {
    listen 127.0.0.1:PORT LISTEN;
    root FOLDER;
    gzip off;
    location /chunks/ { ssi on; alias FOLDER/; }
    location /proxy/ {
      proxy_pass SCHEME://application/;
      proxy_http_version 1.1; proxy_request_buffering off;
      proxy_set_header Connection "";
      client_max_body_size 0;
    }
    location /socket/ {
      proxy_pass SCHEME://application/;
      proxy_http_version 1.1;
      proxy_set_header Upgrade $http_upgrade; proxy_set_header Connection upgrade;
    }
  }
}
)";

// Over TLS it demands and shows certificates on both sides.
constexpr char kKeys[] = R"(
  ssl_certificate PKI/peer.pem; ssl_certificate_key PKI/peer.key;
  ssl_client_certificate PKI/ca.pem; ssl_verify_client on;
  proxy_ssl_certificate PKI/peer.pem; proxy_ssl_certificate_key PKI/peer.key;
  proxy_ssl_trusted_certificate PKI/ca.pem; proxy_ssl_verify on; proxy_ssl_name localhost;
)";

std::string Replaced(std::string text, const std::string& what, const std::string& by) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size())
    text.replace(at, what.size(), by);
  return text;
}

struct NginxServer {
  const Tls& tls;
  TempFolder folder;
  const std::string data = folder.File("data.html", Pattern(300'000));
  const std::string page = folder.File("page.html", "<!--#echo var='host' -->" + Pattern(90'000));
  const int port = FreePort();
  const Program server;

  explicit NginxServer(const Tls& security, int upstream = FreePort())
      : tls(security),
        server({"/usr/sbin/nginx", "-e", "stderr", "-p", folder.path, "-c",
                folder.File("conf", Configuration(upstream))}) {
    AwaitPort(port);
  }
  std::string Configuration(int upstream) const {
    std::string text = Replaced(kConfiguration, "FOLDER", folder.path);
    text = Replaced(text, "KEYS", tls.IsOn() ? kKeys : "");
    if (tls.IsOn()) text = Replaced(text, "PKI", tls.Certificates().folder);
    text = Replaced(text, "LISTEN", tls.IsOn() ? "ssl" : "");
    text = Replaced(text, "SCHEME", tls.IsOn() ? "https" : "http");
    text = Replaced(text, "UPSTREAM", std::to_string(upstream));
    return Replaced(text, "PORT", std::to_string(port));
  }
  std::string Url(const std::string& target, const std::string& scheme = "http") const {
    return tls.Url(scheme, port, target);
  }
};

class Nginx : public PlainAndSecure {};
INSTANTIATE_TEST_SUITE_P(, Nginx, testing::Bool(), PlainAndSecure::Name);

const std::string kPage = "127.0.0.1" + Pattern(90'000);  // with its inclusion

TEST_P(Nginx, IsReadByTheHostWithALengthAndInChunks) {
  const NginxServer nginx(tls);
  const std::string got = nginx.folder.path + "/got";
  EXPECT_EQ(RunToEnd(tls.Host({"get", nginx.Url("/data.html"), "-o", got})).code, 0);
  EXPECT_TRUE(Content(got) == Content(nginx.data));
  EXPECT_EQ(RunToEnd(tls.Host({"get", nginx.Url("/chunks/page.html"), "-o", got})).code, 0);
  EXPECT_TRUE(Content(got) == kPage);
}

TEST_P(Nginx, IsReadPieceByPieceOverOneConnection) {
  const NginxServer nginx(tls);
  const TestRoot root;
  root.Dial("http", nginx.port, tls.OfClient(root));
  root.SetProp("C", "DecodeBuffers", kDecodeAll);
  const ZValue fields = Fields({{"Host", "127.0.0.1"}});
  for (const char* target : {"/data.html", "/chunks/page.html", "/data.html"})
    root.Send("C", Args({"GET", target, "HTTP/1.1", fields, ""}));

  const auto status = [&root] {
    const Event head = root.Next("C");
    EXPECT_EQ(head.event, "HTTPHeader");
    return head.value.At(1).Text() + " " + Field(head.value.At(3), "Transfer-Encoding") +
           Field(head.value.At(3), "Content-Length");
  };
  EXPECT_EQ(status(), "200 300000");
  EXPECT_TRUE(root.Next("C").value.Bytes() == Pattern(300'000));

  EXPECT_EQ(status(), "200 chunked");
  std::string page;
  Event piece = root.Next("C");
  for (; piece.event == "HTTPChunk"; piece = root.Next("C")) page += piece.value.At(0).Bytes();
  EXPECT_TRUE(page == kPage);
  EXPECT_EQ(piece.event, "HTTPTrailer");

  EXPECT_EQ(status(), "200 300000");
  EXPECT_TRUE(root.Next("C").value.Bytes() == Pattern(300'000));
}

TEST_P(Nginx, ForwardsManyRequestsOverOneConnection) {
  const EchoServer echo(tls);
  const NginxServer nginx(tls, echo.Port());
  const TempFolder folder;
  const std::string sent = folder.File("sent", Pattern(5'000'000));
  const std::string got = folder.path + "/got";
  EXPECT_EQ(
      RunToEnd(tls.Curl({nginx.Url("/proxy/a"), nginx.Url("/proxy/b"), nginx.Url("/proxy/c")}))
          .output,
      "/a/b/c");
  EXPECT_EQ(RunToEnd(tls.Curl({"-T", sent, "-H", "Transfer-Encoding: chunked", "-o", got,
                               nginx.Url("/proxy/up")}))
                .code,
            0);
  EXPECT_TRUE(Content(got) == Content(sent));
  EXPECT_EQ(echo.Connections(), 1);
}

TEST_P(Nginx, CarriesAWebSocketBothWays) {
  const EchoServer echo(tls, kStrictUpgrade);
  const NginxServer nginx(tls, echo.Port());
  Program host(tls.Host({"ws", nginx.Url("/socket/", "ws")}));
  host.Write("one\ntwo\n");
  EXPECT_EQ(host.Line(), "one");
  EXPECT_EQ(host.Line(), "two");
  host.EndInput();
  EXPECT_EQ(host.Finish().code, 0);
}

}  // namespace
}  // namespace support
