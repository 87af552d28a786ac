// encoders_test.cpp - base64, masks and SHA-1, by known vectors.

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "util/base64.h"
#include "util/sha1.h"

namespace {

const UI1* Bytes(const std::string& text) { return reinterpret_cast<const UI1*>(text.data()); }

TEST(Encode64, GivesTheKnownVectors) {
  for (const auto& [data, text] : std::map<std::string, std::string>{
           {"f", "Zg=="}, {"foo", "Zm9v"}, {"\xff\xfe\xfb\x83", "//77gw=="}}) {
    CH1 out[] = "##########";
    EXPECT_EQ(encode64(out, Bytes(data), static_cast<UI4>(data.size())), text.size());
    EXPECT_EQ(std::string(out, text.size() + 2), text + '\0' + '#');
  }
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
  SHA1Reset(&context);
  for (size_t at = 0; at < text.size(); at += piece) {
    const std::string part = text.substr(at, piece);
    EXPECT_EQ(SHA1Input(&context, Bytes(part), static_cast<unsigned>(part.size())), shaSuccess);
  }
  UI1 digest[SHA1HashSize];
  EXPECT_EQ(SHA1Result(&context, digest), shaSuccess);
  CH1 hex[2 * SHA1HashSize];
  encodeHex(hex, digest, SHA1HashSize);
  return std::string(hex, sizeof hex);
}

TEST(Sha1, GivesTheKnownDigestsHoweverTheInputIsCut) {
  const std::map<std::string, std::string> digests = {
      {std::string(55, 'a'), "c1c8bbdc22796e28c0e15163d20899b65621d65a"},
      {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
  };
  for (const auto& [text, digest] : digests) {
    for (const size_t piece : {size_t{1}, size_t{63}, size_t{2000000}}) {
      EXPECT_EQ(Sha1(text, piece), digest) << text.size() << " by " << piece;
    }
  }
}

}  // namespace
