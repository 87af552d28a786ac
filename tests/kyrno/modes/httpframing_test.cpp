// httpframing_test.cpp - RFC 9112 by rows: what is cut out of which stream, however it arrives.
#include "kyrno/modes/httpframing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace {

using std::string;
using KIND = HTTPFRAMING::KIND;
constexpr KIND More = HTTPFRAMING::More, Header = HTTPFRAMING::Header,
               Upgrade = HTTPFRAMING::Upgrade, Body = HTTPFRAMING::Body, Chunk = HTTPFRAMING::Chunk,
               Trailer = HTTPFRAMING::Trailer, Broken = HTTPFRAMING::Broken;

/// Of the last piece of a stream the text may be cut short: More, Broken, or a body.
struct PIECE {
  KIND kind;
  string text;
  bool operator==(const PIECE& other) const { return kind == other.kind && text == other.text; }
};
std::ostream& operator<<(std::ostream& out, const PIECE& piece) {
  return out << "MHUBCTX"[piece.kind] << testing::PrintToString(piece.text);
}
using PIECES = std::vector<PIECE>;

/// The stream cut up, arriving in pieces of 1 to `most` bytes, or whole for 0.
PIECES Cut(const string& stream, bool responses, UI4 most) {
  HTTPFRAMING framing(responses);
  PIECES pieces;
  std::mt19937 random(most);
  size_t cut = 0;
  for (size_t came = 0; came < stream.size();) {
    const size_t left = stream.size() - came;
    came += most == 0 ? left : std::min<size_t>(left, 1 + random() % most);
    while (pieces.empty() || pieces.back().kind != Broken) {
      if (cut > came) break;  // the piece is not all there yet
      // A copy of its own, so that a sanitizer sees any look beyond what has come.
      const std::vector<char> seen(stream.begin() + static_cast<ptrdiff_t>(cut),
                                   stream.begin() + static_cast<ptrdiff_t>(came));
      const auto piece = framing.Next(seen.data(), static_cast<UI4>(seen.size()));
      if (piece.kind == More) break;
      const size_t size = piece.kind == Broken ? stream.size() : piece.size;
      pieces.push_back({piece.kind, stream.substr(cut, size)});
      cut += size;
    }
  }
  if (cut < stream.size()) pieces.push_back({More, stream.substr(cut)});
  return pieces;
}

/// The texts of the pieces, one behind the other, are the stream.
void ExpectCut(const char* what, bool responses, const PIECES& pieces) {
  string stream;
  for (const PIECE& piece : pieces) stream += piece.text;
  for (const UI4 most : {0u, 1u, 7u, 40u})
    EXPECT_EQ(Cut(stream, responses, most), pieces) << what << ", at most " << most;
}

string Post(const string& fields) { return "POST / HTTP/1.1\r\n" + fields + "\r\n"; }
string Reply(const string& status, const string& fields) {
  return "HTTP/1.1 " + status + "\r\n" + fields + "\r\n";
}

const string kLength = "Content-Length: 5\r\n";
const string kChunked = "Transfer-Encoding: chunked\r\n";
const string kUpgrade = "Connection: Upgrade\r\nUpgrade: websocket\r\n";
const string kGet = "GET / HTTP/1.1\r\n\r\n";

struct STREAM {
  const char* what;
  PIECES pieces;
};

const STREAM kRequests[] = {
    {"no body", {{Header, kGet}, {Header, kGet}}},
    {"only line feeds", {{Header, "GET / HTTP/1.1\nHost: a\n\n"}, {Header, kGet}}},
    {"empty lines before a request", {{Header, "\r\n" + kGet}}},
    {"empty lines alone", {{Header, "\r\n\r\n"}, {Header, "\n\n"}, {Header, kGet}}},
    {"unfinished", {{More, "GET / HTTP/1.1\r\nHost: a\r\n\r"}}},
    {"a length", {{Header, Post(kLength)}, {Body, "a\r\n\r\n"}, {Header, kGet}}},
    {"a body cut short", {{Header, Post(kLength)}, {Body, "abc"}}},
    {"chunks",
     {{Header, Post(kChunked)},
      {Chunk, "5\r\nhello\r\n"},
      {Chunk, "00000000a;x=y;z=\"q\"\r\n0123456789\r\n"},
      {Chunk, "1\nx\n"},
      {Chunk, " 2 \t\r\n\r\n\r\n"},
      {Trailer, "0\r\n\r\n"},
      {Header, kGet}}},
    {"a trailer",
     {{Header, Post(kChunked)}, {Trailer, "000;x\r\nA: b\r\n" + kLength + "\r\n"}, {Header, kGet}}},
    {"a trailer of line feeds", {{Header, Post(kChunked)}, {Trailer, "0\nA: b\n\n"}, {More, "x"}}},
    {"a chunk cut short", {{Header, Post(kChunked)}, {Chunk, "5\r\nhe"}}},
    {"the largest chunk", {{Header, Post(kChunked)}, {Chunk, "FFFFFFF3\r\nhe"}}},
    {"an upgrade", {{Upgrade, "GET / HTTP/1.1\r\n" + kUpgrade + "\r\n"}, {More, "\x81"}}},
    {"an upgrade to something else", {{Header, Post("Upgrade: h2c, websocket\r\n")}}},
    {"an upgrade with a length of 0", {{Upgrade, Post("Content-Length: 0\r\n" + kUpgrade)}}},
    // Refused, with nothing of the message delivered.
    {"an upgrade with a body", {{Broken, Post(kUpgrade + kLength) + "hello"}}},
    {"an upgrade with chunks", {{Broken, Post(kUpgrade + kChunked)}}},
    {"an upgrade with a bad length", {{Broken, Post(kUpgrade + "Content-Length: x\r\n")}}},
    {"a NUL", {{Broken, Post(string("A: b\0c\r\n", 8))}}},
    {"a lone CR", {{Broken, Post("A: b\rContent-Length: 5\r\n")}}},
    {"a CR before the line end", {{Broken, Post("A: b\r\r\n")}}},
    {"a fold behind the first line", {{Broken, Post(" " + kLength)}}},
    {"the same behind empty lines", {{Broken, "\r\n" + Post("\t" + kLength)}}},
    {"LF in a block of CR LF", {{Header, Post("A: b\n" + kChunked)}, {Broken, "0"}}},
    {"CR LF in a block of LF", {{Broken, "GET / HTTP/1.1\nA: b\r\nC: d\n\n"}}},
    {"LF in a block of CR LF without a body", {{Header, "GET / HTTP/1.1\nA: b\r\n\r\n"}}},
    {"CR LF LF", {{Broken, "GET / HTTP/1.1\r\n\n"}}},
    {"LF CR LF", {{Broken, "GET / HTTP/1.1\nA: b\n\r\nGET"}}},
    {"LF CR LF at the beginning", {{Broken, "\n\r\nGET"}}},
    {"later ones are found too", {{Header, kGet}, {Broken, "GET / HTTP/1.1\n\r\n"}}},
    {"a NUL in a trailer", {{Header, Post(kChunked)}, {Broken, string("0\r\nA:\0\r\n\r\n", 11)}}},
    {"a fold behind the 0 line", {{Header, Post(kChunked)}, {Broken, "0\r\n A: b\r\n\r\n"}}},
    {"mixed ends in a trailer", {{Header, Post(kChunked)}, {Broken, "0\nA: b\n\r\n"}}},
};

TEST(HttpFraming, CutsRequestsAlikeHoweverTheyArrive) {
  for (const STREAM& row : kRequests) ExpectCut(row.what, false, row.pieces);
}

const STREAM kResponses[] = {
    {"a length", {{Header, Reply("200 OK", kLength)}, {Body, "hello"}, {More, "H"}}},
    {"chunks", {{Header, Reply("200", kChunked)}, {Chunk, "1\r\nx\r\n"}, {Trailer, "0\r\n\r\n"}}},
    {"mixed ends in a trailer", {{Header, Reply("200", kChunked)}, {Broken, "0\nA: b\n\r\n"}}},
    {"never a body",
     {{Header, Reply("100 Continue", kLength)},
      {Header, Reply("199", kChunked)},
      {Header, Reply("204 No Content", "Content-Length: +5\r\n")},
      {Header, Reply("304 Not Modified", kLength)},
      {Header, Reply("304x", kLength)},
      {Body, "hello"}}},
    {"an answer to an upgrade", {{Upgrade, Reply("101 X", kUpgrade + kLength)}, {More, "\x81"}}},
    {"a refusal of one is still its answer", {{Upgrade, Reply("426 X", kUpgrade + kLength)}}},
    {"a body up to the end",
     {{Header, Reply("200 OK", "")},
      {Header, "a\n\r\nContent-Length: 5\rb\r\n\r\n"},
      {Header, " c\n\n"},
      {More, "rest\r\n"}}},
    {"an empty line before a response",
     {{Header, "\r\n" + Reply("200 OK", kLength)}, {Body, "hello"}}},
    {"a NUL", {{Broken, Reply("200 OK", string("A: \0\r\n", 6))}}},
    {"LF CR LF", {{Broken, "HTTP/1.1 200 OK\nA: b\n\r\nx"}}},
    {"LF CR LF before an unfinished one", {{More, "\n\r\nHTTP/1.1 200 OK\r\n"}}},
};

TEST(HttpFraming, CutsResponsesByTheirStatusToo) {
  for (const STREAM& row : kResponses) ExpectCut(row.what, true, row.pieces);
}

struct FIELDS {
  const char* fields;
  char then;  // what follows the header: 'N' none, 'L' five bytes, 'C' chunks, 'X' refused
};

const FIELDS kFields[] = {
    // Lengths.
    {"content-LENGTH:5\r\n", 'L'},
    {"Content-Length: \t 5 \t\r\n", 'L'},
    {"Content-Length: 00000000000000000005\r\n", 'L'},
    {"Content-Length: 0\r\n", 'N'},
    {"Content-Length: 5\r\nX: y\r\nContent-Length: 5\r\n", 'L'},
    {"Content-Length: 5\r\nContent-Length: 6\r\n", 'X'},
    {"Content-Length: 0\r\nContent-Length: 5\r\n", 'X'},
    {"Content-Length: 5, 5\r\n", 'X'},
    {"Content-Length: +5\r\n", 'X'},
    {"Content-Length: -5\r\n", 'X'},
    {"Content-Length: 0x5\r\n", 'X'},
    {"Content-Length: 5.\r\n", 'X'},
    {"Content-Length: 5 0\r\n", 'X'},
    {"Content-Length: 5\v\r\n", 'X'},
    {"Content-Length:\r\n", 'X'},
    {"Content-Length: 4294967296\r\n", 'X'},
    {"Content-Length: 18446744073709551621\r\n", 'X'},
    // Codings.
    {"transfer-ENCODING:CHUNKED\r\n", 'C'},
    {"Transfer-Encoding:\tchunked \r\n", 'C'},
    {"Transfer-Encoding: xchunked\r\n", 'X'},
    {"Transfer-Encoding: \"chunked\"\r\n", 'X'},
    {"Transfer-Encoding: chunked, identity\r\n", 'X'},
    {"Transfer-Encoding: gzip, chunked\r\n", 'X'},
    {"Transfer-Encoding: identity\r\n", 'X'},
    {"Transfer-Encoding:\r\n", 'X'},
    {"Transfer-Encoding: \vchunked\r\n", 'X'},
    {"Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n", 'X'},
    {"Transfer-Encoding: chunked\r\nTransfer-Encoding: cow\r\n", 'X'},
    // Both.
    {"Content-Length: 5\r\nTransfer-Encoding: chunked\r\n", 'X'},
    {"Transfer-Encoding: chunked\r\nContent-Length: 0\r\n", 'X'},
    // Names that a careless reader takes for others.
    {"Content-Length : 5\r\n", 'X'},
    {"Transfer-Encoding\t: chunked\r\n", 'X'},
    {"Transfer-Encoding\v: chunked\r\n", 'X'},
    {"Transfer-Encoding\r\n : chunked\r\n", 'X'},
    {"X: y\r\n Transfer-Encoding: chunked\r\n", 'X'},
    {"X: y\r\n\tContent-Length: 5\r\n", 'X'},
    {"X-Content-Length: 5\r\n", 'N'},
    {"Content-Length-X: 5\r\n", 'N'},
    {"X: Content-Length: 5\r\n", 'N'},
    // Folding (section 5.2).
    {"X: y\r\n z\r\n", 'N'},
    {"Content-Length: 5\r\n 0\r\n", 'X'},
    {"Content-Length:\r\n 5\r\n", 'X'},
    {"Transfer-Encoding:\r\n\tchunked\r\n", 'X'},
    {"Transfer-Encoding: chunked\r\n \r\n", 'X'},
};

PIECES Behind(char then) {
  switch (then) {
    case 'N':
      return {{Header, kGet}};
    case 'L':
      return {{Body, "0\r\n\r\n"}, {Header, kGet}};
    case 'C':
      return {{Trailer, "0\r\n\r\n"}, {Header, kGet}};
    default:
      return {{Broken, "0\r\n\r\n" + kGet}};
  }
}

TEST(HttpFraming, NeverFindsABodyThatAnotherReaderWouldEndElsewhere) {
  for (const FIELDS& row : kFields) {
    for (const bool responses : {false, true}) {
      PIECES pieces = Behind(row.then);
      const string fields = string("Host: a\r\n") + row.fields + "Y: z\r\n";
      const string head = responses ? Reply("200 OK", fields) : Post(fields);
      pieces.insert(pieces.begin(), {Header, head});
      ExpectCut(row.fields, responses, pieces);
    }
  }
  ExpectCut("no coding in HTTP/1.0", false,
            {{Header, "POST / HTTP/1.0\r\n" + kChunked + "\r\n"}, {Broken, "0"}});
  ExpectCut("no coding in HTTP/1.0 with a blank behind it", false,
            {{Header, "POST / HTTP/1.0 \r\n" + kChunked + "\r\n"}, {Broken, "0"}});
  ExpectCut("a first line is no field", false, {{Header, kLength + "\r\n"}, {Header, kGet}});
}

TEST(HttpFraming, RefusesChunkLinesThatAreNotASize) {
  const string lines[] = {
      "\r\n",           ";x\r\n",
      "x\r\n",          "-1\r\n",
      "+5\r\n",         "0x5\r\n",
      "5 5\r\n",        "5 x\r\n",
      "5x\r\n",         "5\v\r\n",
      "5\r\r\n",        "5;\rx\r\n",
      "5;x\n",          "100000000\r\n",
      "5,5\r\n",        string("5\0\r\n", 4),
      "\"5\"\r\n",      "5;\r;\r\n",
      "FFFFFFFF\r\n",   "FFFFFFF4\r\n",
      "hello\r\n5\r\n", string("5;\0\r\n", 5),
  };
  for (const string& line : lines)
    ExpectCut(line.c_str(), false,
              {{Header, Post(kChunked)}, {Chunk, "1\r\nx\r\n"}, {Broken, line + "hello\r\n"}});
}

TEST(HttpHead, FindsFieldsByTheirWholeNameInLinesBehindTheFirst) {
  const string head =
      "\r\nHost: no\r\nX-Host: no\r\nA: Host: no\r\nhOST:\t a b \r\nHost:\r\nHost: c,, d "
      ",E\r\n\r\n";
  const UI4 n = static_cast<UI4>(head.size());
  UI4 from = 0;
  HTTPTEXT value;
  std::vector<string> values;
  while (FindHdr(head.data(), n, "Host:", &from, &value))
    values.emplace_back(value.text, value.length);
  EXPECT_EQ(values, (std::vector<string>{"a b", "", "c,, d ,E"}));

  EXPECT_TRUE(isHdr(head.data(), n, "Host:", "A B"));
  EXPECT_FALSE(isHdr(head.data(), n, "Host:", "a"));
  for (const char* item : {"A B", "C", "D", "e"})
    EXPECT_TRUE(isHdrM(head.data(), n, "host:", item)) << item;
  EXPECT_FALSE(isHdrM(head.data(), n, "Host:", "no"));

  const HTTPTEXT first = FirstLine(head.data(), n);
  EXPECT_EQ(string(first.text, first.length), "Host: no");
}

}  // namespace
