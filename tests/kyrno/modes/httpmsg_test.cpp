// httpmsg_test.cpp - pieces of an HTTP stream as the application gets them.
#include "kyrno/modes/httpmsg.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Apl/zblock.h"
#include "kyrno/base/error.h"
#include "tests/support/zcode.h"

namespace {

using zcode::Bytes, zcode::Simple, zcode::Text, zcode::Vector;
using zcode::FIELDS, zcode::Fields;

Bytes Header(const std::string& a, const std::string& b, const std::string& c, const FIELDS& f) {
  return zcode::Block(Vector({Text(a), Text(b), Text(c), Fields(f)}));
}

Bytes Chunk(const Bytes& data) {
  return zcode::Block(Vector({data, Simple(zcode::WC08, {0, 2}, {})}));
}

Bytes Ints(const std::string& bytes) {
  Bytes data;
  for (const char c : bytes) zcode::Add(&data, static_cast<uint8_t>(c), 2);
  return Simple(zcode::INTG, {bytes.size()}, data);
}

Bytes Raw(const std::string& piece) { return zcode::Block(Text(piece)); }

/// A Z's bytes, or the code.
Bytes Taken(SI4 code, PUI4 z) {
  if (code) return {static_cast<uint8_t>(code >> 8), static_cast<uint8_t>(code)};
  const uint8_t* const bytes = reinterpret_cast<uint8_t*>(z);
  Bytes block(bytes, bytes + ZLength(z));
  free(z);
  return block;
}
Bytes Code(SI4 code) { return Taken(code, nullptr); }

struct DECODED {
  const char* what;
  SI4 (*decode)(PCH10 piece, UI4 n, PUI4* ppZ);
  std::string piece;
  Bytes expected;
};

SI4 DecodeChars1(PCH10 piece, UI4 n, PUI4* ppZ) { return DecodeHttpChunk(piece, n, 0, ppZ); }
SI4 DecodeInts1(PCH10 piece, UI4 n, PUI4* ppZ) {
  return DecodeHttpChunk(piece, n, DecodeInts, ppZ);
}

TEST(HttpMsg, TakesPiecesApartAsTheyStand) {
  const DECODED cases[] = {
      {"request", DecodeHttpHeader, "GET /a HTTP/1.1\r\nhOST: x\r\nB:\t y \r\n\r\n",
       Header("GET", "/a", "HTTP/1.1", {{"hOST", "x"}, {"B", "y "}})},
      {"answer with LF", DecodeHttpHeader, "HTTP/1.1 404 Not Found\nA:1\n\n",
       Header("HTTP/1.1", "404", "Not Found", {{"A", "1"}})},
      {"empty lines ahead", DecodeHttpHeader, "\r\nA B C\r\nx: 1\r\n\r\n",
       Header("A", "B", "C", {{"x", "1"}})},
      {"no fields", DecodeHttpHeader, "GET\r\n\r\n", Header("GET", "", "", {})},
      {"colon in a value, empty value, no name", DecodeHttpHeader,
       "A B C\r\nx: 1:2\r\ny:\r\n: z\r\n\r\n",
       Header("A", "B", "C", {{"x", "1:2"}, {"y", ""}, {"", "z"}})},
      {"last line without a colon", DecodeHttpHeader, "A B C\r\nx: 1\r\nbad\r\n\r\n",
       Header("A", "B", "C", {{"x", "1"}, {"bad", ""}})},
      {"a name across lines uses up a row", DecodeHttpHeader, "A B C\r\nbad\r\nx: 1\r\n\r\n",
       Header("A", "B", "C", {{"bad\r\nx", "1"}, {"", ""}})},
      {"two of them leave too few lines", DecodeHttpHeader, "A B C\r\nbad\r\nbad\r\nx: 1\r\n\r\n",
       Code(ERR_HTTPDECODE)},
      {"one line", DecodeHttpHeader, "GET / HTTP/1.1\r\n", Code(ERR_HTTPDECODE)},
      {"nothing", DecodeHttpHeader, "", Code(ERR_HTTPDECODE)},

      {"trailer", DecodeHttpTrailer, "0;x\r\nA: 1\r\nB:2\n\r\n",
       zcode::Block(Fields({{"A", "1"}, {"B", "2"}}))},
      {"no trailer", DecodeHttpTrailer, "0\r\n\r\n", zcode::Block(Simple(zcode::WC08, {0, 2}, {}))},
      {"trailer without a colon", DecodeHttpTrailer, "0\r\nbad\r\n\r\n", Code(ERR_HTTPDECODE)},

      {"chunk", DecodeChars1, " 3;a=b\r\nabc\r\n", Chunk(Text("abc"))},
      {"chunk as numbers", DecodeInts1,
       "00A\r\n0123456\n\xFF"
       "9\r\n",
       Chunk(Ints("0123456\n\xFF"
                  "9"))},
      {"chunk larger than its piece", DecodeChars1, "6\r\nabc\r\n", Code(ERR_HTTPDECODE)},
      {"chunk without a size", DecodeChars1, "x\r\nabc\r\n", Code(ERR_HTTPDECODE)},
      {"chunk without a line", DecodeChars1, "3", Code(ERR_HTTPDECODE)},
  };
  for (const DECODED& c : cases) {
    SCOPED_TRACE(c.what);
    // In a block of its own: whoever reads outside is noticed.
    const std::vector<char> piece(c.piece.begin(), c.piece.end());
    PUI4 z = nullptr;
    const SI4 code = c.decode(piece.data(), static_cast<UI4>(piece.size()), &z);
    EXPECT_EQ(Taken(code, z), c.expected);
  }
}

TEST(HttpMsg, ReadsManyLinesWithoutAColonInTimeThatGrowsWithThem) {
  const UI4 rows = 2000000;
  std::string piece = "A B C\n";
  for (UI4 i = 0; i < rows; ++i) piece += "x\n";
  piece += "\n";
  PUI4 z = nullptr;
  ASSERT_EQ(DecodeHttpHeader(piece.data(), static_cast<UI4>(piece.size()), &z), 0);
  // Looking for a colon behind each of them again would take longer than a test may.
  EXPECT_LT(ZLength(z), 60 * rows + 200);
  free(z);
}

struct DELIVERED {
  const char* name;
  OBJSTATE state;
  UI4 decode;
  std::string piece;
  const char* event;
  Bytes expected;
};

TEST(HttpMsg, DeliversEachPieceUnderItsWordAsTheBitsOfTheMomentSay) {
  const std::string head = "A B C\r\nx: 1\r\n\r\n", chunk = "1\r\na\r\n", last = "0\r\n\r\n";
  const Bytes header = Header("A", "B", "C", {{"x", "1"}});
  const DELIVERED cases[] = {
      {"HTTPHeader00000000", SAPL, 0, head, "HTTPHeader", Raw(head)},
      {"HTTPHeader00000000", SAPL, 14, head, "HTTPHeader", Raw(head)},
      {"HTTPHeader123456789", SAPL, 15, head, "HTTPHeader", header},
      {"HTTPHeader00000000", SAPL, 15, "A\r\n", "HTTPFail", Raw("A\r\n")},
      {"HTTPTrailer00000001", SAPL, 2, last, "HTTPTrailer",
       zcode::Block(Simple(zcode::WC08, {0, 2}, {}))},
      {"HTTPChunk00000001", SAPL, 4, chunk, "HTTPChunk", Chunk(Text("a"))},
      {"HTTPChunk00000001", SAPL, 4 + DecodeInts, chunk, "HTTPChunk", Chunk(Ints("a"))},
      {"HTTPBody00000001", SAPL, DecodeBody, "b\xFF", "HTTPBody", Raw("b\xFF")},
      {"HTTPBody00000001", SAPL, DecodeInts, "b", "HTTPBody", Raw("b")},
      {"HTTPBody00000001", SAPL, DecodeBody | DecodeInts, "b\xFF", "HTTPBody",
       zcode::Block(Ints("b\xFF"))},
      {"WSUpgradeReq00000001", SAPL, 15, head, "WSUpgradeReq", Raw(head)},
      {"Blk00000004", SAPLLast, 15, head, "BlkLast", Raw(head)},
  };
  HIERAKI root("ROOT", nullptr);
  PHIERAKI const connection = root.AddNew("C", nullptr);
  for (const DELIVERED& c : cases) {
    for (const bool placed : {false, true}) {
      SCOPED_TRACE(testing::Message() << c.name << " " << c.decode << " " << placed);
      const UI4 n = static_cast<UI4>(c.piece.size());
      PBUFFER const buffer = new BUFFER(placed ? PlaceInZ(n) : BLOCKPLACE{0, 0, 0}, n);
      ASSERT_TRUE(buffer->Append(c.piece.data(), n));
      auto* const message = new HTTPMSG(buffer, c.state, 1, 0.0);
      message->Mode = MHttp;
      message->LastState = c.state;
      message->decode = c.decode;  // set anew while it waits
      PHIERAKI const node = connection->AddNew(c.name, message);
      ASSERT_TRUE(node);

      CH1 name[kFullNameSize + 1], event[kEventSize];
      OBJSTATE next = SFinished;
      PUI4 z = nullptr;
      const SI4 code = message->GetWaitReturns(node, name, event, &next, &z);
      EXPECT_STREQ(name, "C");
      EXPECT_STREQ(event, c.event);
      EXPECT_EQ(Taken(code, z), c.expected);
      connection->Unlink(node);
      delete node;
    }
  }
}

}  // namespace
