// browser_test.cpp - a headless Chromium opens the page of site/ and says what it met.
#include <filesystem>

#include "tests/support/echoserver.h"
#include "tests/support/program.h"

namespace support {
namespace {

TEST(Browser, LoadsAPageAndTalksOverWebSockets) {
  Program site(Host({"serve", "http", KYRNO_SOURCES "/tests/browser/site", "127.0.0.1:0"}));
  const EchoServer strict(kStrictUpgrade);
  const std::string page = "http://127.0.0.1:" + std::to_string(site.Port()) +
                           "/?strict=" + std::to_string(strict.Port());
  const std::string pictures = KYRNO_SOURCES "/build/browser";
  std::filesystem::create_directories(pictures);
  const TempFolder files;

  const auto [code, output] = RunToEnd(
      {"node", KYRNO_SOURCES "/tests/browser/drive.js", page, pictures + "/page.png", files.path});
  EXPECT_EQ(code, 0);
  EXPECT_EQ(output,
            "page: styled, scripted\n"
            "host: text h\u00e9llo \u20ac, binary 0,255,1,254, text 1000000, binary 1000000\n"
            "host: closed 4001 , clean\n"
            "strict: text h\u00e9llo \u20ac, binary 0,255,1,254, text 1000000, binary 1000000\n"
            "strict: closed 4001 , clean\n"
            "strict: text, closed 1000 Kyrno Over and Out, clean\n");
  EXPECT_GT(strict.Fragments(), 0);  // the browser has cut its large messages
  EXPECT_GT(std::filesystem::file_size(pictures + "/page.png"), 10'000U);
}

}  // namespace
}  // namespace support
