// loading_test.cpp - the library as the dynamic loader treats it, and without its support library.
#include "tests/support/session.h"

namespace support {
namespace {

/// Two calls, and the compression level of a new root.
void ExpectCalls(int level) {
  const Paired t("command");
  const std::string text(5000, 'x');
  for (int i = 0; i < 2; ++i) {
    t.root.Send("C", text);
    const Event event = t.root.Next("S");
    EXPECT_EQ(event.value.Text(), text);
    t.root.Respond(event.name, text);
    EXPECT_EQ(t.root.Next("C").value.Text(), text);
  }
  EXPECT_EQ(t.root.GetProp(".", "CompLevel"), ZValue(level));
}

TEST(Loading, WithoutTheSupportLibraryEverythingPlainWorks) {
  RunApart([] {
    setenv("KYRNOSSL_LIBRARY", "/nonexistent/library.so", 1);
    ExpectCalls(0);
  });
}

TEST(Loading, ASecondExplicitLoadOrUnloadDoesNoHarm) {
  RunApart([] {
    const auto onLoad = reinterpret_cast<void (*)()>(Entry("onLoad"));
    const auto onUnload = reinterpret_cast<void (*)()>(Entry("onUnload"));
    onLoad();
    ExpectCalls(6);
    {
      const TestRoot left;  // ended by the unload, under its user
      left.Serve("command");
      onUnload();
      EXPECT_EQ(left.Wait("", 0).code, 1006);
    }
    onUnload();
    onLoad();
    ExpectCalls(6);
  });
}

TEST(Loading, CanBeRepeated) {
  RunApart([] {
    for (int i = 0; i < 10; ++i) {
      const host::Library library;
      EXPECT_EQ(library.Init("R" + std::to_string(i)), 0) << "a root that is left to the unload";
    }
  });
}

}  // namespace
}  // namespace support
