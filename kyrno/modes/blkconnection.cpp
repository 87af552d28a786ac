// blkconnection.cpp - modes "blkraw" and "blktext".
#include "kyrno/modes/blkconnection.h"

#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/modes/message.h"
#include "kyrno/net/bufferfile.h"
#include "sys/linux/fdhold.h"
#include "util/itoa.h"
#include "util/wire.h"

static constexpr UI4 MODULE = 0x00000080;

namespace {

constexpr UI4 kWord = 4;

}  // namespace

BLKCONNECTION::BLKCONNECTION(UI4 magic, UI4 maxBlockSize, OBJMODE mode)
    : Magic(magic), MaxBlockSize(maxBlockSize) {
  Begin(mode);
}

BLKCONNECTION::BLKCONNECTION(UI4 magic, UI4 maxBlockSize, OBJMODE mode, PRPCSOCK socket)
    : CONNECTION(socket), Magic(magic), MaxBlockSize(maxBlockSize) {
  Begin(mode);
}

void BLKCONNECTION::Begin(OBJMODE mode) {
  Mode = mode;
  headSize = Magic ? 2 * kWord : kWord;
}

PBUFFER BLKCONNECTION::NewHeader() { return new (std::nothrow) BUFFER(headSize); }

SI4 BLKCONNECTION::ComposeBuffer(PUI1 data, UI4 n, int file, PBUFFER* out) {
  *out = nullptr;
  FDHOLD owned(file);
  struct stat st;
  st.st_size = 0;
  if (owned && fstat(owned.Get(), &st) != 0) return ERR_FILE;

  const UI4 magic = Magic;
  const UI4 head = magic ? 2 * kWord : kWord;
  const UI8 total = UI8{head} + n + static_cast<UI8>(st.st_size);
  if (total > UINT32_MAX) return ERR_SIZE;
  CH1 header[2 * kWord];
  PutUI4(header, static_cast<UI4>(total));
  PutUI4(header + kWord, magic);

  const PCH10 bytes = reinterpret_cast<PCH10>(data);
  std::unique_ptr<BUFFER> buffer;
  if (owned) {
    buffer.reset(new (std::nothrow) BUFFERFILE(head, header, n, bytes, owned.Get()));
    if (buffer) (void)owned.Release();
  } else {
    buffer.reset(new (std::nothrow) BUFFER(head + n));
    if (buffer && !buffer->lError) {
      buffer->lError = buffer->Reserve(head + n);
      buffer->Append(header, head);
      if (bytes) buffer->Append(bytes, n);
      buffer->Rewind();
    }
  }
  if (!buffer) return ERR_MEMORY_ALLOC;
  if (buffer->lError) return buffer->lError;
  *out = buffer.release();
  return 0;
}

SI4 BLKCONNECTION::HeaderComplete(PFDSETS sets, PHIERAKI item) {
  // The magic may have come or gone since the header got its size: what was read decides.
  const UI4 head = pHeader->TotalSize();
  pHeader->Rewind();
  const UI4 length = GetUI4(pHeader->Start());
  const UI4 received = head > kWord ? GetUI4(pHeader->Start() + kWord) : 0;
  LOG(4, ("Connection %s received block size %d %d ", item->GetName(), length, received));

  const UI4 magic = Magic;
  if (magic && received && received != magic) return ERR_WRONG_MAGIC;
  if (length > MaxBlockSize) return ERR_MAX_BLOCK_SIZE;
  if (length < head) return ERR_WRONG_MAGIC;

  // Text comes straight into the block that the application gets.
  const BLOCKPLACE place = Mode == MBlkAscii ? PlaceInZ(length - head) : BLOCKPLACE{0, 0, 0};
  std::unique_ptr<BUFFER> body(new (std::nothrow) BUFFER(place, length - head));
  if (!body || body->lError) return ERR_MEMORY_ALLOC;
  const bool empty = body->Complete();
  std::unique_ptr<MESSAGE> message(new (std::nothrow) MESSAGE(body.get(), SReceiving, sets->now));
  if (!message) return ERR_MEMORY_ALLOC;
  (void)body.release();
  message->Mode = OBJMODE{Mode};
  CH1 name[kMaxName];
  NumberedName(name, "Blk", Count++);
  PHIERAKI const child = item->AddNew(name, message.get());
  if (!child) return ERR_NAME_IN_USE;
  PBUFFER const buffer = message.release()->GetBuffer();
  if (empty) return ReadComplete(sets, child);
  Receive(child, buffer);
  return 0;
}
