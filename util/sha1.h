// sha1.h - the SHA-1 of a stream of bytes, with the interface of RFC 3174. The WebSocket handshake
// asks for it; nothing here relies on it for security.
#pragma once

#include <cstdint>

enum { shaSuccess = 0, shaNull = 1, shaInputTooLong = 2, shaStateError = 3 };

inline constexpr int SHA1HashSize = 20;

struct SHA1Context {
  uint32_t Intermediate_Hash[SHA1HashSize / 4];
  uint32_t Length_Low;   ///< bits so far
  uint32_t Length_High;  ///< and their upper half
  int_least16_t Message_Block_Index;
  uint8_t Message_Block[64];
  int Computed;   ///< the digest stands: input is refused until a reset
  int Corrupted;  ///< the error that spoilt the context, or 0
};

int SHA1Reset(SHA1Context* context);
int SHA1Input(SHA1Context* context, const uint8_t* data, unsigned length);

/// May be asked for more than once.
int SHA1Result(SHA1Context* context, uint8_t digest[SHA1HashSize]);
