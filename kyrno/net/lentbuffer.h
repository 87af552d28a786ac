// lentbuffer.h - a large message whose data stay where the caller has them, for as long as the
// caller can wait: they are sent from there, and only what the socket has not taken meanwhile is
// copied.
//
//   interpreter thread   LENTBUFFER ... queued ... Own: copies what is left, then the data are the
//                                                  caller's again
//   work thread's role        Gather, send, Gathered       from the data, or from the copy
//
// Own waits for a send that is going on just now, which does not block, and for nothing else.
#pragma once

#include "kyrno/net/buffer.h"

class LENTBUFFER : public BUFFER {
 public:
  /// The head is copied; the n bytes of data are read until Own. lError is ERR_MEMORY_ALLOC when
  /// there is no memory for the copy, which is seen to now.
  LENTBUFFER(PCH10 head, UI4 headSize, PCH10 data, UI4 n);

  UI4 Gather(iovec* pieces, size_t most) override;
  void Gathered() override;

  /// For the thread that has lent the data, once, while nobody can free the buffer.
  void Own();

 private:
  const UI4 head;
  // Of a single order: who gathers says so before it looks, and Own takes the data away before it
  // asks whether somebody gathers.
  std::atomic<PCH10> pData;  // borrowed; null when all is in the buffer's own memory
  std::atomic<bool> inUse{false};
};
