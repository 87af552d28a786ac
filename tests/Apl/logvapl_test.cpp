// logvapl_test.cpp - dumps of arrays, line by line.
#include "Apl/logvapl.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "Apl/vaconv.h"
#include "sys/linux/fdhold.h"
#include "tests/support/arrays.h"

namespace {

std::string Dump(const VARRAY* array, SI4 depth = 0) {
  char* text = nullptr;
  size_t size = 0;
  FILE* const stream = open_memstream(&text, &size);
  PrintAA(stream, array, depth);
  fclose(stream);
  const std::string dump(text, size);
  free(text);
  return dump;
}

TEST(ArrayDump, LaysOutEveryTypeLineByLine) {
  const UI4 two[] = {2, 2};
  const VAHOLD all =
      MakeNested(MakeVector<SI2>(VAI2, {0, -1, 2, 3, 4, 5, 6, 7, 8, 9, 1000}),
                 MakeScalar(VAF8, 2.5), MakeVector<SI4>(VAI4, {}), MakeText("50% %n"),
                 VAHOLD(VANew(VAC1, 2, two)), MakeHet(), VAHOLD(), MakeNested(Int(7)),
                 MakeVector<F8>(VA2F8, {1, 0}), VAHOLD(VANew(VABid, 0, nullptr)));
  EXPECT_EQ(Dump(all.Get()), R"(
>Array       96 Nested array                 1     1
      10
 |>Item no. 0
 | |>Array       40 Integer 2 bytes              1     1
 | |      11
 | |       0  0 -1 2 3 4 5 6 7 8 9 
 | |      10  1000 
 |>Item no. 1
 | |>Array       20 Floating-point               0     1
 | |       0  2.5 
 |>Item no. 2
 | |>Array       16 Integer 4 bytes              1     1
 | |       0
 |>Item no. 3
 | |>Array       24 Character 1 byte             1     1
 | |       6
 | |50% %n
 |>Item no. 4
 | |>Array       24 Character 1 byte             2     1
 | |       2       2
 | |String larger than 2048 bytes
 |>Item no. 5
 | |>Array       68 Heterogenous array           1     1
 | |       5
 | | |>Item no.       0 Elem type Integer 4 bytes
 | |-7
 | | |>Item no.       1 Elem type Floating-point
 | |2.5
 | | |>Item no.       2 Elem type Nested array
 | | | |>Array       20 Character 1 byte             1     1
 | | | |       4
 | | | |text
 | | |>Item no.       3 Elem type Character 1 byte
 | |c
 | | |>Item no.       4 Elem type Boolean 1 bit
 | |1
 |>Item no. 6
 | |NULL Pointer
 |>Item no. 7
 | |>Array       24 Nested array                 1     1
 | |       1
 | | |>Item no. 0
 | | | |>Array       16 Integer 4 bytes              0     1
 | | | |       0  7 
 |>Item no. 8
 | |>Array       32 Complex                      1     1
 | |       1
 | |Unknown apl type

 |>Item no. 9
 | |>Array       28 Invalid type                 0     1
 | |Unknown apl type
)");
}

TEST(ArrayDump, EndsAtTheDepthThatValuesMayHave) {
  VAHOLD deep = MakeText("bottom");
  for (UI4 i = 0; i < kMaxDepth; ++i) deep = MakeNested(std::move(deep));
  EXPECT_NE(Dump(deep.Get()).find("bottom"), std::string::npos);
  deep = MakeNested(std::move(deep));
  EXPECT_EQ(Dump(deep.Get()).find("bottom"), std::string::npos);
}

TEST(ArrayDump, GoesToTheLogBeforeAConversionAtLevelNine) {
  const FDHOLD fd(memfd_create("log", MFD_CLOEXEC));
  InitLog(("/proc/self/fd/" + std::to_string(fd.Get())).c_str());
  const auto logged = [&](UI4 setting) {
    LOGSet(setting);
    EXPECT_EQ(ftruncate(fd.Get(), 0), 0);
    VAHOLD result;
    EXPECT_EQ(VAConv(Int(7).Get(), VAF8, result.Out()), 0);
    LOGSet(0);
    std::string text(4096, 0);
    const ssize_t n = pread(fd.Get(), text.data(), text.size(), 0);
    text.resize(static_cast<size_t>(std::max<ssize_t>(n, 0)));
    return text;
  };
  const std::string dump =
      " APL Array:\n\n>Array       16 Integer 4 bytes              0     1\n       0  7 \n";
  EXPECT_NE(logged(0x04000009).find(dump), std::string::npos);
  EXPECT_EQ(logged(0x04000008).find("Array"), std::string::npos);
  InitLog(nullptr);
}

}  // namespace
