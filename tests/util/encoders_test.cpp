// encoders_test.cpp - base64, hexadecimal, masks, SHA-1 and numbers, by known vectors.

#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <string>

#include "util/base64.h"
#include "util/itoa.h"
#include "util/sha1.h"

namespace {

const UI1* Bytes(const std::string& text) { return reinterpret_cast<const UI1*>(text.data()); }

TEST(Encode64, GivesTheKnownVectors) {
  const std::map<std::string, std::string> vectors = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foobar", "Zm9vYmFy"},
      {"\xff\xfe\xfb", "//77"},
      {std::string("\0\x10\x83\xfb\xef\xbe", 6), "ABCD++++"},
  };
  for (const auto& [data, text] : vectors) {
    CH1 out[] = "##########";
    EXPECT_EQ(encode64(out, Bytes(data), static_cast<UI4>(data.size())), text.size());
    EXPECT_EQ(encode64(nullptr, Bytes(data), static_cast<UI4>(data.size())), text.size());
    EXPECT_EQ(std::string(out, text.size() + 2), text + '\0' + '#');
  }
}

TEST(EncodeHex, WritesNoNul) {
  CH1 out[] = "#######";
  EXPECT_EQ(encodeHex(out, Bytes("\xff\x0a\x5c"), 3), 6u);
  EXPECT_STREQ(out, "ff0a5c#");
  EXPECT_EQ(encodeHex(nullptr, Bytes("ab"), 2), 4u);
}

TEST(Mask, RepeatsItsKeyOverDataOfAnyLength) {
  const std::string key = "\x01\xff\x80\x5a\x33";
  for (UI4 keySize = 1; keySize <= key.size(); ++keySize) {
    for (size_t size = 0; size <= 19; ++size) {
      std::string data(size, 'd'), expected(size, 'd');
      for (size_t i = 0; i < size; ++i) expected[i] = static_cast<char>('d' ^ key[i % keySize]);
      EXPECT_EQ(mask(data.data(), size, key.data(), keySize), 0);
      EXPECT_EQ(data, expected) << keySize << " " << size;
    }
  }
}

std::string Sha1(const std::string& text, size_t piece) {
  SHA1Context context;
  EXPECT_EQ(SHA1Reset(&context), shaSuccess);
  for (size_t at = 0; at < text.size(); at += piece) {
    const std::string part = text.substr(at, piece);
    EXPECT_EQ(SHA1Input(&context, Bytes(part), static_cast<unsigned>(part.size())), shaSuccess);
  }
  UI1 digest[SHA1HashSize];
  EXPECT_EQ(SHA1Result(&context, digest), shaSuccess);
  EXPECT_EQ(SHA1Result(&context, digest), shaSuccess);
  CH1 hex[2 * SHA1HashSize];
  encodeHex(hex, digest, SHA1HashSize);
  return std::string(hex, sizeof hex);
}

TEST(Sha1, GivesTheKnownDigestsHoweverTheInputIsCut) {
  const std::map<std::string, std::string> digests = {
      {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
      {std::string(55, 'a'), "c1c8bbdc22796e28c0e15163d20899b65621d65a"},
      {std::string(64, 'a'), "0098ba824b5c16427bd7a1122a5a442a25ec644d"},
      {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
  };
  for (const auto& [text, digest] : digests) {
    for (const size_t piece : {size_t{1}, size_t{63}, size_t{2000000}}) {
      EXPECT_EQ(Sha1(text, piece), digest) << text.size() << " by " << piece;
    }
  }
}

TEST(Sha1, RefusesInputBehindTheDigest) {
  SHA1Context context;
  UI1 digest[SHA1HashSize];
  SHA1Reset(&context);
  EXPECT_EQ(SHA1Result(&context, digest), shaSuccess);
  EXPECT_EQ(SHA1Input(&context, digest, 1), shaStateError);
  EXPECT_EQ(SHA1Result(&context, digest), shaStateError);
  EXPECT_EQ(SHA1Input(nullptr, digest, 1), shaNull);

  SHA1Reset(&context);
  context.Length_High = context.Length_Low = UINT32_MAX;
  EXPECT_EQ(SHA1Input(&context, digest, 1), shaInputTooLong);
}

TEST(PortableItoa, WritesTheDigitsOfItsBases) {
  const struct {
    int value, base;
    PCH10 text;
  } cases[] = {{0, 10, "0"},
               {-15, 10, "-15"},
               {-255, 16, "ff"},
               {48879, 16, "beef"},
               {5, 2, "101"},
               {INT_MIN, 10, "-2147483648"},
               {INT_MIN, 2, "10000000000000000000000000000000"},
               {15, 1, ""},
               {15, 17, ""}};
  for (const auto& c : cases) {
    CH1 out[34];
    EXPECT_STREQ(portableItoa(c.value, out, c.base), c.text);
  }
}

}  // namespace
