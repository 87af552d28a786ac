// qlnplat_test.cpp - the platform layer: INI grammar, semaphores, threads, interfaces.

#include "sys/linux/qlnplat.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "kyrno/base/error.h"
#include "sys/linux/fdhold.h"

namespace {

/// An INI file in memory.
class INIFILE {
 public:
  explicit INIFILE(const std::string& text) : fd(memfd_create("ini", MFD_CLOEXEC)) {
    EXPECT_EQ(write(fd.Get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    path = "/proc/self/fd/" + std::to_string(fd.Get());
  }

  std::string Value(PCH10 section, PCH10 key) const {
    CH1 out[512] = {};
    const SI4 n = PLATIni(section, key, "default", out, sizeof out - 1, path.c_str());
    return std::string(out, static_cast<size_t>(n));
  }

  /// The result of a read into a buffer of this size, and the bytes behind it.
  std::pair<SI4, std::string> Read(PCH10 section, PCH10 key, UI4 size) const {
    std::string out(size + 8, '#');
    const SI4 n = PLATIni(section, key, "", out.data(), size, path.c_str());
    return {n, out};
  }

 private:
  FDHOLD fd;
  std::string path;
};

TEST(PLATIni, FindsValuesByItsGrammar) {
  const struct {
    PCH10 text, section, key, value;
  } cases[] = {
      {"[S]\nkey=value\n", "s", "KEY", "value"},
      {"[S]\r\nkey=value\r\n", "S", "key", "value"},
      {"[S]\nkey=value", "S", "key", "value"},
      {"[S]\nkey=  a b \t\n", "S", "key", "  a b \t"},
      {"[S]\n \tkey \t= v\n", "S", "key", " v"},
      {"[S]\nkey=a=b;c\n", "S", "key", "a=b;c"},
      {"[S]\nkey=\nkey=later\n", "S", "key", "default"},
      {"[S]\nkey\n=\n\nkey=v\n", "S", "key", "v"},
      {"[S]\n;key=a\n ;key=b\nkey=c\n", "S", "key", "c"},
      {"[S]\nKeepAliveTime=1\nKeepAlive=2\n", "S", "KeepAlive", "1"},
      {"[S]\nKeep=1\n", "S", "KeepAlive", "default"},
      {"[S]\n=key=v\n", "S", "key", "key=v"},
      {"[abcd]\nk=1\n[abc]\nk=2\n", "abc", "k", "2"},
      {" [S]\nkey=1\n", "S", "key", "default"},
      {"[S] tail\nkey=1\n", "S", "key", "1"},
      {"[S\nkey=1\n", "S", "key", "default"},
      {"[S]\n[T]\nkey=1\n", "S", "key", "default"},
      {"[S]\na=1\n[T]\n[S]\nkey=2\n", "S", "key", "default"},
      {"", "S", "key", "default"},
  };
  for (const auto& c : cases) EXPECT_EQ(INIFILE(c.text).Value(c.section, c.key), c.value) << c.text;

  EXPECT_EQ(PLATIni("S", "k", "default", nullptr, 0, "/nowhere/x.ini"), 7);
  EXPECT_EQ(PLATIni("S", "k", nullptr, nullptr, 0, nullptr), 0);
}

TEST(PLATIni, ReadsALongLineInPiecesThatAreLinesOfTheirOwn) {
  const std::string start = "key=" + std::string(INISTRSIZE - 1 - 4, 'v');
  const INIFILE file("[S]\n" + start + "tail=rest\n");

  EXPECT_EQ(file.Value("S", "key"), start.substr(4));
  EXPECT_EQ(file.Value("S", "tail"), "rest");
}

TEST(PLATIni, CutsAValueToItsBufferWithoutANul) {
  const INIFILE file("[S]\nkey=12345\n");
  using READ = std::pair<SI4, std::string>;

  EXPECT_EQ(file.Read("S", "key", 6), READ(5, std::string("12345\0########", 14)));
  EXPECT_EQ(file.Read("S", "key", 5), READ(4, "12345########"));
  EXPECT_EQ(file.Read("S", "key", 2), READ(1, "12########"));
  EXPECT_EQ(file.Read("S", "key", 0), READ(0, "########"));
}

TEST(PLATIni, ListsNamesAndCountsThoseThatDontFit) {
  const INIFILE file("[One]\nab=1\n;no=2\n ;c=3\nplain\nlong=\n[Two]\n[open\n[]\nx=1\n");
  using READ = std::pair<SI4, std::string>;

  EXPECT_EQ(file.Read("one", nullptr, 20),
            READ(11, std::string("ab\0;c\0long\0\0", 12) + std::string(16, '#')));
  EXPECT_EQ(file.Read(nullptr, nullptr, 20),
            READ(9, std::string("One\0Two\0\0\0", 10) + std::string(18, '#')));
  EXPECT_EQ(file.Read("one", nullptr, 8), READ(11, std::string("ab\0;c\0\0#########", 16)));
  EXPECT_EQ(file.Read("one", nullptr, 1), READ(11, std::string("\0########", 9)));
  EXPECT_EQ(file.Read("one", nullptr, 0), READ(11, "########"));
}

TEST(PLATEnvironment, CutsAndClosesTheValue) {
  setenv("KYRNO_TEST", "12345", 1);
  CH1 out[] = "#########";

  EXPECT_EQ(PLATEnvironment("KYRNO_TEST", "", out, 4), 3);
  EXPECT_EQ(std::string(out, 5), std::string("123\0#", 5));
  unsetenv("KYRNO_TEST");
  EXPECT_EQ(PLATEnvironment("KYRNO_TEST", "deflt", out, 6), 5);
  EXPECT_STREQ(out, "deflt");
}

TEST(PrependConfigDir, LeavesAPathAlone) {
  const PCH10 value = getenv("HOME");
  const std::string before = value ? value : "";
  setenv("HOME", "/home/apl", 1);
  const std::unique_ptr<CH1, decltype(&free)> name(PrependConfigDir("kyrno.ini"), free);
  const std::unique_ptr<CH1, decltype(&free)> path(PrependConfigDir("./kyrno.ini"), free);

  EXPECT_STREQ(name.get(), "/home/apl/.tessor/kyrno.ini");
  EXPECT_STREQ(path.get(), "./kyrno.ini");
  unsetenv("HOME");
  EXPECT_EQ(PrependConfigDir("kyrno.ini"), nullptr);
  if (value) setenv("HOME", before.c_str(), 1);
}

TEST(QLNSEMATO, TakesWhatWasPostedAndThenTimesOut) {
  QLNSEMATO sem(1, 1000);

  EXPECT_EQ(sem.release(0), SemOk);
  EXPECT_EQ(sem.release(static_cast<UI4>(-1)), SemOk);
  EXPECT_EQ(sem.release(2), SemOk);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(sem.wait(999), SemReleased);
  EXPECT_EQ(sem.wait(0), SemTimeout);
  const F8 before = Micros();
  EXPECT_EQ(sem.wait(20), SemTimeout);
  EXPECT_GE(Micros() - before, 19000);
  EXPECT_EQ(sem.count, 0u);
}

std::atomic<int> signalsTaken{0};

TEST(QLNSEMA, WaitsOnWhenSignalsArrive) {
  struct sigaction count {};
  struct sigaction before {};
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

UI4 BlockedSignals(PVOID out) {
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  auto* const found = static_cast<std::set<int>*>(out);
  for (int sig = 1; sig < 32; ++sig) {
    if (sigismember(&blocked, sig) == 1) found->insert(sig);
  }
  return 77;
}

TEST(QLNTHREAD, LeavesTheInterpretersSignalsAndGivesItsResult) {
  std::set<int> inThread, inMaker;

  QLNTHREAD thread(BlockedSignals, &inThread);
  thread.Join();
  BlockedSignals(&inMaker);

  EXPECT_EQ(thread.Ended, 1u);
  EXPECT_EQ(thread.lError, 77);
  EXPECT_EQ(inThread, (std::set<int>{SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGALRM, 30}));
  EXPECT_EQ(inMaker, std::set<int>());
}

TEST(QLNTHREAD, IsNotWaitedForInAForkedChild) {
  QLNSEMA go(0, 1);
  QLNTHREAD thread([](PVOID sem) { return static_cast<UI4>(static_cast<PQLNSEMA>(sem)->wait()); },
                   &go);

  const pid_t child = fork();
  if (child == 0) {
    thread.Join();
    _exit(42);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 42);

  EXPECT_EQ(thread.Ended, 0u);
  go.release(1);
  thread.Join();
  EXPECT_EQ(thread.lError, SemReleased);
}

TEST(QLNLIB, TellsWhyAFileDoesNotOpen) {
  const std::string tooLong(5000, 'x');
  for (const PCH10 name : {"/nowhere/lib.so", "missing.so", tooLong.c_str()}) {
    for (const SI4 beside : {0, -1}) {
      CH1 error[1024] = {};
      const QLNLIB lib(beside, name, error);
      EXPECT_EQ(lib.hLib, nullptr);
      EXPECT_STRNE(error, "");
      EXPECT_EQ(lib.fptr("malloc"), nullptr);
    }
  }
}

TEST(QLNIpv4, WalksTheAddressesAndStartsOver) {
  QLNIpv4 list;
  bool loopback = false;
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < list.count; ++i) {
      list.Extract();
      ASSERT_NE(list.ip, nullptr);
      EXPECT_EQ(list.ip->ss_family, AF_INET);
      if (strcmp(list.IpAddr, "127.0.0.1") == 0) loopback = list.mask == 8;
      EXPECT_EQ(list.Next(), i + 1 < list.count ? 0 : ERR_NO_DATA);
    }
    list.Extract();
    EXPECT_EQ(list.ip, nullptr);
    EXPECT_EQ(list.Next(), 0);
  }
  EXPECT_TRUE(loopback);
}

TEST(Platform, ATemporaryFileHasNoName) {
  const FDHOLD file(CreateTmpfile());
  struct stat info {};
  ASSERT_EQ(fstat(file.Get(), &info), 0);
  EXPECT_EQ(info.st_nlink, 0u);
}

TEST(Platform, TheBannerRespectsItsBuffer) {
  CH1 out[100] = "#####";
  GetDLLVersion(out, 3);
  EXPECT_EQ(std::string(out, 5), std::string("Ky\0##", 5));
  GetDLLVersion(out, sizeof out);
  EXPECT_EQ(strlen(out), 57u);
  EXPECT_TRUE(std::string(out).starts_with("Kyrno version 3.2.1503.0"));
}

}  // namespace
