// compression.cpp - streams in the formats of zlib and gzip.

#include "util/compression.h"

#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "sys/linux/fdhold.h"
#include "sys/linux/qlnplat.h"

namespace {

constexpr int kZlibBits = 15;  // the window, which is the largest
constexpr int kGzipBits = kZlibBits + 16;
constexpr int kMemLevel = 8;
constexpr UI4 CHUNK = 0x10000;

/// One stream of cflate, from the first call to the end or the abort.
///
/// Owner: the caller of cflate, who knows it as a pointer only.
struct aplses {
  Bytef* inbuffer;  // owned, from malloc: the input that s reads
  z_stream s;       // zeroed: zlib's own allocators
  bool inflates;    // constant
};

// A stream that fails to start leaves its z_stream without a state: zlib refuses every later step
// on it.
int Start(aplses* session, int op, UI4 level) {
  z_stream* const s = &session->s;
  const int deflateLevel = static_cast<int>(level);
  if (OpGZIP(op) && session->inflates && SslHas(kyrnossl.iinflateInit2_))
    return inflateInit2(s, kGzipBits);
  if (OpGZIP(op) && !session->inflates && SslHas(kyrnossl.ideflateInit2_))
    return deflateInit2(s, deflateLevel, Z_DEFLATED, kGzipBits, kMemLevel, Z_DEFAULT_STRATEGY);
  return session->inflates ? inflateInit(s) : deflateInit(s, deflateLevel);
}

int Open(int op, UI4 level, aplses** out) {
  aplses* const session = static_cast<aplses*>(calloc(1, sizeof(aplses)));
  *out = session;
  if (!session) return Z_MEM_ERROR;
  session->inflates = OpInf(op);
  return Start(session, op, level);
}

// By the stream's own direction: an abort may come from a caller who has forgotten it.
int End(aplses* session) {
  const int state = session->inflates ? inflateEnd(&session->s) : deflateEnd(&session->s);
  free(session->inbuffer);
  free(session);
  return state;
}

int TakeInput(aplses* session, const UI1* in, UI4 size) {
  if (!in) return Z_STREAM_ERROR;
  Bytef* const copy = static_cast<Bytef*>(malloc(size));
  if (!copy) return Z_MEM_ERROR;
  memcpy(copy, in, size);
  free(session->inbuffer);
  session->inbuffer = copy;
  session->s.next_in = copy;
  session->s.avail_in = size;
  return Z_OK;
}

SI4 WriteAll(int file, const Bytef* data, size_t n) {
  while (n > 0) {
    const ssize_t written = write(file, data, n);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    if (written == 0) return EIO;
    data += written;
    n -= static_cast<size_t>(written);
  }
  return 0;
}

// All that the stream yields from its input. *state is zlib's last answer.
SI4 Drain(z_stream* s, int flush, Bytef* out, int to, int* state) {
  do {
    s->next_out = out;
    s->avail_out = CHUNK;
    *state = deflate(s, flush);
    // Z_BUF_ERROR: the output had filled up exactly, and there is nothing more.
    if (*state < 0 && *state != Z_BUF_ERROR) return *state;
    if (const SI4 code = WriteAll(to, out, CHUNK - s->avail_out)) return code;
  } while (s->avail_out == 0);
  return 0;
}

SI4 DeflateFile(z_stream* s, int from, int to, Bytef* in, Bytef* out) {
  for (;;) {
    const ssize_t n = read(from, in, CHUNK);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    s->next_in = in;
    s->avail_in = static_cast<uInt>(n);
    int state = Z_OK;
    const SI4 code = Drain(s, n > 0 ? Z_NO_FLUSH : Z_FINISH, out, to, &state);
    if (code) return code;
    if (n == 0) return state == Z_STREAM_END ? 0 : Z_STREAM_ERROR;
  }
}

}  // namespace

int cflate(int op, PVOID* session, const UI1* in, PUI4 inSize, PUI1 out, PUI4 outSize, UI4 level) {
  if (!SslHas(kyrnossl.ideflate) || !SslHas(kyrnossl.iinflate)) return ERR_NO_SSL_SUPPORT;
  if (!session) return Z_STREAM_ERROR;
  if (!OpAbort(op) && (!inSize || !outSize)) return Z_STREAM_ERROR;

  aplses* ses = static_cast<aplses*>(*session);
  if (!ses) {
    const int state = Open(op, level, &ses);
    *session = ses;
    if (state != Z_OK) return state;
  }

  if (!OpAbort(op)) {
    if (OpInf(op) != ses->inflates) return Z_STREAM_ERROR;
    z_stream* const s = &ses->s;
    if (s->avail_in == 0 && *inSize > 0) {
      const int taken = TakeInput(ses, in, *inSize);
      if (taken != Z_OK) return taken;
    }
    s->next_out = out;
    s->avail_out = *outSize;
    const int flush = OpLast(op) ? Z_FINISH : Z_NO_FLUSH;
    const int state = ses->inflates ? inflate(s, flush) : deflate(s, flush);
    *outSize -= s->avail_out;
    *inSize = s->avail_in;
    if (state != Z_STREAM_END || !OpLast(op)) return state;
  }

  *session = nullptr;
  return End(ses);
}

SI4 Compress(int* file, int level, int gzip) {
  if (!SslHas(kyrnossl.ideflateInit2_) || !SslHas(kyrnossl.ideflate)) return ERR_NO_SSL_SUPPORT;
  FDHOLD to(CreateTmpfile());
  if (!to) return errno;
  if (lseek(*file, 0, SEEK_SET) < 0) return errno;
  const std::unique_ptr<Bytef[]> room(new (std::nothrow) Bytef[size_t{2} * CHUNK]);
  if (!room) return ERR_MEMORY_ALLOC;

  z_stream s;
  memset(&s, 0, sizeof s);
  const int state = deflateInit2(&s, level, Z_DEFLATED, gzip == 1 ? kGzipBits : kZlibBits,
                                 kMemLevel, Z_DEFAULT_STRATEGY);
  if (state != Z_OK) return state;
  const SI4 code = DeflateFile(&s, *file, to.Get(), room.get(), room.get() + CHUNK);
  deflateEnd(&s);
  if (code) return code;

  close(*file);
  *file = to.Release();
  return 0;
}
