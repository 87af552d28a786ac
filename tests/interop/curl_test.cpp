// curl_test.cpp - curl as the client of a folder's server and of an application's.
#include <fstream>

#include "tests/support/echoserver.h"

namespace support {
namespace {

/// kyrno-host with a folder of files.
struct Site {
  const Tls& tls;
  TempFolder folder;
  const std::string page = folder.File("index.html", "<h1>front</h1>\n");
  const std::string data = folder.File("data.bin", Pattern(300'000));
  const std::string text = folder.File("long.txt", std::string(200'000, 'a'));
  Program server{tls.Host({"serve", "http", folder.path, "127.0.0.1:0"})};
  const int port = server.Port();

  explicit Site(const Tls& security) : tls(security) {}
  std::string Url(const std::string& target) const { return tls.Url("http", port, target); }
};

class Curl : public PlainAndSecure {};
INSTANTIATE_TEST_SUITE_P(, Curl, testing::Bool(), PlainAndSecure::Name);

/// How often one text stands in another.
std::size_t Times(const std::string& what, const std::string& in) {
  std::size_t n = 0;
  for (auto at = in.find(what); at != std::string::npos; at = in.find(what, at + 1)) ++n;
  return n;
}

TEST_P(Curl, GetsTheBytesOfFilesOverOneConnection) {
  const Site site(tls);
  const std::string got = site.folder.path + "/got";
  const auto [code, output] = RunToEnd(
      tls.Curl({"-w", "%{http_code} %{num_connects} %{content_type}\\n", site.Url("/data.bin"),
                "-o", got, site.Url("/"), "-o", got + "2", site.Url("/missing"), "-o", got + "3"}));
  EXPECT_EQ(code, 0);
  EXPECT_EQ(Times(" 1 ", output), 1U) << output;
  EXPECT_EQ(Times(" 0 ", output), 2U) << output;
  EXPECT_NE(output.find("200 0 text/html"), std::string::npos) << output;
  EXPECT_NE(output.find("404 0 "), std::string::npos) << output;
  EXPECT_TRUE(Content(got) == Content(site.data));
  EXPECT_EQ(Content(got + "2"), Content(site.page));
}

TEST_P(Curl, SeesALengthAndNoBodyOnHead) {
  const Site site(tls);
  const auto [code, output] = RunToEnd(tls.Curl({"-I", "-w", "%{size_download} %{num_connects}\\n",
                                                 site.Url("/data.bin"), site.Url("/data.bin")}));
  EXPECT_EQ(code, 0);
  EXPECT_EQ(Times("ontent-Length: 300000", output) + Times("ontent-length: 300000", output), 2U)
      << output;
  EXPECT_NE(output.find("0 1\n"), std::string::npos) << output;
  EXPECT_NE(output.find("0 0\n"), std::string::npos) << output;
}

TEST_P(Curl, UnpacksWhatTheServersPacked) {
  const Site site(tls);
  const EchoServer echo(tls, kUpgrade, site.text);
  for (const std::string& url : {site.Url("/long.txt"), echo.Url("/gzip"), echo.Url("/deflate")}) {
    const std::string got = site.folder.path + "/got";
    const auto [code, output] =
        RunToEnd(tls.Curl({"--compressed", "-w", "%{size_download}", "-o", got, url}));
    EXPECT_EQ(code, 0) << url;
    EXPECT_LT(std::stoi(output), 2000) << url;
    EXPECT_TRUE(Content(got) == Content(site.text)) << url;
  }
}

TEST_P(Curl, GetsAGigabyteFromAServerThatStaysSmall) {
  const Site site(tls);
  constexpr std::size_t kSize = std::size_t{1} << 30;
  std::ofstream(site.folder.path + "/huge").seekp(kSize - 1).put('!');
  const auto [code, output] =
      RunToEnd(tls.Curl({"-w", "%{size_download}", "-o", "/dev/null", site.Url("/huge")}));
  EXPECT_EQ(code, 0);
  EXPECT_EQ(output, std::to_string(kSize));
  EXPECT_LT(site.server.PeakMemory(), std::size_t{64} << 20);
}

TEST_P(Curl, PostsAHundredMegabytesThatComeBack) {
  const EchoServer echo(tls);
  const TempFolder folder;
  const std::string sent = folder.File("sent", Pattern(100 << 20));
  const std::string got = folder.path + "/got";
  EXPECT_EQ(RunToEnd(tls.Curl({"--data-binary", "@" + sent, "-o", got, echo.Url("/post")})).code,
            0);
  EXPECT_TRUE(Content(got) == Content(sent));
}

TEST_P(Curl, UploadsInChunksThatComeBack) {
  const EchoServer echo(tls);
  const TempFolder folder;
  const std::string sent = folder.File("sent", Pattern(3'000'000));
  const std::string got = folder.path + "/got";
  EXPECT_EQ(RunToEnd(tls.Curl({"-T", sent, "-H", "Transfer-Encoding: chunked", "-o", got,
                               echo.Url("/up")}))
                .code,
            0);
  EXPECT_TRUE(Content(got) == Content(sent));
}

TEST(CurlOverTls, IsServedOnlyWithACertificateOfTheRightAuthority) {
  const Tls tls(true);
  const EchoServer echo(tls);
  tls.Certificates().Make("stranger", {.issuer = "stranger"});
  const Words page{echo.Url("/page")};
  EXPECT_EQ(RunToEnd(tls.Curl(page)).output, "/page");
  EXPECT_NE(RunToEnd(tls.Curl(page, "")).code, 0);
  EXPECT_NE(RunToEnd(tls.Curl(page, "stranger")).code, 0);
  EXPECT_EQ(echo.Connections(), 1);
}

TEST(PipelinedRequests, AreAnsweredInOrder) {
  const Tls plain(false);
  const Site site(plain);
  RawPeer peer(site.port);
  peer.Send(
      "GET / HTTP/1.1\r\nHost: x\r\n\r\n"
      "HEAD / HTTP/1.1\r\nHost: x\r\n\r\n"
      "GET /missing HTTP/1.1\r\nHost: x\r\n\r\n"
      "PUT / HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\nput"
      "GET /data.bin HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  const std::string answers = peer.ReceiveAll();

  std::size_t at = 0;
  for (const char* status : {"200", "200", "404", "405", "200"}) {
    at = answers.find(std::string("HTTP/1.1 ") + status, at);
    ASSERT_NE(at, std::string::npos) << status;
    ++at;
  }
  EXPECT_EQ(Times("<h1>front</h1>\n", answers), 1U);
  EXPECT_TRUE(answers.ends_with("\r\n\r\n" + Content(site.data)));
}

}  // namespace
}  // namespace support
