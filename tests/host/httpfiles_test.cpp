// httpfiles_test.cpp - which file a request means, and that it is one of the folder's.
#include "host/httpfiles.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

using host::Folder;
using host::RequestTarget;

TEST(RequestTarget, IsDecodedOnceAndStaysBelow) {
  constexpr struct {
    const char *target, *link, *query, *path;
  } kCases[] = {
      {"/", "/", "", "."},
      {"/a/b.txt?x=/..", "/a/b.txt", "?x=/..", "a/b.txt"},
      {"/a%20b%252e", "/a%20b%252e", "", "a b%2e"},
      {"//elsewhere/a", "/elsewhere/a", "", "elsewhere/a"},
      {"/a..b/...", "/a..b/...", "", "a..b/..."},
      {"http://any:80/a?b", "/a", "?b", "a"},
      {"HTTP://any", "/", "", "."},
  };
  for (const auto& c : kCases) {
    const auto target = RequestTarget::Parse(c.target);
    ASSERT_TRUE(target) << c.target;
    EXPECT_EQ(target->link, c.link) << c.target;
    EXPECT_EQ(target->query, c.query) << c.target;
    EXPECT_EQ(target->path, c.path) << c.target;
  }
  for (const char* target : {"", "*", "a", "any:80", "/..", "/a/../b", "/%2e%2E/a", "/a%2f..%2fb",
                             "/%2fetc/passwd", "/a%00", "/a%0", "/a%", "/a%zz"})
    EXPECT_FALSE(RequestTarget::Parse(target)) << target;
}

class FolderTest : public testing::Test {
 protected:
  FolderTest() : base(fs::temp_directory_path() / "kyrno_folder_XXXXXX") {
    std::string name = base.string();
    base = mkdtemp(name.data());
    fs::create_directories(base / "served/sub");
    std::ofstream(base / "secret") << "secret";
    std::ofstream(base / "served/sub/file") << "file";
    fs::create_symlink("sub/file", base / "served/inside");
    fs::create_symlink("../secret", base / "served/outside");
    fs::create_symlink(base / "secret", base / "served/absolute");
    fs::create_directory_symlink("..", base / "served/up");
    mkfifo((base / "served/pipe").c_str(), 0600);
  }
  ~FolderTest() override { fs::remove_all(base); }

  fs::path base;
};

TEST_F(FolderTest, OpensNothingOutsideAndNoPipe) {
  const Folder folder((base / "served/../served").string());
  for (const char* path : {"sub/file", "./sub//file", "inside", "sub", "."})
    EXPECT_EQ(folder.Open(path).error, 0) << path;
  for (const char* path : {"../secret", "sub/../../secret", "outside", "absolute", "up",
                           "up/secret", "none", "sub/file/", "sub/file/more", "pipe"})
    EXPECT_NE(folder.Open(path).error, 0) << path;
  EXPECT_THROW(Folder((base / "secret").string()), std::runtime_error);
}

TEST_F(FolderTest, ListsItsNamesAsLinksThatLeadToThem) {
  std::ofstream(base / "served/sub/<b>&\" x:y?#%") << "odd";
  const std::string page =
      host::ListingPage(Folder((base / "served").string()).Open("sub"), "sub/");
  EXPECT_NE(
      page.find("<a href=\"./%3Cb%3E%26%22%20x%3Ay%3F%23%25\">&lt;b&gt;&amp;&quot; x:y?#%</a>"),
      std::string::npos)
      << page;
  EXPECT_NE(page.find("<a href=\"../\">"), std::string::npos) << page;
}

}  // namespace
