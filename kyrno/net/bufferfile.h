// bufferfile.h - a file of any size sent through one array, without the sender knowing.
//
//   | leading parts | file ...            array, filled once at construction
//          ... file |                     every later turn: what is left, up against the end
//
// Whenever the array has been sent and the file has more, it is filled again so that the last byte
// of the file lands exactly at the array's end. So Complete() tells the end of a file as well.
#pragma once

#include "kyrno/net/buffer.h"
#include "sys/linux/fdhold.h"

/// A buffer to be sent: leading bytes, then a file.
///
/// Owner:   as BUFFER's. It owns the descriptor from its constructor on, also when that fails.
/// Errors:  lError is ERR_FILE for what is no file with a length, and after a NextProcessed that
///          could not read what the file once held; nothing more can be sent then.
class BUFFERFILE final : public BUFFER {
 public:
  explicit BUFFERFILE(int file);
  BUFFERFILE(UI4 n, PCH10 p, int file);
  BUFFERFILE(UI4 n1, PCH10 p1, UI4 n2, PCH10 p2, int file);

  BOOL NextProcessed(UI4 n) override;
  bool Refills() const override { return foff < fsize; }

  QLNoff_t Filesize() const { return fsize; }

 private:
  SI4 Open(UI4 n1, PCH10 p1, UI4 n2, PCH10 p2);
  SI4 Fill(UI4 at, UI4 n);

  const FDHOLD file;
  QLNoff_t foff = 0;   // how far it has been read
  QLNoff_t fsize = 0;  // its length at construction: later growth is not sent
};
using PBUFFERFILE = BUFFERFILE*;
