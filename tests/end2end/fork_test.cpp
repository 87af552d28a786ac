// fork_test.cpp - a process that forks while the library works: the parent goes on, and the child
// can do nothing to it.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/support/session.h"

namespace support {
namespace {

/// What a child makes of the root: the number of the first step that went wrong, or 0.
int UseInChild(const TestRoot& root) {
  alarm(kBoundMillis / 1000);  // a child that hangs is a failure as well
  if (root.Code("ASendZ", Args({"Q", 0}), "from the child") != 0) return 1;
  if (root.Code("ASendZ", Args({"Q", 3}), "from the child") != 0) return 2;
  if (root.Wait("Q", 20).code != host::kTimeout) return 3;
  if (root.Code("AClose", ".") != 0) return 4;
  return root.Code("ATree", ".") == 1006 ? 0 : 5;
}

TEST(Fork, UnderLoadLeavesTheChildMuteAndTheParentsTrafficWhole) {
  const TestRoot root;
  const int port = root.Serve("command");
  std::atomic<int> issued{0};
  std::atomic<int> asked{0};
  const std::jthread server([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      const Event event = root.Wait("S", 50);
      if (event.event != "Receive") continue;
      ++asked;
      root.Respond(event.name, "re " + event.value.Text());
    }
  });
  const auto ask = [&](const std::stop_token& stop) {  // each command has its own answer, once
    const std::string client = root.Dial("command", port, {}, "");
    while (!stop.stop_requested()) {
      Lines expected;
      for (int i = 0; i < 8; ++i) {
        const std::string value = std::to_string(issued++);
        expected.push_back("Receive " + root.Send(client, value) + " re " + value);
      }
      ASSERT_EQ(Sorted(root.Told(client, 8)), Sorted(expected));
    }
  };
  std::vector<std::jthread> clients;
  for (int i = 0; i < 3; ++i) clients.emplace_back(ask);

  RawListener listener;
  root.Dial("blktext", listener.Port(), {}, "Q");
  RawPeer peer = listener.Accept();
  for (int i = 0; i < 20; ++i) {
    const int before = issued;
    ASSERT_TRUE(Eventually([&] { return issued > before + 100; })) << "no load";
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(UseInChild(root));

    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "step " << WEXITSTATUS(status) << ", signal " << WTERMSIG(status);
    root.Send("Q", std::to_string(i));
    ASSERT_EQ(peer.Receive(Block(std::to_string(i)).size()), Block(std::to_string(i)));
  }
  clients.clear();
  EXPECT_EQ(asked, issued);
  EXPECT_EQ(root.Wait("", 0).code, 100);
}

}  // namespace
}  // namespace support
