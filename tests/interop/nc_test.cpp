// nc_test.cpp - netcat as the peer of a text server and of a raw client.
#include <gtest/gtest.h>

#include <cstdio>

#include "tests/support/session.h"

namespace support {
namespace {

/// A shell command that runs beside the test.
class Shell {
 public:
  explicit Shell(const std::string& command) : pipe(popen(command.c_str(), "r")) {}
  ~Shell() {
    if (pipe) pclose(pipe);
  }
  Shell(const Shell&) = delete;
  Shell& operator=(const Shell&) = delete;

  /// What it has written at its end.
  std::string Output() {
    std::string output;
    char some[4096];
    while (const std::size_t n = fread(some, 1, sizeof some, pipe)) output.append(some, n);
    return output;
  }

 private:
  FILE* const pipe;  // owned
};

TEST(Netcat, LinesBecomeBlocks) {
  const TestRoot root;
  const int port = root.Serve("text", {{"EOM", "\n"}});
  Shell nc("printf 'a\\nb\\n' | nc -N -w 20 127.0.0.1 " + std::to_string(port));
  const std::string name = root.Next("S").name;
  EXPECT_EQ(root.Told("S", 3),
            (std::vector<std::string>{"Block " + name + " a\n", "Block " + name + " b\n",
                                      "BlockLast " + name + " "}));
}

TEST(Netcat, SeesWhatAServerSendsAndItsClose) {
  const TestRoot root;
  const int port = root.Serve("raw");
  Shell nc("nc -d -w 20 127.0.0.1 " + std::to_string(port));
  const std::string name = root.Next("S").name;
  const std::string content(500000, 'x');
  const TempFile file(content);
  root.Send(name, Args({"head ", file.Path()}));
  root.Send(name, " tail", host::kSendAndClose);
  EXPECT_TRUE(nc.Output() == "head " + content + " tail");
  EXPECT_EQ(root.Told(name), "code 1010");
}

}  // namespace
}  // namespace support
