// bufferfile.cpp - a file sent through one array.
#include "kyrno/net/bufferfile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "kyrno/base/error.h"

namespace {

// The length of what can be read at any place, or -1: a directory and a pipe have none.
QLNoff_t FileLength(int file) {
  struct stat st;
  if (fstat(file, &st) != 0) return -1;
  if (S_ISREG(st.st_mode)) return st.st_size;
  if (S_ISBLK(st.st_mode)) return lseek(file, 0, SEEK_END);
  return -1;
}

}  // namespace

BUFFERFILE::BUFFERFILE(int owned) : BUFFERFILE(0, nullptr, 0, nullptr, owned) {}

BUFFERFILE::BUFFERFILE(UI4 n, PCH10 p, int owned) : BUFFERFILE(n, p, 0, nullptr, owned) {}

BUFFERFILE::BUFFERFILE(UI4 n1, PCH10 p1, UI4 n2, PCH10 p2, int owned) : BUFFER(0), file(owned) {
  if (!lError) lError = Open(n1, p1, n2, p2);
  if (lError) SetSize(0);
  Rewind();
}

BOOL BUFFERFILE::NextProcessed(UI4 n) {
  if (!BUFFER::NextProcessed(n)) return false;
  if (foff == fsize) return true;
  if (lError) return false;

  const UI4 next = static_cast<UI4>(std::min<QLNoff_t>(fsize - foff, TotalSize()));
  lError = Fill(TotalSize() - next, next);
  if (!lError) SetOffset(TotalSize() - next);
  return false;
}

// Sets the array up and fills it for the first time.
SI4 BUFFERFILE::Open(UI4 n1, PCH10 p1, UI4 n2, PCH10 p2) {
  fsize = FileLength(file.Get());
  if (fsize < 0) {
    fsize = 0;
    return ERR_FILE;
  }

  const UI8 lead = static_cast<UI8>(n1) + n2;
  const UI8 window = std::max<UI8>(lead, BufferBlkSize.load(std::memory_order_relaxed));
  const UI8 size = std::min(lead + static_cast<UI8>(fsize), window);
  if (size > std::numeric_limits<UI4>::max()) return ERR_MEMORY_ALLOC;
  Resize(static_cast<UI4>(size));
  if (lError) return lError;
  if (const SI4 error = Reserve(TotalSize())) return error;

  Append(p1, n1);
  Append(p2, n2);
  return Fill(SizeProcessed(), Remaining());
}

// Reads the next n bytes of the file to a place in the array.
SI4 BUFFERFILE::Fill(UI4 at, UI4 n) {
  while (n > 0) {
    const ssize_t got = pread(file.Get(), Start() + at, n, foff);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return ERR_FILE;
    const UI4 count = static_cast<UI4>(got);  // at most n
    at += count;
    n -= count;
    foff += got;
  }
  return 0;
}
