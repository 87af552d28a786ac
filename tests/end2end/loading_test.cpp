// loading_test.cpp - the library as the dynamic loader treats it, and without its support library.
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/session.h"

namespace support {
namespace {

void Check(bool holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "%s\n", what);
  exit(1);
}

/// A call, its answer, and the compression level of a new root.
void CallOnce(int level) {
  const TestRoot root;
  const int port = root.Serve("command");
  root.Dial("command", port);
  const std::string text(5000, 'x');
  for (int i = 0; i < 2; ++i) {
    root.Send("C.a" + std::to_string(i), text);
    host::Event event = root.Next("S");
    if (event.event == "Connect") event = root.Next("S");
    Check(event.value.Text() == text, "the command arrives");
    root.Respond(event.name, text);
    Check(root.Next("C").value.Text() == text, "the answer arrives");
  }
  Check(root.GetProp(".", "CompLevel") == host::ZValue(level), "the level fits");
}

TEST(Loading, WithoutTheSupportLibraryEverythingPlainWorks) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto run = [] {
    setenv("KYRNOSSL_LIBRARY", "/nonexistent/library.so", 1);
    CallOnce(0);
    exit(0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST(Loading, ASecondExplicitLoadOrUnloadDoesNoHarm) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto run = [] {
    const auto onLoad = reinterpret_cast<void (*)()>(Entry("onLoad"));
    const auto onUnload = reinterpret_cast<void (*)()>(Entry("onUnload"));
    onLoad();
    CallOnce(6);
    {
      const TestRoot left;  // ended by the unload, under its user
      left.Serve("command");
      onUnload();
      Check(left.Wait("", 0).code == 1006, "the root has gone");
    }
    onUnload();
    onLoad();
    CallOnce(6);
    exit(0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST(Loading, CanBeRepeated) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto run = [] {
    for (int i = 0; i < 10; ++i) {
      const host::Library library;
      Check(library.Init("R" + std::to_string(i)) == 0, "a root is made, left to the unload");
    }
    exit(0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace support
