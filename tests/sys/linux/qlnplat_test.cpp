// qlnplat_test.cpp - the platform layer: INI grammar, signals, threads.

#include "sys/linux/qlnplat.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <csignal>
#include <string>
#include <thread>

#include "sys/linux/fdhold.h"

namespace {

using READ = std::pair<SI4, std::string>;

/// An INI file in memory.
class INIFILE {
 public:
  explicit INIFILE(const std::string& text) : fd(memfd_create("ini", MFD_CLOEXEC)) {
    EXPECT_EQ(write(fd.Get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    path = "/proc/self/fd/" + std::to_string(fd.Get());
  }

  /// The result of a read into a buffer of this size, and the bytes up to 8 behind it.
  READ Read(PCH10 section, PCH10 key, UI4 size) const {
    std::string out(size + 8, '#');
    const SI4 n = PLATIni(section, key, "default", out.data(), size, path.c_str());
    return {n, out};
  }
  std::string Value(PCH10 section, PCH10 key) const {
    const auto& [n, out] = Read(section, key, 511);
    return out.substr(0, static_cast<size_t>(n));
  }

 private:
  FDHOLD fd;
  std::string path;
};

TEST(PLATIni, FindsValuesByItsGrammar) {
  const struct {
    PCH10 text, section, key, value;
  } cases[] = {
      {"[S]\r\nkey=value\r\n", "s", "KEY", "value"},
      {"[S]\nkey=  a b \t\n", "S", "key", "  a b \t"},
      {"[S]\n \tkey \t= v\n", "S", "key", " v"},
      {"[S]\nkey=\nkey=later\n", "S", "key", "default"},
      {"[S]\nkey\n=\n\nkey=v\n", "S", "key", "v"},
      {"[S]\n;key=a\n ;key=b\nkey=c\n", "S", "key", "c"},
      {"[S]\nKeepAliveTime=1\nKeepAlive=2\n", "S", "KeepAlive", "1"},
      {"[abcd]\nk=1\n[abc]\nk=2\n", "abc", "k", "2"},
      {" [S]\nkey=1\n", "S", "key", "default"},
      {"[S] tail\nkey=1\n", "S", "key", "1"},
      {"[S\nkey=1\n", "S", "key", "default"},
      {"[S]\na=1\n[T]\n[S]\nkey=2\n", "S", "key", "default"},
  };
  for (const auto& c : cases) EXPECT_EQ(INIFILE(c.text).Value(c.section, c.key), c.value) << c.text;

  EXPECT_EQ(PLATIni("S", "k", "default", nullptr, 0, "/nowhere/x.ini"), 7);

  // A long line is read in pieces that are lines of their own.
  const std::string start = "key=" + std::string(INISTRSIZE - 1 - 4, 'v');
  const INIFILE file("[S]\n" + start + "tail=rest\n");
  EXPECT_EQ(file.Value("S", "key"), start.substr(4));
  EXPECT_EQ(file.Value("S", "tail"), "rest");
}

TEST(PLATIni, CutsValuesWithoutANulAndCountsTheNamesThatDontFit) {
  const INIFILE file("[One]\nab=12345\n;no=2\n ;c=3\nplain\nlong=\n[Two]\n[open\n[]\nx=1\n");
  const std::string eight(8, '#');
  const struct {
    PCH10 section, key;
    UI4 size;
    SI4 result;
    std::string out;
  } rows[] = {
      {"one", "ab", 6, 5, std::string("12345\0", 6)},
      {"one", "ab", 5, 4, "12345"},
      {"one", "ab", 0, 0, ""},
      {"one", nullptr, 20, 11, std::string("ab\0;c\0long\0\0", 12) + eight},
      {nullptr, nullptr, 20, 9, std::string("One\0Two\0\0\0", 10) + "##" + eight},
      {"one", nullptr, 8, 11, std::string("ab\0;c\0\0#", 8)},
      {"one", nullptr, 1, 11, std::string("\0", 1)},
      {"one", nullptr, 0, 11, ""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(file.Read(row.section, row.key, row.size), READ(row.result, row.out + eight));
  }
}

std::atomic<int> signalsTaken{0};

TEST(QLNSEMA, WaitsOnWhenSignalsArrive) {
  struct sigaction count = {}, before;
  count.sa_handler = [](int) { signalsTaken.fetch_add(1); };
  ASSERT_EQ(sigaction(SIGUSR1, &count, &before), 0);
  QLNSEMA sem(0, 1);
  std::atomic<SEMRETURN> result{SemOk};

  std::thread waiter([&] { result = sem.wait(); });
  for (int sent = 1; sent <= 50; ++sent) {
    pthread_kill(waiter.native_handle(), SIGUSR1);
    while (signalsTaken < sent && result == SemOk) std::this_thread::yield();
  }
  sem.release(1);
  waiter.join();

  EXPECT_EQ(result, SemReleased);
  EXPECT_EQ(signalsTaken, 50);
  sigaction(SIGUSR1, &before, nullptr);
}

UI4 BlockedSignals(PVOID) {
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  UI4 found = 0;
  for (int sig = 1; sig < 32; ++sig) found |= sigismember(&blocked, sig) == 1 ? 1U << sig : 0;
  return found;
}

TEST(QLNTHREAD, LeavesTheInterpretersSignalsAndGivesItsResult) {
  QLNTHREAD thread(BlockedSignals, nullptr);
  thread.Join();
  UI4 expected = 0;
  for (const int sig : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGALRM, 30}) expected |= 1U << sig;
  EXPECT_EQ(static_cast<UI4>(thread.lError), expected);
  EXPECT_EQ(BlockedSignals(nullptr), 0u);
}

}  // namespace
