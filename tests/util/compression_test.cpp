// compression_test.cpp - cflate as an interpreter drives it, and files compressed in their place.

#include "util/compression.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <string>

#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/tls/sslcontrol.h"
#include "sys/linux/fdhold.h"
#include "sys/linux/qlnplat.h"

namespace {

constexpr int kDeflate = 0, kInflate = 1, kLast = 2, kAbort = 4, kGzip = 8;
constexpr UI4 kLevel = 6;

/// The support library for as long as a test runs.
class Compression : public ::testing::Test {
 protected:
  Compression() { EXPECT_EQ(LoadKyrnossl(), 0); }
  ~Compression() override {
    SslUnload();  // as the program has begun
    UnloadKyrnossl();
  }
};

/// What a whole stream yields, its input given in pieces, its output taken by `room` bytes. The
/// text of a failing code where it fails.
std::string Cflated(int op, const std::string& data, size_t piece, UI4 room) {
  std::string all;
  PVOID session = nullptr;
  size_t at = 0;
  UI4 unread = 0;
  do {
    const std::string part = data.substr(at, piece);
    const bool last = at + part.size() == data.size();
    std::string out(room, '\0');
    UI4 inSize = unread ? unread : static_cast<UI4>(part.size());
    UI4 outSize = room;
    const int code =
        cflate(op | (last ? kLast : 0), &session, reinterpret_cast<const UI1*>(part.data()),
               &inSize, reinterpret_cast<PUI1>(out.data()), &outSize, kLevel);
    // Out of room: zlib asks for another turn.
    if (code != Z_OK && code != Z_BUF_ERROR) {
      cflate(kAbort, &session, nullptr, nullptr, nullptr, nullptr, 0);
      return "code " + std::to_string(code);
    }
    all += out.substr(0, outSize);
    unread = inSize;
    if (unread == 0) at += part.size();
    if (session && last && unread == 0 && outSize == 0) {
      cflate(kAbort, &session, nullptr, nullptr, nullptr, nullptr, 0);
      return "cut";
    }
  } while (session);
  return all;
}

std::string Sample(size_t size) {
  std::string text;
  for (UI4 i = 1; text.size() < size; i = i * 1664525 + 1013904223) {
    text += (i & 0x300000) ? "again and again " : std::to_string(i);
  }
  text.resize(size);
  return text;
}

TEST_F(Compression, GivesAStreamBackHoweverItIsCut) {
  const std::string text = Sample(6000);
  for (const int form : {0, kGzip}) {
    const std::string whole = Cflated(kDeflate | form, text, text.size(), 1 << 15);
    EXPECT_EQ(whole.substr(0, 2), form ? "\x1F\x8B" : "\x78\x9C");
    EXPECT_LT(whole.size(), text.size() / 2);
    for (const size_t piece : {size_t{1}, size_t{999}, text.size()}) {
      for (const UI4 room : {7u, 1u << 15}) {
        EXPECT_EQ(Cflated(kDeflate | form, text, piece, room), whole) << piece << " " << room;
        EXPECT_EQ(Cflated(kInflate | form, whole, piece, room), text) << piece << " " << room;
      }
    }
    EXPECT_EQ(Cflated(kInflate | form, Cflated(kDeflate | form, "", 1, 100), 1, 100), "");
    EXPECT_EQ(Cflated(kInflate | form, whole.substr(0, whole.size() - 1), 50, 1 << 15), "cut");
    EXPECT_EQ(Cflated(kInflate | form, "no stream at all", 50, 100), "code -3");
  }
  const std::string known(
      "\x1F\x8B\x08\0\0\0\0\0\x02\x03\xCB\x48\xCD\xC9\xC9\x57\xC8\x40\x90\0\x80\x88\xF9\xE5\x11\0\0"
      "\0",
      28);
  EXPECT_EQ(Cflated(kInflate | kGzip, known, 28, 100), "hello hello hello");
}

TEST_F(Compression, RefusesBadArgumentsWithoutLosingTheSession) {
  const UI1 in[] = {'a'};
  UI1 out[100];
  UI4 inSize = 1, outSize = sizeof out, none = 0;
  PVOID session = nullptr;
  EXPECT_EQ(cflate(kDeflate, nullptr, in, &inSize, out, &outSize, kLevel), Z_STREAM_ERROR);
  EXPECT_EQ(cflate(kDeflate, &session, in, nullptr, out, &outSize, kLevel), Z_STREAM_ERROR);
  EXPECT_EQ(cflate(kDeflate, &session, in, &inSize, out, nullptr, kLevel), Z_STREAM_ERROR);
  EXPECT_EQ(session, nullptr);

  EXPECT_EQ(cflate(kDeflate, &session, nullptr, &inSize, out, &outSize, kLevel), Z_STREAM_ERROR);
  EXPECT_EQ(cflate(kInflate, &session, in, &inSize, out, &outSize, kLevel), Z_STREAM_ERROR);
  EXPECT_EQ(cflate(kDeflate, &session, nullptr, &none, nullptr, &outSize, kLevel), Z_STREAM_ERROR);
  ASSERT_NE(session, nullptr);
  outSize = sizeof out;
  EXPECT_EQ(cflate(kDeflate | kLast, &session, in, &inSize, out, &outSize, kLevel), Z_OK);
  EXPECT_EQ(session, nullptr);
  EXPECT_EQ(Cflated(kInflate, std::string(reinterpret_cast<PCH1>(out), outSize), 99, 99), "a");

  EXPECT_EQ(cflate(kAbort, &session, nullptr, nullptr, nullptr, nullptr, kLevel), Z_OK);
  EXPECT_EQ(session, nullptr);
  for (const int op : {kDeflate, kDeflate, kAbort})  // a level that zlib doesn't have
    EXPECT_EQ(cflate(op, &session, in, &inSize, out, &outSize, 77), Z_STREAM_ERROR) << op;
  EXPECT_EQ(session, nullptr);
}

/// A file without a name that holds the text, its position somewhere inside.
int FileOf(const std::string& text) {
  const int file = CreateTmpfile();
  EXPECT_EQ(write(file, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  lseek(file, static_cast<off_t>(text.size() / 2), SEEK_SET);
  return file;
}

TEST_F(Compression, ReplacesAFileByItsCompressedForm) {
  for (const size_t size : {0UL, 1UL, 0x10000UL, 300000UL}) {
    const std::string text = Sample(size);
    for (const int gzip : {0, 1}) {
      for (const int level : {0, 9}) {
        const int old = FileOf(text);
        int file = old;
        errno = EAGAIN;  // of some earlier call
        ASSERT_EQ(Compress(&file, level, gzip), 0) << size << " " << gzip << " " << level;
        const FDHOLD made(file);
        EXPECT_EQ(fcntl(old, F_GETFD), -1);
        std::string stream(static_cast<size_t>(lseek(file, 0, SEEK_CUR)), '\0');
        EXPECT_EQ(pread(file, stream.data(), stream.size() + 1, 0),
                  static_cast<ssize_t>(stream.size()));
        EXPECT_EQ(Cflated(kInflate | (gzip ? kGzip : 0), stream, 1 << 20, 1 << 20), text);
      }
    }
  }
}

TEST_F(Compression, LeavesAFileThatItCannotCompressOpen) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const FDHOLD in(ends[0]), out(ends[1]);
  const FDHOLD folder(open(".", O_RDONLY | O_CLOEXEC));
  const FDHOLD plain(FileOf("text"));
  const struct {
    int file;
    int level;
    SI4 code;
  } rows[] = {{in.Get(), 6, ESPIPE},
              {folder.Get(), 6, EISDIR},
              {plain.Get(), 10, Z_STREAM_ERROR},
              {-1, 6, EBADF}};
  for (const auto& row : rows) {
    int file = row.file;
    EXPECT_EQ(Compress(&file, row.level, 1), row.code);
    EXPECT_EQ(file, row.file);
    EXPECT_EQ(fcntl(file, F_GETFD) != -1, file >= 0) << row.code;
  }

  SslUnload();
  UnloadKyrnossl();
  int file = plain.Get();
  EXPECT_EQ(Compress(&file, 6, 1), ERR_NO_SSL_SUPPORT);
  PVOID session = nullptr;
  EXPECT_EQ(cflate(kAbort, &session, nullptr, nullptr, nullptr, nullptr, 0), ERR_NO_SSL_SUPPORT);
}

}  // namespace
