// log_test.cpp - the trace: what is written, when, and that lines stay whole.

#include "kyrno/base/log.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sys/linux/fdhold.h"
#include "sys/linux/qlnplat.h"

namespace {

constexpr UI4 MODULE = 0x00000400;
const std::string kTime = "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}";

/// A log file in memory, in place of the default.
class Log : public ::testing::Test {
 protected:
  Log() : fd(memfd_create("log", MFD_CLOEXEC)), path("/proc/self/fd/" + std::to_string(fd.Get())) {
    InitLog(path.c_str());
  }
  ~Log() override {
    InitLog(nullptr);
    LOGSet(0);
    SetMicrosSource(nullptr);
  }

  std::string Text() const {
    std::string text(static_cast<size_t>(lseek(fd.Get(), 0, SEEK_END)), 0);
    EXPECT_EQ(pread(fd.Get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    return text;
  }

  const FDHOLD fd;
  const std::string path;
};

TEST_F(Log, WritesATraceLineOfItsLevelAndModuleOnly) {
  SetMicrosSource([] { return 1700000000123456.0; });
  LOGSet(MODULE | 2);
  LOG(3, ("too deep"));
  LOG(2, ("sock %d %s", 7, "%s%n"));
  LOGSet(0x200 | 15);
  LOG(1, ("another module"));
  const std::string id = std::to_string(getpid()) + " +0x[0-9a-f]+: ";
  const std::string line = kTime + "  {9}1700000000123456 +" + id + "sock 7 %s%n\n";
  EXPECT_TRUE(std::regex_match(Text(), std::regex(line))) << Text();
}

TEST_F(Log, KeepsTheErrorNumberAndWritesLongTextAndBytesWhole) {
  errno = EBADF;
  LOGStr("50% of %s");
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(Text().substr(24), "  50% of %s\n");
  const std::string text(100000, 'x'), bytes = std::string(32, '\x01') + "\x7f\x80\xff";
  LOGStr(text.c_str());
  LOGHex(text.data(), static_cast<UI4>(text.size()));
  EXPECT_EQ(Text().size(), 36 + 24 + 2 + 100000 + 1 + 24 + 100000 * 3 + 100000 / 32 + 1);
  LOGHex(bytes.data(), static_cast<UI4>(bytes.size()));
  EXPECT_TRUE(Text().ends_with(" 01 01 \n7f ff80 ffff \n"));
}

TEST_F(Log, NeverMixesOrLosesTheLinesOfSeveralThreads) {
  constexpr int kThreads = 8, kLines = 100;
  LOGSet(MODULE | 1);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      const std::string text(t % 2 ? 60 : 3000, static_cast<char>('a' + t));
      for (int i = 0; i < kLines; ++i) {
        LOG(1, ("<%s>", text.c_str()));
        InitLog(path.c_str());  // the name may be replaced at any time
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  int count = 0;
  std::istringstream lines(Text());
  for (std::string line; std::getline(lines, line); ++count) {
    const size_t at = line.find('<');
    ASSERT_NE(at, std::string::npos) << line;
    const CH1 letter = line[at + 1];
    EXPECT_EQ(line.substr(at), "<" + std::string((letter - 'a') % 2 ? 60 : 3000, letter) + ">");
  }
  EXPECT_EQ(count, kThreads * kLines);
}

TEST(LogFile, IsNeverCreated) {
  InitLog("/tmp/kyrno-log-test-never-created");
  LOGStr("lost");
  EXPECT_NE(access("/tmp/kyrno-log-test-never-created", F_OK), 0);
  InitLog("");
}

TEST(LogSetting, IsReadFromItsOptions) {
  const std::map<PCH10, UI4> options = {
      {"M0x400T4", 0},    {"/M0x400/T4", 0x404}, {"/t3/m1024", 0x403}, {"/X9/T010", 8},
      {"/T1/T2/M16", 19}, {"/M0x40f", 0x400},    {"a/T0x13//Mz/", 3},  {"/M-1", LOGMASK}};
  for (const auto& [text, setting] : options) EXPECT_EQ(LOGOption(text), setting) << text;
}

}  // namespace
