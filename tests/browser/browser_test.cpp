// browser_test.cpp - a headless Chromium opens the page of site/, and those of examples/link-pages
// over the link, and says what it met.
#include <filesystem>

#include "tests/support/echoserver.h"

namespace support {
namespace {

class Browser : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(, Browser, testing::Bool(), PlainAndSecure::Name);

TEST_P(Browser, LoadsAPageAndTalksOverWebSockets) {
  const Tls tls(GetParam(), false);  // the browser has no certificate
  Program site(tls.Host({"serve", "http", KYRNO_SOURCES "/tests/browser/site", "127.0.0.1:0"}));
  const EchoServer strict(tls, kStrictUpgrade);
  const std::string page =
      tls.Url("http", site.Port(), "/?strict=" + std::to_string(strict.Port()));
  const std::string pictures = KYRNO_SOURCES "/build/browser";
  const std::string picture = pictures + (tls.IsOn() ? "/secure.png" : "/page.png");
  std::filesystem::create_directories(pictures);
  const TempFolder files;

  Words drive{"node", KYRNO_SOURCES "/tests/browser/drive.js", page, picture, files.path};
  if (tls.IsOn()) drive.push_back(tls.Certificates().Cert("peer"));
  const auto [code, output] = RunToEnd(drive);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(output,
            "page: styled, scripted\n"
            "host: text h\u00e9llo \u20ac, binary 0,255,1,254, text 1000000, binary 1000000\n"
            "host: closed 4001 , clean\n"
            "strict: text h\u00e9llo \u20ac, binary 0,255,1,254, text 1000000, binary 1000000\n"
            "strict: closed 4001 , clean\n"
            "strict: text, closed 1000 Kyrno Over and Out, clean\n");
  EXPECT_GT(strict.Fragments(), 0);  // the browser has cut its large messages
  EXPECT_GT(std::filesystem::file_size(picture), 10'000U);
}

TEST_P(Browser, HoldsASessionThatOutlivesTheHostOfItsPages) {
  const Tls tls(GetParam(), false);
  const std::string pictures = KYRNO_SOURCES "/build/browser";
  std::filesystem::create_directories(pictures);
  const TempFolder files;

  Words drive{"node", KYRNO_SOURCES "/tests/browser/link.js", pictures, files.path};
  drive.push_back(tls.IsOn() ? tls.Certificates().Cert("peer") : "");
  Words link{"link", "--init", "http:127.0.0.1:0", "--pages", KYRNO_SOURCES "/examples/link-pages"};
  link.push_back("--echo");
  if (tls.IsOn()) link.push_back("--anonymous");
  for (const std::string& word : tls.Host(link)) drive.push_back(word);
  const auto [code, output] = RunToEnd(drive);
  EXPECT_EQ(code, 0);
  const std::string exchanged =
      "connected\n1 100 100 100 65536 65536 65536 1048576 1048576 1048576\n";
  EXPECT_EQ(output,
            "title: Kyrno link\n"
            "style: grid\n"
            "/ 200 text/html\n"
            "/index.html 200 text/html\n"
            "/about.zeph 200 text/html\n"
            "/link.js 200 text/javascript\n"
            "/page.js 200 text/javascript\n"
            "/style.css 200 text/css\n"
            "/icon.png 200 image/png\n"
            "/none.js 404 text/javascript\n" +
                exchanged + "typed by hand, gr\u00fc\u00df dich\nthe host ends: 0\nconnecting\n" +
                exchanged + "The host was started again, and here we are.\n");
}

}  // namespace
}  // namespace support
