// nc_test.cpp - netcat as the peer of a text server and of a raw client.
#include <cstdio>
#include <future>

#include "tests/support/session.h"

namespace support {
namespace {

/// What a shell command, which runs beside the test, has written at its end.
std::future<std::string> Shell(const std::string& command) {
  return std::async(std::launch::async, [command] {
    FILE* const pipe = popen(command.c_str(), "r");
    std::string output;
    char some[4096];
    while (const std::size_t n = fread(some, 1, sizeof some, pipe)) output.append(some, n);
    pclose(pipe);
    return output;
  });
}

TEST(Netcat, LinesBecomeBlocks) {
  const TestRoot root;
  const int port = root.Serve("text", {{"EOM", "\n"}});
  const auto nc = Shell("printf 'a\\nb\\n' | nc -N -w 20 127.0.0.1 " + std::to_string(port));
  const std::string name = root.Next("S").name;
  EXPECT_EQ(root.Told("S", 3),
            (Lines{"Block " + name + " a\n", "Block " + name + " b\n", "BlockLast " + name + " "}));
}

TEST(Netcat, SeesWhatAServerSendsAndItsClose) {
  const TestRoot root;
  const int port = root.Serve("raw");
  auto nc = Shell("nc -d -w 20 127.0.0.1 " + std::to_string(port));
  const std::string name = root.Next("S").name;
  const std::string content(500000, 'x');
  const TempFile file(content);
  root.Send(name, Args({"head ", file.path}));
  root.Send(name, " tail", host::kSendAndClose);
  EXPECT_TRUE(nc.get() == "head " + content + " tail");
  EXPECT_EQ(root.Told(name), "code 1010");
}

}  // namespace
}  // namespace support
