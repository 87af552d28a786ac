// httpcompose_test.cpp - what goes out for the arrays that an application sends in mode "http".
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kyrno/base/error.h"
#include "kyrno/modes/httpconnection.h"
#include "tests/support/zcode.h"

namespace {

using zcode::Bytes, zcode::Int, zcode::Nested, zcode::Simple, zcode::Text, zcode::Vector;
using zcode::FIELDS, zcode::Fields;

Bytes Answer(const Bytes& fields, const Bytes& body) {
  return Vector({Text("HTTP/1.1"), Int(200), Text("All right"), fields, body});
}

/// All that goes out, or the code.
std::string Sent(const Bytes& block) {
  HTTPCONNECTION c(4096, MHttp);
  std::vector<UI4> z((block.size() + 3) / 4);
  memcpy(z.data(), block.data(), block.size());
  PBUFFER out = nullptr;
  const SI4 code = c.ComposeBuffer(z.data(), static_cast<UI4>(block.size()), &out);
  const std::unique_ptr<BUFFER> buffer(out);
  EXPECT_EQ(code == 0, out != nullptr);
  if (code) return std::to_string(code);
  std::string sent;
  while (!out->Complete() && !out->lError) {
    const UI4 n = out->NextSize();
    sent.append(out->Next(), n);
    out->NextProcessed(n);
  }
  return sent;
}

struct SHAPE {
  const char* what;
  Bytes array;
  std::string sent;
};

TEST(HttpCompose, SendsEachShapeAndRefusesTheOthers) {
  const FIELDS two = {{"A", "1"}, {"B", ""}};
  const Bytes none = Nested({0, 2}, {});
  const std::string line = "HTTP/1.1 200 All right\r\n";
  const SHAPE cases[] = {
      {"text", Text("GET / HTTP/1.0\r\n\r\n"), "GET / HTTP/1.0\r\n\r\n"},
      {"numbers", Simple(zcode::INTG, {2}, {0x41, 0, 0xFF, 0}), "A\xFF"},
      {"no text", Text(""), ""},
      {"a number", Int(7), "1002"},
      {"a matrix", Simple(zcode::WC08, {1, 2}, {'a', 'b'}), "1002"},
      {"a nested matrix", Nested({1, 2}, {Text("a"), Text("b")}), "1002"},
      {"three items", Vector({Text("a"), Text("b"), Text("c")}), "1038"},
      {"no items", Nested({0}, {}), "1038"},

      {"chunk", Vector({Text(std::string(26, 'x')), Fields(two)}),
       "1a;A=1;B\r\n" + std::string(26, 'x') + "\r\n"},
      {"chunk without extensions", Vector({Simple(zcode::SINT, {1}, {0xC8}), none}),
       "1\r\n\xC8\r\n"},
      {"last chunk", Vector({Text(""), Fields(two)}), "0\r\nA: 1\r\nB\r\n\r\n"},
      {"last chunk alone", Vector({Simple(zcode::BOOL, {0}, {}), none}), "0\r\n\r\n"},
      {"chunk of a scalar", Vector({Simple(zcode::WC08, {}, {'a'}), none}), "1002"},
      {"chunk of arrays", Vector({Vector({Text("a")}), none}), "1004"},
      {"chunk of real numbers", Vector({Simple(zcode::LONG, {1}, {1, 0, 0, 0}), none}), "1001"},
      {"chunk with a scalar", Vector({Text("a"), Int(1)}), "1002"},

      {"answer", Answer(Fields(two), Text("body")),
       line + "A: 1\r\nB\r\nContent-Length: 4\r\n\r\nbody"},
      {"numbers as values", Answer(Nested({1, 2}, {Text("Age"), Int(-5)}), Int(3)), "1001"},
      {"answer of bytes",
       Answer(Nested({1, 2}, {Text("Age"), Int(-5)}), Simple(zcode::SINT, {}, {9})),
       line + "Age: -5\r\nContent-Length: 1\r\n\r\n\t"},
      {"answer without a body", Answer(none, Text("")), line + "\r\n"},
      {"answer with another empty body", Answer(none, Simple(zcode::BOOL, {0}, {})), line + "\r\n"},
      {"fields in a vector", Answer(Vector({Text("A"), Text("1")}), Text("")), "1002"},
      {"three columns", Answer(Nested({1, 3}, {Text("A"), Text("1"), Text("")}), Text("")), "1038"},
      {"fields of characters", Answer(Simple(zcode::WC08, {1, 2}, {'a', 'b'}), Text("")), "1004"},
      {"first line too long",
       Vector({Text("GET"), Text(std::string(4096, '/')), Text("HTTP/1.1"), none, Text("")}),
       "1081"},
  };
  for (const SHAPE& c : cases) {
    SCOPED_TRACE(c.what);
    const Bytes block = zcode::Block(c.array);
    EXPECT_EQ(Sent(block), c.sent);
    for (const size_t cut : {1u, 8u, 16u, 40u}) {
      if (cut + 8 >= block.size()) continue;
      EXPECT_EQ(Sent(zcode::Block(Bytes(c.array.begin(), c.array.end() - static_cast<long>(cut)))),
                "1131");
    }
  }
}

TEST(HttpCompose, KeepsEveryRowOfALongHeader) {
  const std::string tail = "HTTP/1.1 200 All right\r\n";
  for (const size_t longest : {4000u, 4096u, 9000u, 250000u, 500000u, 600000u}) {
    SCOPED_TRACE(longest);
    const std::string value(longest, 'v');
    const std::string sent =
        Sent(zcode::Block(Answer(Fields({{"A", "1"}, {"Long", value}, {"B", "2"}}), Text("body"))));
    const std::string whole =
        tail + "A: 1\r\nLong: " + value + "\r\nB: 2\r\nContent-Length: 4\r\n\r\nbody";
    EXPECT_TRUE(sent == (longest > 524288 ? "1081" : whole)) << sent.size();
  }
}

class HttpComposeFile : public testing::Test {
 protected:
  ~HttpComposeFile() override {
    for (const std::string& file : files) unlink(file.c_str());
  }
  std::string Make(const std::string& content) {
    std::string name = testing::TempDir() + "httpcompose.XXXXXX";
    const int file = mkstemp(name.data());
    EXPECT_EQ(write(file, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(file);
    files.push_back(name);
    return name;
  }

 private:
  std::vector<std::string> files;
};

TEST_F(HttpComposeFile, SendsFilesBehindTheirLengthAndRefusesWhatIsNone) {
  const std::string large(300000, 'f');
  const Bytes none = Nested({0, 2}, {});
  const std::string small = Make("file"), big = Make(large), empty = Make(""), huge = Make("");
  ASSERT_EQ(truncate(huge.c_str(), 0x100000000), 0);  // without taking any room
  const std::string head = "GET / HTTP/1.1\r\nA: 1\r\n\r\n", line = "HTTP/1.1 200 All right\r\n";
  const auto Spec = [](const std::string& ahead, const std::string& name) {
    return Vector({Text(ahead), Text(name)});
  };
  const SHAPE cases[] = {
      {"behind a header", Spec(head, small),
       "GET / HTTP/1.1\r\nA: 1\r\nContent-Length: 4\r\n\r\nfile"},
      {"empty behind a header", Spec(head, empty),
       "GET / HTTP/1.1\r\nA: 1\r\nContent-Length: 0\r\n\r\n"},
      {"alone", Spec("", big), large},
      {"as a body", Answer(none, Spec("", big)), line + "Content-Length: 300000\r\n\r\n" + large},
      {"as a body behind bytes", Answer(none, Spec("ahead", small)),
       line + "Content-Length: 9\r\n\r\naheadfile"},
      {"as an empty body", Answer(none, Spec("", empty)), line + "Content-Length: 0\r\n\r\n"},
      {"in a coding of no meaning",
       Answer(none, Vector({Text(""), Text(small), Text("br"), Int(3)})),
       line + "Content-Length: 4\r\n\r\nfile"},
      {"with too many items",
       Answer(none, Vector({Text(""), Text(small), Text(""), Int(3), Int(3)})), "1001"},
      {"with too long a coding",
       Answer(none, Vector({Text(""), Text(small), Text(std::string(31, 'x'))})), "1081"},
      {"missing", Spec(head, small + "x"), "1039"},
      {"with a NUL in its name", Spec(head, small + std::string("\0x", 2)), "1039"},
      {"that is a directory", Answer(none, Spec("", "/")), "1039"},
      {"above 4 GiB", Answer(none, Spec("", huge)), "1042"},
  };
  for (const SHAPE& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string sent = Sent(zcode::Block(c.array));
    EXPECT_TRUE(sent == c.sent) << sent.substr(0, 100);
  }
}

}  // namespace
