// buffer.h - the one byte container: an array with a single moving position.
//
//   pBuf                 Offset               Size
//    |----- processed -----|---- still to do ----|
//    |---- memory that is there ----|                  held
//
// What lies in front of Offset has been received, or sent. Size is what the buffer is to hold in
// the end. The two differ from the memory behind it: a size that a peer only claims is not given
// memory before the bytes arrive. No operation reads or writes outside that memory.
//
// A placed buffer receives straight into a block that is handed out afterwards. It counts `lead`
// bytes in front that it never had, and leaves room around the rest for whoever finishes the block:
//
//   counts     0 - - - - lead         Size
//   memory     |- front -|- received -|- tail -|
//              Block     Start
#pragma once

#include <sys/uio.h>

#include <atomic>
#include <cstddef>

#include "kyrno/net/stoplist.h"
#include "sys/linux/qlntypes.h"
#include "util/pool.h"

class BUFFER;
using PBUFFER = BUFFER*;

/// The largest piece that one Write moves, and the size of a file's window; read when a buffer is
/// made. Never 0.
inline std::atomic<UI4> BufferBlkSize{131072};

/// Where the bytes of a placed buffer go.
struct BLOCKPLACE {
  UI4 lead;   ///< bytes at the beginning that count as processed from the start and have no memory
  UI4 front;  ///< memory in front of the first byte behind the lead, which the counts leave out
  UI4 tail;   ///< the same behind the last byte
};

/// Bytes on their way in or out.
///
/// Owner:   one MESSAGE, COMMAND, RELAY, UDP or CONNECTION, which deletes it.
/// Threads: one at a time. The interpreter's until the owner is in the tree, then the work thread,
///          the interpreter's again while the owner is in SProcessing. A lister on any thread may
///          read the counts of SizeProcessed and TotalSize at any time: they are tallies.
/// Errors:  lError. Its owner tests it after construction, after Append and Resize, and a sender
///          after each NextProcessed. Counts out of range are cut to what is there.
class BUFFER : public POOLED {
 public:
  struct LAZYTAG {};
  static constexpr LAZYTAG LAZY{};

  /// An empty buffer to receive into, or to append to. Up to kEagerBytes the memory is there at
  /// once, above that it grows with the bytes. No memory leaves ERR_MEMORY_ALLOC and a size of 0.
  explicit BUFFER(UI4 size);
  /// The same without memory before the first byte: Room and Append find out whether there is any.
  BUFFER(LAZYTAG, UI4 size);
  /// A placed buffer; size counts the lead. No memory leaves ERR_MEMORY_ALLOC. It is there to be
  /// received into and handed out: Room, NextProcessed, Append, Rewind and the counts go by the
  /// place; searches, Take, Drop, Mask and Resize are for other buffers.
  BUFFER(const BLOCKPLACE& where, UI4 size);
  /// A copy of data, ready to be sent. Null data is no bytes.
  BUFFER(UI4 size, PCH10 data);
  virtual ~BUFFER();
  /// An empty buffer with memory for all of its n bytes, to be written through Start(); a small one
  /// is a single piece with its bytes, which cannot be released. Null without memory.
  static PBUFFER NewWhole(UI4 n);
  BUFFER(const BUFFER&) = delete;
  BUFFER& operator=(const BUFFER&) = delete;

  /// Bytes moved by n, true when everything is done now. A derived class may refill here and may
  /// fail at that: see lError.
  virtual BOOL NextProcessed(UI4 n);

  /// Where a reader may put the next bytes, and how many: at least 1 unless the buffer is full, at
  /// most Remaining(). It reports them with NextProcessed. ERR_MEMORY_ALLOC leaves the buffer as
  /// it was, with *n 0.
  [[nodiscard]] SI4 Room(PCH1* at, PUI4 n);
  /// Memory for the whole of the first n bytes, for those who write through Start() themselves.
  /// n beyond the size is ERR_LENGTH.
  [[nodiscard]] SI4 Reserve(UI4 n);

  /// The first byte with memory, and the byte at the position; null while there is no memory.
  PCH1 Start() { return At(place.lead); }
  PCH1 Next() { return At(SizeProcessed()); }
  /// What a sender may take now: at most Blksize bytes.
  UI4 NextSize() const;
  /// Whether more comes into the array once this is sent: nothing else may go out right behind it.
  virtual bool Refills() const { return false; }
  /// The same as pieces of one write, of `most` bytes at most; their number, up to kPieces, and 1
  /// at least. Gathered follows when the write is over.
  static constexpr UI4 kPieces = 2;
  virtual UI4 Gather(iovec* pieces, size_t most);
  virtual void Gathered() {}
  UI4 SizeProcessed() const { return Offset.load(std::memory_order_relaxed); }
  UI4 TotalSize() const { return Size.load(std::memory_order_relaxed); }
  UI4 Remaining() const;
  BOOL Complete() const { return SizeProcessed() == TotalSize(); }
  /// Back to the first byte with memory.
  void Rewind() { SetOffset(place.lead); }
  /// The whole buffer goes in one piece, as a datagram must.
  void AllInOne() { Blksize = TotalSize(); }

  /// The memory, its front included; null while there is none.
  PCH1 Block() { return pBuf; }
  /// Gives the memory of a complete buffer away, for BlockFree or free; null of another one. The
  /// counts stay, the bytes are gone.
  [[nodiscard]] PCH1 ReleaseBlock();

  /// Copies as much of n bytes as still fits and moves on. True when full.
  BOOL AppendP(PCH10 data, UI4 n);
  /// The same, for a caller who knows that all of it fits.
  BOOL Append(PCH10 data, UI4 n) { return AppendP(data, n); }

  /// The end of the first message in the processed bytes: the count up to and including the stop,
  /// or -1. The earliest start wins, and at one start the item that comes first in the list.
  /// Letters match in either case when ignoreCase is set. *found, when asked for, gets the item.
  ///
  /// Starts before `from` are passed over. So that bytes which trickle in are not searched again
  /// and again, the caller may give what SearchedTo(list) answered right after a search that found
  /// nothing, less what was dropped since; or the result of a search, to look for the next stop.
  SI4 FindStop(const LIST* list, bool ignoreCase, PITEM* found, UI4 from = 0) const;
  /// The first start that a later search with the same list still has to try, when this one found
  /// nothing.
  UI4 SearchedTo(const LIST* list) const;
  /// -1 for every list of items with bytes in them, 0 when one of them is empty.
  SI4 FindStop1(const LIST* list, bool ignoreCase, PITEM* found) const;

  /// The start of the text in the processed bytes, or its end with `after`, or -1. Without `after`,
  /// an occurrence at the very beginning is passed over.
  SI4 FindAsc(PCH10 text, bool after, bool ignoreCase) const;
  /// The start of the bytes behind the position, or their end with `after`, counted from the
  /// position, or -1.
  SI4 FindBin1(PCH10 bytes, SI4 len, bool after) const;

  /// Changes the size; the content that fits and the position stay. Returns the new size, or the
  /// old one with lError set.
  UI4 Resize(UI4 size);
  /// Removes the first n bytes: the rest moves to the front and the position with it. The size
  /// stays.
  void Drop(UI4 n);
  /// A copy of n bytes as a complete buffer that the caller owns, or null without memory. The
  /// source keeps its bytes: Drop removes them. Together the two cut a message off the front; a
  /// series of them is cut fastest with a rising `from` and one Drop at the end.
  PBUFFER Take(UI4 n, UI4 from = 0) const;
  /// XORs the whole array with the key, wherever the position is. An empty key changes nothing.
  void Mask(const UI1* key, UI4 keyLength);

  SI4 lError = 0;

  /// Above this a buffer's memory follows the bytes that arrive.
  static constexpr UI4 kEagerBytes = 16u << 20;

 protected:
  void SetOffset(UI4 n) { Offset.store(n, std::memory_order_relaxed); }
  void SetSize(UI4 n) { Size.store(n, std::memory_order_relaxed); }
  /// The bytes in use that have memory behind them.
  UI4 InMemory() const;

 private:
  bool Hold(UI4 need);
  PCH1 At(UI4 n) const { return pBuf ? pBuf + place.front + (n - place.lead) : nullptr; }

  std::atomic<UI4> Size{0};
  std::atomic<UI4> Offset{0};
  UI4 Blksize;
  UI4 written = 0;  // end of the bytes that may have content; Drop moves no more than that
  BLOCKPLACE place{0, 0, 0};  // constant after construction
  UI4 held = 0;               // bytes of memory between front and tail
  bool onePiece = false;      // pBuf is behind this object and goes with it
  PCH1 pBuf = nullptr;        // owned
};
