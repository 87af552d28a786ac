// httpframing.h - where the pieces of an HTTP/1.1 stream end (RFC 9112).
//
//   state     piece                                     then
//   Head      header block up to its blank line         Head; Body by its length; ChunkLine
//   Body      Content-Length bytes                      Head
//   ChunkLine "size line, data, line end"               ChunkLine
//             line of size 0: nothing is cut            Trailer
//   Trailer   the 0 line, fields, blank line            Head
//   Broken    nothing any more
//
// A header block ends at the first CR LF CR LF or LF LF. A block whose lines end in both ways
// breaks the stream, as soon as it has an empty line of any kind: another reader could see other
// lines in it (section 11.2).
//
// It knows no socket and no clock, and keeps no bytes: whoever has them shows all since the last
// cut.
#pragma once

#include "kyrno/modes/httphead.h"

class HTTPFRAMING {
 public:
  enum KIND {
    More,  ///< the piece's head is not whole yet; show it again with more behind
    Header,
    Upgrade,  ///< a header block with "Upgrade: websocket" and, of a request, no body
    Body,
    Chunk,
    Trailer,
    Broken,  ///< 1145, and so for ever
  };
  struct PIECE {
    KIND kind;
    UI4 size;     ///< of the whole piece; what has not arrived yet is included
    UI4 lineEnd;  ///< of a Chunk: how many bytes end its line; as many, and the same, end its data
  };

  /// Of responses it is known that 1xx, 204 and 304 have no body whatever they say (section 6.3),
  /// and a block that does not begin with "HTTP/" is handed on as a header that has none: it
  /// belongs to a body that ends with the connection.
  explicit HTTPFRAMING(bool responses) : ofResponses(responses) {}

  /// The piece that begins at data, of which n bytes have arrived, n >= 0. A Body is told before
  /// its first byte is there; of length 0 there is none. With any answer but More and Broken the
  /// piece counts as cut: the next call shows what follows it.
  PIECE Next(PCH10 data, UI4 n);

 private:
  enum STATE { Head, InBody, ChunkLine, InTrailer, Stuck };

  PIECE NextHead(PCH10 data, UI4 n);
  PIECE NextChunk(PCH10 data, UI4 n);
  PIECE NextTrailer(PCH10 data, UI4 n);
  PIECE Break();
  /// Whether what begins at data is of HTTP, judged by its first line.
  bool IsMessage(PCH10 data, UI4 n) const;
  /// The next LF from `searched` on, which moves there, or to n.
  PCH10 FindLf(PCH10 data, UI4 n);
  /// The size of a block with its blank line, 0 while that has not come. One that ends in LF CR LF
  /// without a CR before is never plain.
  UI4 FindEnd(PCH10 data, UI4 n);

  const bool ofResponses;
  STATE state = Head;
  UI4 searched = 0;  // bytes from the last cut on in which no end begins
  UI4 length = 0;    // of the body that follows
};
