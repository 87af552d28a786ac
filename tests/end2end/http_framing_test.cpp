// http_framing_test.cpp - mode "http": which events a stream gives, good or bad, at servers and
// clients.
#include <algorithm>
#include <filesystem>
#include <random>

#include "tests/support/session.h"

namespace support {
namespace {

/// An event and its text. A code instead of the word is an "Error", and the text is what was sent
/// without being delivered.
struct Piece {
  std::string word;
  std::string text;
};

/// The texts, one behind the other, are the stream. Each shows its defect with its last byte.
struct Stream {
  const char* what;
  std::vector<Piece> pieces;
};

constexpr std::size_t kBufferSize = 200;
const std::string kRequest = "POST / HTTP/1.1\r\n";
const std::string kResponse = "HTTP/1.1 200 OK\r\n";

std::string Head(const std::string& fields) { return kRequest + fields + "\r\n"; }

/// A header block of this size.
std::string Filled(std::size_t size) {
  const std::string head = Head("A: \r\n");
  return Head("A: " + std::string(size - head.size(), 'a') + "\r\n");
}

const std::string kChunked = Head("Transfer-Encoding: chunked\r\n");
const std::string kLength = "Content-Length: 5\r\n";

const Stream kStreams[] = {
    {"nothing", {{"1119", ""}}},
    {"no bodies", {{"HTTPHeader", Head("")}, {"HTTPHeader", Head("A: b\r\n")}, {"BlkLast", "POS"}}},
    {"line feeds", {{"HTTPHeader", kRequest.substr(0, 15) + "\n\n"}, {"BlkLast", "\r\n"}}},
    {"a length",
     {{"HTTPHeader", Head(kLength)},
      {"HTTPBody", "\r\n\r\nx"},
      {"HTTPHeader", Head("")},
      {"1119", ""}}},
    {"chunks",
     {{"HTTPHeader", kChunked},
      {"HTTPChunk", "5;a=b\r\nhello\r\n"},
      {"HTTPChunk", "2\n\r\n\n"},
      {"HTTPTrailer", "0\r\nA: b\r\n\r\n"},
      {"HTTPHeader", Head("")},
      {"BlkLast", "0"}}},
    {"larger than the buffer",
     {{"HTTPHeader", Head("Content-Length: 1000\r\n")},
      {"HTTPBody", std::string(1000, 'b')},
      {"HTTPHeader", kChunked},
      {"HTTPChunk", "3e8\r\n" + std::string(1000, 'c') + "\r\n"},
      {"1119", ""}}},
    {"a head that fills the buffer", {{"HTTPHeader", Filled(kBufferSize)}, {"1119", ""}}},
    {"a body cut short", {{"HTTPHeader", Head(kLength)}, {"1119", "hell"}}},
    {"a body without a byte", {{"HTTPHeader", Head(kLength)}, {"1119", ""}}},
    {"a body that is only claimed",
     {{"HTTPHeader", Head("Content-Length: 4294967295\r\n")}, {"1119", "x"}}},
    {"a chunk cut short", {{"HTTPHeader", kChunked}, {"1119", "5\r\nhello\r"}}},
    {"a head over the buffer", {{"1135", Filled(kBufferSize + 1).substr(0, kBufferSize)}}},
    {"a chunk line over it",
     {{"HTTPHeader", kChunked}, {"1135", "5;" + std::string(kBufferSize - 2, 'x')}}},
    {"a chunk without its line end",
     {{"HTTPHeader", kChunked}, {"HTTPChunk", "5\r\nhello\r\r"}, {"1145", ""}}},
    {"a chunk of 2^32", {{"HTTPHeader", kChunked}, {"1145", "100000000\r\n"}}},
    {"a bad length behind good messages",
     {{"HTTPHeader", Head("")},
      {"HTTPHeader", Head(kLength)},
      {"HTTPBody", "hello"},
      {"HTTPHeader", Head("Content-Length: -1\r\n")},
      {"1145", ""}}},
    {"a NUL", {{"HTTPHeader", Head("")}, {"1145", Head(std::string("A: \0\r\n", 6))}}},
    {"two ways to end a line", {{"1145", Head("A: b\n")}}},
    {"an upgrade that is none", {{"1140", Head("Upgrade: websocket\r\n")}}},
};

/// Sends pieces of 1 to `most` bytes, each when the one before has been read; 0 sends all at once.
void SendIn(RawPeer& peer, std::string_view bytes, std::size_t most) {
  if (most == 0) return peer.Send(bytes);
  std::mt19937 random(static_cast<unsigned>(most));
  while (!bytes.empty()) {
    const std::size_t n = std::min<std::size_t>(bytes.size(), 1 + random() % most);
    peer.SendApart(bytes.substr(0, n), n);
    bytes.remove_prefix(n);
  }
}

/// The stream of a server's peer, or of a client's.
template <class TEST>
void Expect(const Stream& stream, TEST& t, const std::string& name, std::size_t most,
            const std::string& firstLine) {
  std::string bytes;
  Lines expected;
  for (Piece piece : stream.pieces) {
    if (piece.text.starts_with(kRequest)) piece.text.replace(0, kRequest.size(), firstLine);
    bytes += piece.text;
    const bool error = isdigit(piece.word[0]);
    expected.push_back(error ? "Error " + name + " " + piece.word
                             : piece.word + " " + name + " " + piece.text);
  }
  expected.push_back("code 1010");

  SendIn(t.peer, bytes, most);
  const std::string& end = stream.pieces.back().word;
  if (end == "BlkLast" || end == "1119") t.peer.Close();
  EXPECT_EQ(t.root.Told(name, static_cast<int>(expected.size())), expected)
      << stream.what << ", at most " << most;
}

TEST(HttpFraming, GivesTheSameEventsHoweverAStreamArrives) {
  const Options options{{"BufferSize", static_cast<int>(kBufferSize)}};
  for (const Stream& stream : kStreams) {
    for (const std::size_t most : {0u, 1u, 30u}) {
      Served served("http", options);
      Expect(stream, served, served.name, most, kRequest);
      Dialled dialled("http", options);
      // As long as a request line, so that sizes stay what they are.
      Expect(stream, dialled, "C", most, kResponse);
    }
  }
}

TEST(HttpFraming, DeliversALargeBodyAsOne) {
  std::string body(20 << 20, '\0');  // of which not all has its memory from the beginning
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 31 >> 3);
  const std::string fields = "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n";
  const auto expect = [&](auto& t, const std::string& name, const std::string& firstLine) {
    t.peer.Send(firstLine + fields + body + firstLine);
    EXPECT_EQ(t.root.Told(name), "HTTPHeader " + name + " " + firstLine + fields);
    const Event told = t.root.Next(name);
    EXPECT_EQ(told.event, "HTTPBody");
    EXPECT_TRUE(told.value.Bytes() == body);
    t.peer.Close();
    EXPECT_EQ(t.root.Told(name), "BlkLast " + name + " " + firstLine);
  };
  Served served("http");
  expect(served, served.name, kRequest);
  Dialled dialled("http");
  expect(dialled, "C", kResponse);
}

std::ptrdiff_t Threads() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

TEST(HttpFraming, GivesSilentPeersADescriptorAndNoThread) {
  AllowDescriptors();
  Served t("http");
  const std::ptrdiff_t before = Threads();
  std::vector<RawPeer> silent;
  for (int i = 0; i < 1000; ++i) {
    silent.emplace_back(t.port).Send("GET / HTTP/1.1\r\nUpgrade: websocket\r\nConn");
    EXPECT_EQ(t.root.Next("S").event, "Connect");
  }
  EXPECT_EQ(Threads(), before);
  t.peer.Send(Head(kLength) + "hello");
  EXPECT_EQ(t.root.Told("S", 2),
            (Lines{"HTTPHeader " + t.name + " " + Head(kLength), "HTTPBody " + t.name + " hello"}));
}

}  // namespace
}  // namespace support
