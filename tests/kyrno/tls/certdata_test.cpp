// certdata_test.cpp - bytes from arrays and files.
#include "kyrno/tls/certdata.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "kyrno/base/kyrnossl.h"
#include "kyrno/tls/sslcontrol.h"
#include "tests/support/arrays.h"

namespace {

using namespace std::string_literals;

/// A folder of files that goes with the test.
class CertData : public ::testing::Test {
 protected:
  CertData() { EXPECT_EQ(LoadKyrnossl(), 0); }
  ~CertData() override {
    for (const std::string& path : paths) remove(path.c_str());
    rmdir(folder);
    SslUnload();
    UnloadKyrnossl();
  }

  std::string File(const std::string& content) {
    const std::string path = Name();
    FILE* const file = fopen(path.c_str(), "w");
    fwrite(content.data(), 1, content.size(), file);
    fclose(file);
    return path;
  }
  std::string Name() {
    paths.push_back(std::string(folder) + "/" + std::to_string(paths.size()));
    return paths.back();
  }

  char pattern[32] = "/tmp/kyrno_certdata_XXXXXX";
  const char* const folder = mkdtemp(pattern);
  std::vector<std::string> paths;
};

std::string TextOf(const CERTBYTES& bytes) {
  return std::string(reinterpret_cast<PCH10>(bytes.Get().data), bytes.Get().size);
}

TEST_F(CertData, TakesBytesOfVectorsOfBytesAlone) {
  const struct {
    const char* what;
    VAHOLD array;
    std::string bytes;
  } cases[] = {
      {"characters", MakeText("a\x80\xff"), "a\x80\xff"},
      {"bytes", MakeVector<SI1>(VAI1, {97, -128, -1}), "a\x80\xff"},
      {"low bytes", MakeVector<SI2>(VAI2, {97, 128, -1, 0x7f00 + 'b'}),
       "a\x80\xff"
       "b"},
      {"nothing", MakeText(""), ""},
      {"numbers", MakeVector<SI4>(VAI4, {97}), ""},
      {"a scalar", MakeScalar<CH1>(VAC1, 'a'), ""},
      {"a list", MakeNested(MakeText("a")), ""},
  };
  for (const auto& c : cases)
    EXPECT_EQ(TextOf(CERTBYTES::OfArray(c.array.Get())), c.bytes) << c.what;
}

TEST_F(CertData, ReadsWholeFilesAndNothingElse) {
  EXPECT_EQ(TextOf(CERTBYTES::OfFile(File("a\0b\n"s).c_str())), "a\0b\n"s);
  const std::string large = File("a"), pipe = Name();
  ASSERT_EQ(truncate(large.c_str(), (16 << 20) + 1), 0);
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& path :
       {large, pipe, File(""), Name(), std::string(folder), ""s, "/dev/zero"s})
    EXPECT_TRUE(CERTBYTES::OfFile(path.c_str()).IsEmpty()) << path;
}

}  // namespace
