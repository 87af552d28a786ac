// zephpages_test.cpp - which file a request gets, of which type, and that it is one of the
// folder's.
#include "kyrno/link/zephpages.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "kyrno/modes/httpconnection.h"

namespace {

namespace fs = std::filesystem;

struct ANSWER {
  std::string status;
  std::string type;
  std::string body;
};

/// What stands between two texts.
std::string Between(const std::string& text, const std::string& before, const std::string& behind) {
  const size_t at = text.find(before);
  if (at == std::string::npos) return "none";
  const size_t from = at + before.size();
  return text.substr(from, text.find(behind, from) - from);
}

class ZephPages : public testing::Test {
 protected:
  ZephPages() : base(MakeFolder()), node("C", new HTTPCONNECTION(4096, MHttp)) {
    fs::create_directories(base / "served/sub.d");
    Write("secret", "secret");
    Write("served\\index.html", "beside");
    Write("served/index.html", "index");
    Write("served/sub.d/plain", "plain");
    for (const char* name :
         {"a.b", "a b", "s.PNG", "x.zeph", "y.json", "z.JSX", "empty.js", "w.md"})
      Write(std::string("served/") + name, name == std::string("empty.js") ? "" : name);
    Write("config", "[ContentTypes]\r\nhtml=text/x;charset=utf-8\r\njson=application/json\r\nmd=" +
                        std::string(90, 'm') + "\r\n[Zeph]\r\nb=no\r\n");
    fs::create_symlink("sub.d/plain", base / "served/inside");
    fs::create_symlink("../secret", base / "served/outside");
    fs::create_symlink(base / "served/index.html", base / "served/absolute");
    fs::create_symlink("/proc/self/root", base / "served/magic");
    fs::create_directory_symlink("..", base / "served/up");
    mkfifo((base / "served/pipe").c_str(), 0600);
    Write("served/huge", "");
    fs::resize_file(base / "served/huge", 0x100000000);
  }
  ~ZephPages() override { fs::remove_all(base); }

  static fs::path MakeFolder() {
    std::string name = fs::temp_directory_path() / "kyrno_pages_XXXXXX";
    return mkdtemp(name.data());
  }
  void Write(const std::string& name, const std::string& content) const {
    std::ofstream(base / name) << content;
  }

  /// The answer to this header block.
  ANSWER Ask(const std::string& header, const std::string& folder) {
    const std::string config = base / "config";
    BUFFER request(static_cast<UI4>(header.size()), header.data());
    const std::unique_ptr<BUFFER> out(
        HandleHttpRequest({folder.c_str(), config.c_str()}, &node, &request));
    if (!out) return {};
    std::string sent;
    while (!out->Complete() && !out->lError) {
      const UI4 n = out->NextSize();
      sent.append(out->Next(), n);
      out->NextProcessed(n);
    }
    const ANSWER answer{Between(sent, "HTTP/1.1 ", "\r\n"), Between(sent, "Content-Type: ", "\r\n"),
                        sent.substr(sent.find("\r\n\r\n") + 4)};
    EXPECT_EQ(Between(sent, "Server: ", "\r\n"), "Tessor");
    EXPECT_EQ(Between(sent, "Date: ", "\r\n").size(), 29u);
    const bool cut = header.substr(0, 4) == "HEAD";
    const std::string length = Between(sent, "Content-Length: ", "\r\n");
    EXPECT_TRUE(cut || length == std::to_string(answer.body.size())) << length;
    return answer;
  }
  ANSWER Get(const std::string& url) {
    return Ask("GET " + url + " HTTP/1.1\r\nHost: x\r\n\r\n", base / "served");
  }

  const fs::path base;
  HIERAKI node;
};

TEST_F(ZephPages, ServesTheFileOfANameAsItStandsWithTheTypeOfItsExtension) {
  const struct {
    std::string url, type, body;
  } cases[] = {
      {"/", "text/x;charset=utf-8", "index"},
      {"index.html", "text/x;charset=utf-8", "index"},
      {"//index.html", "text/x;charset=utf-8", "index"},
      {"/sub.d/../index.html", "text/x;charset=utf-8", "index"},
      {"/s.PNG", "image/png", "s.PNG"},
      {"/x.zeph", "text/html", "x.zeph"},
      {"/y.json", "application/json", "y.json"},
      {"/z.JSX", "text/html", "z.JSX"},
      {"/a.b", "text/html", "a.b"},
      {"/w.md", std::string(79, 'm'), "w.md"},
      {"/empty.js", "application/json", ""},  // a key matches when it starts with the extension
      {"/inside", "text/html", "plain"},
      {"hTTp://x/x.zeph", "text/html", "x.zeph"},
      {"http://host:80/sub.d/plain", "text/html", "plain"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url);
    const ANSWER answer = Get(c.url);
    EXPECT_EQ(answer.status, "200 OK");
    EXPECT_EQ(answer.type, c.type);
    EXPECT_EQ(answer.body, c.body);
  }
}

const char* const kNeverFound[] = {"/none",
                                   "/x.zeph?y",
                                   "/%61.b",
                                   "/a",
                                   "/../secret",
                                   "/sub.d/../../secret",
                                   "/outside",
                                   "/absolute",
                                   "/up/secret",
                                   "/up",
                                   "/magic",
                                   "/magic/etc/passwd",
                                   "/sub.d",
                                   "/pipe",
                                   "/x.zeph/",
                                   "/x.zeph/more",
                                   "/etc/passwd",
                                   "//etc/passwd",
                                   "http://",
                                   "http://h",
                                   "http:///",
                                   "https://h/x.zeph",
                                   "/huge",
                                   "/../served/x.zeph",
                                   "/dev/null",
                                   "..",
                                   "."};

TEST_F(ZephPages, LeavesTheFolderByNoNameAndServesNothingButFiles) {
  for (const char* url : kNeverFound) EXPECT_EQ(Get(url).status, "404 Not Found") << url;
  EXPECT_EQ(Get("/" + std::string(70000, 'x')).status, "404 Not Found");
  EXPECT_EQ(Get(std::string("/x.zeph\0/y", 10)).status, "404 Not Found");
  EXPECT_EQ(Ask("GET /x.zeph HTTP/1.1\r\n\r\n", "").status, "404 Not Found");
}

/// For this thread, openat2 is a call that the system does not have.
void TakeOpenat2Away() {
  sock_filter steps[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat2, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program{std::size(steps), steps};
  ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
  ASSERT_EQ(syscall(SYS_openat2, 0, nullptr, nullptr, 0), -1);
  ASSERT_EQ(errno, ENOSYS);
}

TEST_F(ZephPages, DoesTheSameWhereTheSystemCannotOpenBeneathAFolder) {
  std::thread([this] {
    TakeOpenat2Away();
    for (const char* url : kNeverFound) EXPECT_EQ(Get(url).status, "404 Not Found") << url;
    for (const char* url : {"/", "/sub.d//plain", "///x.zeph", "/./x.zeph"})
      EXPECT_EQ(Get(url).status, "200 OK") << url;
    EXPECT_EQ(Get("/inside").status, "404 Not Found");  // no links at all, to be sure
    EXPECT_EQ(Get("/" + std::string(300, 'x')).status, "404 Not Found");
  }).join();
}

TEST_F(ZephPages, FindsNothingForWhatIsNoGet) {
  const std::string folder = base / "served";
  const std::string nothing = "<h1>404 File not found</h1><p>File: </p><br><p>Using configfile: " +
                              (base / "config").string() + "</p>";
  for (const std::string header :
       {"", "\r\n\r\n", "GET", "GET ", "GET /x.zeph\r\n\r\n", "GET /x.zeph\r\nA: b c\r\n\r\n",
        "GETS /x.zeph HTTP/1.1\r\n\r\n", "POST /GET /x.zeph HTTP/1.1\r\n\r\n",
        "POST / HTTP/1.1\r\nX: GET /x.zeph HTTP/1.1\r\n\r\n", " GET /x.zeph HTTP/1.1\r\n\r\n"}) {
    SCOPED_TRACE(header);
    const ANSWER answer = Ask(header, folder);
    EXPECT_EQ(answer.status, "404 Not Found");
    EXPECT_EQ(answer.type, "text/html");
    EXPECT_EQ(answer.body, nothing);
  }
  // Who has sent HEAD would read a body as the next answer.
  EXPECT_EQ(Ask("HEAD /x.zeph HTTP/1.1\r\n\r\n", folder).body, "");
  EXPECT_EQ(Ask("get\t /x.zeph\tHTTP/1.1\r\n\r\n", folder).status, "200 OK");
}

TEST_F(ZephPages, TellsInA404WhatItLookedForAsTextAndCutsIt) {
  const std::string head = "<h1>404 File not found</h1><p>File: ", folder = base / "served";
  const ANSWER missing = Get("/<b>&\"'.png");
  EXPECT_EQ(missing.type, "image/png");
  EXPECT_EQ(missing.body, head + folder + "//&lt;b&gt;&amp;&quot;'.png</p><br>" +
                              "<p>Using configfile: " + (base / "config").string() + "</p>");
  EXPECT_EQ(Get("/" + std::string(600, 'x')).body.size(), 512u);
  const size_t before = head.size() + folder.size() + 2;
  EXPECT_EQ(Get("/" + std::string(509 - before, 'x') + "&").body.size(), 509u);
}

TEST_F(ZephPages, AddsASlashToAFolderUnlessItEndsInOneOfEitherKind) {
  const std::string line = "GET / HTTP/1.1\r\n\r\n", folder = base / "served";
  EXPECT_EQ(Ask(line, folder + "/").body, "index");
  EXPECT_EQ(Ask(line, folder + "\\").body, "beside");
  EXPECT_EQ(Between(Ask(line, folder + "0/").body, "File: ", "<"), folder + "0/index.html");
  EXPECT_EQ(Between(Ask("GET x/../../secret HTTP/1.1\r\n\r\n", folder + "\\").body, "File: ", "<"),
            folder + "\\x/../../secret");
}

}  // namespace
