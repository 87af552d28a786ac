// httpcompose.cpp - HTTP messages from arrays. A body is copied once, from the application's block
// into the buffer that is sent. A file is read where it is sent.
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "Apl/vaget.h"
#include "Apl/zblock.h"
#include "kyrno/base/error.h"
#include "kyrno/modes/httpconnection.h"
#include "kyrno/net/bufferfile.h"
#include "sys/linux/fdhold.h"
#include "util/compression.h"
#include "util/freed.h"
#include "util/itoa.h"

namespace {

constexpr UI4 STARTSIZE = 4096;           // for a header block; the first line has no more
constexpr UI4 kLastGrowthBytes = 262144;  // rows make a buffer above this no larger
constexpr UI4 kLengthLineBytes = 50;      // at most, of a Content-Length line and an empty one
constexpr UI4 kCodingSize = 31;           // of a content encoding, with its NUL
constexpr UI4 kMaxLevel = 9;
constexpr CH1 CRLF[] = "\r\n";
constexpr CH1 OWS[] = " ";

SI4 MakeRoom(PBUFFER out, UI4 n) {
  if (n <= out->Remaining()) return 0;
  const UI4 size = out->SizeProcessed() + n;
  return out->Resize(size) == size ? 0 : ERR_MEMORY_ALLOC;
}

/// Room for one more row: the buffer doubles, up to 512 KiB. A header beyond that is a mistake.
SI4 MakeRoomForRow(PBUFFER out, UI8 n) {
  while (n > out->Remaining()) {
    if (out->TotalSize() > kLastGrowthBytes) return ERR_APL_LENGTH;
    const UI4 size = out->TotalSize() * 2;
    if (out->Resize(size) != size) return ERR_MEMORY_ALLOC;
  }
  return 0;
}

void Put(PBUFFER out, PCH10 text) { out->Append(text, static_cast<UI4>(strlen(text))); }

/// Puts the text of an element, without its terminator, for which there must be room as well.
SI4 PutText(const VARRAY* array, UI4 index, PBUFFER out) {
  const PCH10 text = out->Next();
  const SI4 code = VAGetCH1(array, index, out->Next(), out->Remaining(), VACHAR);
  if (code) return code;
  // Characters may be zeros, the digits of a number are not.
  UI4 n = 0;
  if (VAGetLen(array, index, &n, VABIN) != 0) n = static_cast<UI4>(strlen(text));
  out->NextProcessed(n);
  return 0;
}

/// An element of a nested matrix, where an empty array of any type is empty text.
struct CELL {
  const VARRAY* matrix;
  UI4 index;

  bool IsEmpty() const {
    const VARRAY* const array = VAOwned(matrix, index);
    return array && VACount(array) == 0;
  }
  /// At least what Put needs.
  SI4 Room(UI8* n) const {
    UI4 length = 0;
    const SI4 code = IsEmpty() ? 0 : VAGetLen(matrix, index, &length, VACHAR);
    *n += UI8{length} + 1;
    return code;
  }
  SI4 Put(PBUFFER out) const { return IsEmpty() ? 0 : PutText(matrix, index, out); }
};

void PutLength(PBUFFER out, UI4 length) {
  Put(out, "Content-Length: ");
  CH1 digits[11];
  PutDigits(digits, length, 1);
  Put(out, digits);
  Put(out, CRLF);
}

/// What is formatted, the bytes of a body and a tail as one buffer.
SI4 Join(BUFFER* head, const ZVIEW& body, PCH10 tail, PBUFFER* out) {
  const UI4 tailSize = static_cast<UI4>(strlen(tail));
  const UI8 size = UI8{head->SizeProcessed()} + body.count + tailSize;
  if (size > UINT32_MAX) return ERR_SIZE;
  std::unique_ptr<BUFFER> all(BUFFER::NewWhole(static_cast<UI4>(size)));
  if (!all) return ERR_MEMORY_ALLOC;

  all->Append(head->Start(), head->SizeProcessed());
  if (body.count > 0) {
    if (const SI4 code = ViewBytes(body, reinterpret_cast<PUI1>(all->Next()))) return code;
    all->NextProcessed(body.count);
  }
  all->Append(tail, tailSize);
  all->Rewind();
  *out = all.release();
  return 0;
}

/// Two parts and a file, of which the peer is told that it has so many bytes.
SI4 JoinFile(UI4 n1, PCH10 p1, UI4 n2, PCH10 p2, FDHOLD* file, UI8 fileSize, PBUFFER* out) {
  if (UI8{n1} + n2 + fileSize > UINT32_MAX) return ERR_SIZE;
  std::unique_ptr<BUFFERFILE> all(new (std::nothrow) BUFFERFILE(n1, p1, n2, p2, file->Get()));
  if (!all) return ERR_MEMORY_ALLOC;
  (void)file->Release();
  if (all->lError) return all->lError;
  // It may have changed just now: the next message would begin where the peer does not expect it.
  if (static_cast<UI8>(all->Filesize()) != fileSize) return ERR_FILE;
  *out = all.release();
  return 0;
}

/// A header block, the length of the file, the file; without a block the file alone.
SI4 ComposeFile(PCH10 head, UI4 n, FDHOLD* file, PBUFFER* out) {
  struct stat st;
  if (fstat(file->Get(), &st) != 0 || !S_ISREG(st.st_mode)) return ERR_FILE;
  const UI8 size = static_cast<UI8>(st.st_size);
  if (size > UINT32_MAX) return ERR_SIZE;
  if (n == 0) return JoinFile(0, nullptr, 0, nullptr, file, size, out);

  BUFFER length(kLengthLineBytes);
  if (length.lError) return length.lError;
  PutLength(&length, static_cast<UI4>(size));
  Put(&length, CRLF);
  const UI4 blankLine = n < 2 ? n : 2;
  return JoinFile(n - blankLine, head, length.SizeProcessed(), length.Start(), file, size, out);
}

/// A vector of items that is to be sent. Its data, which may be large, stay where the caller has
/// them unless they are nested.
class PARTS {
 public:
  /// The items begin at `at`, and the data are this one.
  SI4 Read(PUI4 z, UI4 size, UI4 at, UI4 count, UI4 place) {
    for (UI4 i = 0; i < count; ++i) {
      const UI4 start = at;
      ZVIEW view;
      if (!ViewNext(z, size, &at, &view)) return ERR_ARCHITECTURE;
      if (i == place) data = view;
      if (i == place && view.type != VAPntr) continue;
      at = start;
      const SI4 code = Unpack(reinterpret_cast<PCH10>(z), size, &at, held[i].Out());
      if (code) return code;
      items[i] = held[i].Get();
    }
    return at == size ? 0 : ERR_ARCHITECTURE;
  }

  static constexpr UI4 kMost = 5;
  ZVIEW data{};
  PAA items[kMost] = {};  // null for data that were not unpacked

 private:
  VAHOLD held[kMost];
};

/// One chunk, or, with no data, the last one and the trailer.
SI4 ComposeChunk(const PARTS& parts, PBUFFER* out) {
  if (parts.data.count > 0 && parts.data.type == VAPntr) return ERR_DOMAIN;
  const bool last = parts.data.count == 0;
  BUFFER head(STARTSIZE);
  if (head.lError) return head.lError;
  CH1 digits[10] = {};
  std::to_chars(digits, digits + sizeof digits - 1, parts.data.count, 16);
  Put(&head, digits);
  if (last) Put(&head, CRLF);
  SI4 code = FmtMat(parts.items[1], last ? "" : ";", last ? ": " : "=", last ? CRLF : "", &head);
  if (code == 0) code = MakeRoom(&head, sizeof CRLF);
  if (code) return code;
  if (!last) Put(&head, CRLF);
  return Join(&head, last ? ZVIEW{} : parts.data, CRLF, out);
}

/// A message whose body is a file.
SI4 ComposeFileMessage(PAA* items, UI4 level, PBUFFER* out) {
  PUI1 bytes = nullptr;
  UI4 n = 0, fileSize = 0;
  int opened = -1;
  SI4 code = GetFilehandle(items[4], &bytes, &n, &opened, &fileSize, level);
  if (code) return code;
  const BYTES ahead(bytes);
  FDHOLD file(opened);

  BUFFER head(STARTSIZE);
  if (head.lError) return head.lError;
  code = FmtHeader(items, &head, n + fileSize);
  if (code) return code;
  // An application cannot know that a file is empty, and a peer would wait for what follows.
  if (n + fileSize == 0) return ComposeFile(head.Start(), head.SizeProcessed(), &file, out);
  return JoinFile(head.SizeProcessed(), head.Start(), n, reinterpret_cast<PCH10>(bytes), &file,
                  fileSize, out);
}

SI4 ComposeMessage(PARTS* parts, UI4 level, PBUFFER* out) {
  const bool empty = parts->data.count == 0;
  if (!empty && parts->data.type == VAPntr) return ComposeFileMessage(parts->items, level, out);
  BUFFER head(STARTSIZE);
  if (head.lError) return head.lError;
  const SI4 code = FmtHeader(parts->items, &head, parts->data.count);
  return code ? code : Join(&head, empty ? ZVIEW{} : parts->data, "", out);
}

/// Opens the file of a description, in the coding that it asks for.
SI4 OpenCoded(PAA spec, UI4 level, int* file) {
  CH1 coding[kCodingSize] = {};
  SI4 ownLevel = 0, code = 0;
  const UI4 count = VACount(spec);
  if (count > 2) code = VAGetCH1(spec, 2, coding, sizeof coding, VACHAR);
  if (code == 0 && count > 3) code = VAGetSI4(spec, 3, &ownLevel);
  if (code) return code;
  if (count > 3) level = static_cast<UI4>(ownLevel);

  int opened = -1;
  code = OpenNamed(spec, &opened);
  if (code) return code;
  const bool gzip = strcasecmp(coding, "gzip") == 0;
  if (gzip || strcasecmp(coding, "deflate") == 0)
    code = Compress(&opened, static_cast<int>(std::min(level, kMaxLevel)), gzip);
  if (code)
    close(opened);
  else
    *file = opened;
  return code;
}

}  // namespace

SI4 HTTPCONNECTION::ComposeBuffer(PUI4 z, UI4 size, PBUFFER* out) {
  *out = nullptr;
  UI4 at = 0;
  ZVIEW top;
  if (!ViewNext(z, size, &at, &top)) return ERR_ARCHITECTURE;
  if (top.type != VAPntr && top.rank == 1) return CONNECTION::ComposeBuffer(z, size, out);
  if (top.rank != 1 || (top.count != 2 && top.count != PARTS::kMost)) {
    const VAHOLD array(UnpackZ(z));
    if (!array) return ERR_ARCHITECTURE;
    return top.rank != 1 ? ERR_RANK : ERR_INDEX;
  }

  PARTS parts;
  SI4 code = parts.Read(z, size, at, top.count, top.count == 2 ? 0 : 4);
  if (code) return code;
  if (top.count == PARTS::kMost) return ComposeMessage(&parts, CompLevel, out);
  const UI2 rank = VARank(parts.items[1]);
  if (parts.data.rank != 1 || rank < 1 || rank > 2) return ERR_RANK;
  if (rank == 2) return ComposeChunk(parts, out);

  const VAHOLD spec(UnpackZ(z));
  if (!spec) return ERR_MEMORY_ALLOC;
  PUI1 bytes = nullptr;
  UI4 n = 0, fileSize = 0;
  int file = -1;
  code = GetFilehandle(spec.Get(), &bytes, &n, &file, &fileSize, CompLevel);
  const BYTES ahead(bytes);
  return code ? code : ComposeBuffer(bytes, n, file, out);
}

SI4 HTTPCONNECTION::ComposeBuffer(PUI1 data, UI4 n, int file, PBUFFER* out) {
  *out = nullptr;
  if (file >= 0) {
    FDHOLD owned(file);
    return ComposeFile(reinterpret_cast<PCH10>(data), n, &owned, out);
  }
  PBUFFER const whole = BUFFER::NewWhole(n);
  if (!whole) return ERR_MEMORY_ALLOC;
  if (data && n > 0) memcpy(whole->Start(), data, n);
  *out = whole;
  return 0;
}

SI4 GetFilehandle(PAA spec, PUI1* ahead, PUI4 aheadSize, int* file, PUI4 fileSize, UI4 level) {
  *ahead = nullptr;
  *aheadSize = *fileSize = 0;
  *file = -1;
  if (VACount(spec) > 4) return ERR_LENGTH;
  VAHOLD first;
  SI4 code = VAGetpAA(spec, 0, first.Out());
  if (code) return code;
  PUI1 bytes = nullptr;
  UI4 n = 0;
  if (VACount(first.Get()) > 0) code = GetBytes(first.Get(), &bytes, &n);
  if (code) return code;
  BYTES block(bytes);

  int opened = -1;
  code = OpenCoded(spec, level, &opened);
  if (code) return code;
  FDHOLD held(opened);
  struct stat st;
  if (fstat(opened, &st) != 0) return ERR_FILE;
  if (static_cast<UI8>(st.st_size) + n > UINT32_MAX) return ERR_SIZE;
  *ahead = block.release();
  *aheadSize = n;
  *fileSize = static_cast<UI4>(st.st_size);
  *file = held.Release();
  return 0;
}

SI4 FmtHeader(PAA* items, PBUFFER out, UI4 contentLength) {
  for (UI4 i = 0; i < 3; ++i) {
    const SI4 code = VACount(items[i]) == 0 ? 0 : PutText(items[i], 0, out);
    if (code) return code;
    if (out->Remaining() < sizeof CRLF) return ERR_APL_LENGTH;
    Put(out, i < 2 ? OWS : CRLF);
  }
  SI4 code = FmtMat(items[3], "", ": ", CRLF, out);
  if (code == 0) code = MakeRoom(out, kLengthLineBytes);
  if (code) return code;
  if (contentLength > 0) PutLength(out, contentLength);
  Put(out, CRLF);
  return 0;
}

SI4 FmtMat(PAA matrix, PCH10 prefix, PCH10 separator, PCH10 suffix, PBUFFER out) {
  if (VARank(matrix) != 2) return ERR_RANK;
  const UI4 cells = VACount(matrix);
  if (VAType(matrix) != VAPntr && cells != 0) return ERR_DOMAIN;
  if (VAShape(matrix)[1] != 2) return ERR_INDEX;

  const UI4 fixed = static_cast<UI4>(strlen(prefix) + strlen(separator) + strlen(suffix));
  for (UI4 i = 0; i < cells; i += 2) {
    const CELL name{matrix, i}, value{matrix, i + 1};
    UI8 room = fixed;
    SI4 code = name.Room(&room);
    if (code == 0) code = value.Room(&room);
    if (code == 0) code = MakeRoomForRow(out, room);
    if (code) return code;

    Put(out, prefix);
    code = name.Put(out);
    if (code) return code;
    if (!value.IsEmpty()) {
      Put(out, separator);
      code = value.Put(out);
      if (code) return code;
    }
    Put(out, suffix);
  }
  return 0;
}
