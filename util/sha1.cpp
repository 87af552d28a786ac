// sha1.cpp - the SHA-1 of a stream of bytes.

#include "util/sha1.h"

#include <bit>
#include <cstring>

namespace {

constexpr unsigned kBlockBytes = sizeof(SHA1Context::Message_Block);
constexpr unsigned kLengthAt = kBlockBytes - 8;  // of the last block: the bits of the message

uint32_t Load32(const uint8_t* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

void Store32(uint8_t* p, uint32_t word) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(word >> (24 - 8 * i));
}

struct ROUND {
  uint32_t f, k;
};

ROUND RoundFunction(int t, uint32_t b, uint32_t c, uint32_t d) {
  if (t < 20) return {(b & c) | (~b & d), 0x5a827999};
  if (t < 40) return {b ^ c ^ d, 0x6ed9eba1};
  if (t < 60) return {(b & c) | (b & d) | (c & d), 0x8f1bbcdc};
  return {b ^ c ^ d, 0xca62c1d6};
}

/// Takes the full block into the hash.
void ProcessBlock(SHA1Context* context) {
  uint32_t w[80];
  for (int t = 0; t < 16; ++t) w[t] = Load32(context->Message_Block + 4 * t);
  for (int t = 16; t < 80; ++t) {
    w[t] = std::rotl(w[t - 3] ^ w[t - 8] ^ w[t - 14] ^ w[t - 16], 1);
  }

  uint32_t* const h = context->Intermediate_Hash;
  uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
  for (int t = 0; t < 80; ++t) {
    const ROUND r = RoundFunction(t, b, c, d);
    const uint32_t next = std::rotl(a, 5) + r.f + e + w[t] + r.k;
    e = d;
    d = c;
    c = std::rotl(b, 30);
    b = a;
    a = next;
  }
  h[0] += a;
  h[1] += b;
  h[2] += c;
  h[3] += d;
  h[4] += e;
  context->Message_Block_Index = 0;
}

/// Closes the message: a one bit, zeros, and the length at the end of a block.
void Pad(SHA1Context* context) {
  unsigned at = static_cast<unsigned>(context->Message_Block_Index);
  uint8_t* const block = context->Message_Block;
  block[at++] = 0x80;
  if (at > kLengthAt) {
    memset(block + at, 0, kBlockBytes - at);
    ProcessBlock(context);
    at = 0;
  }
  memset(block + at, 0, kLengthAt - at);
  Store32(block + kLengthAt, context->Length_High);
  Store32(block + kLengthAt + 4, context->Length_Low);
  ProcessBlock(context);
}

}  // namespace

int SHA1Reset(SHA1Context* context) {
  if (!context) return shaNull;
  *context = {};
  context->Intermediate_Hash[0] = 0x67452301;
  context->Intermediate_Hash[1] = 0xefcdab89;
  context->Intermediate_Hash[2] = 0x98badcfe;
  context->Intermediate_Hash[3] = 0x10325476;
  context->Intermediate_Hash[4] = 0xc3d2e1f0;
  return shaSuccess;
}

int SHA1Input(SHA1Context* context, const uint8_t* data, unsigned length) {
  if (!length) return shaSuccess;
  if (!context || !data) return shaNull;
  if (context->Computed) context->Corrupted = shaStateError;
  if (context->Corrupted) return context->Corrupted;

  const uint64_t before = uint64_t{context->Length_High} << 32 | context->Length_Low;
  const uint64_t bits = before + uint64_t{length} * 8;
  if (bits < before) return context->Corrupted = shaInputTooLong;
  context->Length_High = static_cast<uint32_t>(bits >> 32);
  context->Length_Low = static_cast<uint32_t>(bits);

  while (length) {
    const unsigned at = static_cast<unsigned>(context->Message_Block_Index);
    const unsigned n = length < kBlockBytes - at ? length : kBlockBytes - at;
    memcpy(context->Message_Block + at, data, n);
    context->Message_Block_Index = static_cast<int_least16_t>(at + n);
    if (at + n == kBlockBytes) ProcessBlock(context);
    data += n;
    length -= n;
  }
  return shaSuccess;
}

int SHA1Result(SHA1Context* context, uint8_t digest[SHA1HashSize]) {
  if (!context || !digest) return shaNull;
  if (context->Corrupted) return context->Corrupted;
  if (!context->Computed) {
    Pad(context);
    // The message may be a secret; the digest needs nothing of it any more.
    memset(context->Message_Block, 0, sizeof context->Message_Block);
    context->Length_Low = context->Length_High = 0;
    context->Computed = 1;
  }
  for (int i = 0; i < SHA1HashSize / 4; ++i) Store32(digest + 4 * i, context->Intermediate_Hash[i]);
  return shaSuccess;
}
