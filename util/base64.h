// base64.h - text encodings of bytes, and the mask of WebSocket frames.
#pragma once

#include <cstddef>

#include "sys/linux/qlntypes.h"

/// Base64 with padding and without line breaks, closed by a NUL. Result: the length of the text;
/// with out null that alone. Up to 3 GiB of data.
UI4 encode64(PCH1 out, const UI1* data, UI4 size);

/// Lower-case hexadecimal. Deliberate: no NUL is written. Result: the length of the text, twice the
/// size; with out null that alone.
UI4 encodeHex(PCH1 out, const UI1* data, UI4 size);

/// XORs the data in place with the key, repeated; keySize is at least 1. Always 0.
int mask(PCH1 data, size_t size, PCH10 key, UI4 keySize);
