// random_test.cpp - random bytes differ: by request, by process, and where getrandom is denied.

#include "sys/linux/random.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <set>
#include <string>
#include <thread>

namespace {

constexpr UI4 kBytes = 16;  // never the same twice by chance

std::string Draw(UI4 n) {
  std::string bytes(n + 1, '#');
  RandomBytes(reinterpret_cast<PUI1>(bytes.data()), n);
  EXPECT_EQ(bytes[n], '#') << n;
  bytes.resize(n);
  return bytes;
}

/// Every piece of 16 bytes, in requests of many sizes, is new.
void ExpectNothingTwice() {
  std::set<std::string> seen;
  size_t pieces = 0;
  for (const UI4 n : {16u, 48u, 240u, 255u, 16u, 256u, 257u, 1000u, 0u, 16u}) {
    const std::string bytes = Draw(n);
    for (UI4 at = 0; at + kBytes <= n; at += kBytes, ++pieces)
      seen.insert(bytes.substr(at, kBytes));
  }
  EXPECT_EQ(seen.size(), pieces);
}

TEST(RandomBytes, GivesNoBytesTwiceAlsoToAForkedChild) {
  ExpectNothingTwice();
  const std::unique_ptr<void, void (*)(void*)> shared(
      mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0),
      [](void* p) { munmap(p, kBytes); });
  const PUI1 theirs = static_cast<PUI1>(shared.get());
  const pid_t child = fork();
  if (child == 0) {
    RandomBytes(theirs, kBytes);
    _exit(0);
  }
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_NE(Draw(kBytes), std::string(theirs, theirs + kBytes));
}

/// From now on this thread's getrandom fails.
bool DenyGetrandom() {
  sock_filter rules[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0),  // the number of the call
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_getrandom, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program = {sizeof rules / sizeof *rules, rules};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST(RandomBytes, GivesNoBytesTwiceWhereTheSystemHasNone) {
  std::thread([] {
    ASSERT_TRUE(DenyGetrandom());
    char byte;
    ASSERT_EQ(syscall(SYS_getrandom, &byte, 1, 0), -1);
    ExpectNothingTwice();
  }).join();
}

}  // namespace
