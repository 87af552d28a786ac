// httphead.h - what the header block of an HTTP message says, as far as its framing and an upgrade
// depend on it.
//
// A block is the bytes of a message up to and including its blank line, lines ended by CR LF or by
// LF. Its first line is the first that is not empty. A field counts only by its name at the start
// of a line behind that: nothing inside a value, a longer name or the first line is taken for one,
// so that no other reader of the same bytes sees another field (RFC 9112, sections 5 and 11.2).
//
// Nothing here allocates, keeps anything, or knows a socket.
#pragma once

#include "sys/linux/qlntypes.h"

/// Bytes of a header block, without the blanks and tabs around them.
struct HTTPTEXT {
  PCH10 text;
  UI4 length;
};

/// The value of the next field of that name, which ends in its colon ("Upgrade:"), case not
/// regarded. The search begins at *from, 0 for the first, and moves it behind the field's line.
bool FindHdr(PCH10 head, UI4 n, PCH10 name, PUI4 from, HTTPTEXT* value);
/// Whether the first field of that name has this value as a whole, case not regarded.
bool isHdr(PCH10 head, UI4 n, PCH10 name, PCH10 value);
/// Whether one item of the comma-separated lists of all fields of that name is this value.
bool isHdrM(PCH10 head, UI4 n, PCH10 name, PCH10 value);
/// The first line that is not empty, without its line end.
HTTPTEXT FirstLine(PCH10 head, UI4 n);

/// How the end of a message's body is found.
struct HTTPBODY {
  enum KIND {
    None,
    Length,
    Chunked,
    Bad,  ///< two readers could see different ends
  } kind;
  UI4 length;  ///< of Length, above 0
};

/// RFC 9112, section 6.3, with all that it lets a reader choose refused: a Content-Length that is
/// empty, signed, not all digits, above 32 bits or repeated with another value; a length beside a
/// transfer coding; a coding other than exactly "chunked", more than one, or one in HTTP/1.0, which
/// knows none; one of the two names in disguise, behind or before blanks or signs or without its
/// colon, or with a folded value; one of them in a block with lines of both kinds of end.
HTTPBODY BodyOf(PCH10 head, UI4 n);

/// Whether other readers find the block's end and its fields in the same places: it ends in CR LF
/// CR LF, or in LF LF with no CR LF before; no NUL, no CR without LF, no first field that begins
/// with a blank.
bool IsPlainHead(PCH10 head, UI4 n);

/// The size of a chunk from its line, which ends in LF: blanks, hexadecimal digits, then blanks or
/// an extension. False without a digit, above 32 bits, with anything else, or with an extension
/// that LF alone ends (section 7.1).
bool ParseChunkSize(PCH10 line, UI4 n, PUI4 size);
