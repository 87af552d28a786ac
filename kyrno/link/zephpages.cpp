// zephpages.cpp - the pages of the remote development environment.
//
//   "GET /app/page.js HTTP/1.1"     request line
//        |- URL ----|               after "http://host", if it has one; "/" is "index.html"
//   folder "/" "/app/page.js"       path: shown to people, never opened as it stands
//               app/page.js         name: opened beneath the folder
#include "kyrno/link/zephpages.h"

#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "kyrno/base/log.h"
#include "sys/linux/fdhold.h"
#include "sys/linux/qlnplat.h"
#include "util/httpdate.h"

static constexpr UI4 MODULE = 0x00001000;

namespace {

constexpr UI4 MAXCONTENTTYPES = 9;
constexpr struct {
  PCH10 extension;
  PCH10 type;
} applicationcontent[MAXCONTENTTYPES] = {
    {"html", "text/html"},   {"zeph", "text/html"},    {"js", "text/javascript"},
    {"png", "image/png"},    {"jpg", "image/jpeg"},    {"css", "text/css"},
    {"ico", "image/x-icon"}, {"ttf", "font/truetype"}, {"woff", "application/font-woff"}};

constexpr CH1 httpResponse[] =
    "HTTP/1.1 %s\r\nDate: %s\r\nServer: Tessor\r\nContent-Type: %s\r\n\r\n";
constexpr CH1 httpOK[] = "200 OK";
constexpr CH1 http404[] = "404 Not Found";
constexpr CH1 httpCL[] = "Content-Length: %d\r\n\r\n";
constexpr CH1 kScheme[] = "http://";

constexpr size_t kTypeBytes = 79;
constexpr size_t kHeadBytes = 512;
constexpr size_t kBodyBytes = 512;  // of a 404; the rest is cut
static_assert(sizeof httpResponse + sizeof http404 + kHttpDateSize + kTypeBytes + sizeof httpCL +
                  sizeof "4294967295" <
              kHeadBytes);

// A FIFO does not block, a terminal does not become ours; neither is served.
constexpr int kOpenFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr int kOpenTries = 8;

// --- opening

/// Where the system, or a filter around the process, has no openat2: no links at all and no "..".
int WalkBeneath(int folder, PCH10 name) {
  if (strlen(name) >= PATH_MAX) return -1;
  for (int at = folder;;) {
    name += strspn(name, "/");
    const size_t n = strcspn(name, "/");
    const bool last = name[n] == 0;
    CH1 part[NAME_MAX + 1] = {};
    const bool isUp = n == 2 && memcmp(name, "..", n) == 0;
    const int flags = last ? kOpenFlags : O_PATH | O_DIRECTORY | O_CLOEXEC;
    int next = -1;
    if (n < sizeof part && !isUp) {
      memcpy(part, name, n);
      next = openat(at, part, flags | O_NOFOLLOW);
    }
    if (at != folder) close(at);
    if (next < 0 || last) return next;
    at = next;
    name += n;
  }
}

/// Opens a name for reading, relative to a folder, and by no way out of it; -1 on failure.
int OpenBeneath(PCH10 path, PCH10 name) {
  const FDHOLD folder(open(path, O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder) return -1;
  name += strspn(name, "/");  // "//x" is below the folder too

  open_how how{};
  how.flags = kOpenFlags;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  long file;
  int tries = kOpenTries;  // EAGAIN: something was renamed while a ".." was resolved
  do {
    file = syscall(SYS_openat2, folder.Get(), name, &how, sizeof how);
  } while (file < 0 && (errno == EAGAIN || errno == EINTR) && --tries > 0);
  if (file < 0 && (errno == ENOSYS || errno == EPERM)) return WalkBeneath(folder.Get(), name);
  return static_cast<int>(file);
}

/// Deliberate: a folder that ends in a backslash is what the names of its files begin with, because
/// no "/" comes between the two. A name without a "/" of its own leads nowhere else.
int OpenPrefixed(PCH10 folder, PCH10 name) {
  CH1 path[PATH_MAX];
  const int n = snprintf(path, sizeof path, "%s%s", folder, name);
  if (strchr(name, '/') || n < 0 || static_cast<size_t>(n) >= sizeof path) return -1;
  return open(path, kOpenFlags | O_NOFOLLOW);
}

// --- what is asked for

PCH10 DefaultType(PCH10 extension) {
  for (const auto& row : applicationcontent)
    if (strcasecmp(row.extension, extension) == 0) return row.type;
  return applicationcontent[0].type;
}

/// The type of a page by what stands behind its last dot.
void FindType(PCH10 page, PCH10 configFile, CH1 (&type)[kTypeBytes + 1]) {
  const PCH10 dot = strrchr(page, '.');
  if (!dot || dot[1] == 0) return;
  memset(type, 0, sizeof type);  // PLATIni closes no value that it cuts
  PLATIni("ContentTypes", dot + 1, DefaultType(dot + 1), type, kTypeBytes, configFile);
  type[strcspn(type, "\r\n")] = 0;  // whatever the file has: the header line ends where we end it
}

/// The page of a URL. "http://host/x" is "/x".
PCH10 PageOf(PCH10 url) {
  constexpr size_t n = sizeof kScheme - 1;
  if (strncasecmp(url, kScheme, n) == 0) {
    // Deliberate: a host of one letter is passed over with the scheme.
    url += n + (url[n] != 0);
    url += strcspn(url, "/");
  }
  LOG(2, ("Requesting page %s", url));
  return strcmp(url, "/") == 0 ? "index.html" : url;
}

/// One request, and what its answer tells of it.
struct REQUEST {
  /// Reads the first line of n bytes, in which a zero ends the URL from then on.
  REQUEST(const PAGES& pages, PCH1 text, UI4 n);
  int Open() const;

  const PCH10 folder;
  PCH10 slash = "/";  // between the folder and the page
  PCH10 page = "";
  bool readable = false;  // its line could be read, and is a GET
  bool headOnly = false;  // the peer waits for no body
  CH1 type[kTypeBytes + 1] = "text/html";
};

bool EndsIn(PCH10 text, CH1 c) { return *text && text[strlen(text) - 1] == c; }

REQUEST::REQUEST(const PAGES& pages, PCH1 text, UI4 n) : folder(pages.folder) {
  const auto IsBlank = [](CH1 c) { return c == ' ' || c == '\t'; };
  PCH1 const end = std::find_if(text, text + n, [](CH1 c) { return c == '\r' || c == '\n'; });
  PCH1 const method = std::find_if(text, end, IsBlank);
  PCH1 const url = std::find_if_not(method, end, IsBlank);
  PCH1 const behind = std::find_if(url, end, IsBlank);
  const auto IsMethod = [&](PCH10 word) {
    const size_t length = strlen(word);
    return static_cast<size_t>(method - text) == length && strncasecmp(text, word, length) == 0;
  };
  headOnly = IsMethod("HEAD");
  if (!IsMethod("GET") || behind == end || std::find(url, behind, 0) != behind) return;

  *behind = 0;
  readable = true;
  page = PageOf(url);
  if (EndsIn(folder, '/') || EndsIn(folder, '\\')) slash = "";
  FindType(page, pages.configFile, type);
}

int REQUEST::Open() const {
  if (!readable || *folder == 0) return -1;
  const bool isPrefix = EndsIn(folder, '\\') && *page != '/';
  FDHOLD file(isPrefix ? OpenPrefixed(folder, page) : OpenBeneath(folder, page));
  struct stat st;
  if (!file || fstat(file.Get(), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
  return file.Release();
}

// --- the answer

/// The body of a 404. What finds no room is left out, and all that would follow it.
class BODY {
 public:
  void PutMarkup(PCH10 html) {
    for (; *html; ++html) Put(html, 1);
  }
  /// Text that could be read as markup, and is not to be.
  void PutText(PCH10 text) {
    for (; *text && !full; ++text) {
      const PCH10 entity = EntityOf(*text);
      Put(entity ? entity : text, entity ? strlen(entity) : 1);
    }
  }
  PCH10 Start() const { return bytes; }
  size_t Size() const { return size; }

 private:
  static PCH10 EntityOf(CH1 c) {
    switch (c) {
      case '&':
        return "&amp;";
      case '<':
        return "&lt;";
      case '>':
        return "&gt;";
      case '"':
        return "&quot;";
      default:
        return nullptr;
    }
  }
  void Put(PCH10 text, size_t n) {
    full = full || n > sizeof bytes - size;
    if (full) return;
    memcpy(bytes + size, text, n);
    size += n;
  }

  CH1 bytes[kBodyBytes];
  size_t size = 0;
  bool full = false;
};

/// The header block of an answer; its length.
UI4 PutHead(CH1 (&head)[kHeadBytes], PCH10 status, PCH10 type) {
  CH1 date[kHttpDateSize] = {};
  HttpDate(date, sizeof date);
  return static_cast<UI4>(snprintf(head, sizeof head, httpResponse, status, date, type));
}

PBUFFER Compose(PHIERAKI connection, PCH1 bytes, UI4 n, int file) {
  PBUFFER out = nullptr;
  const SI4 code = connection->Obj()->ComposeBuffer(reinterpret_cast<PUI1>(bytes), n, file, &out);
  if (code) LOG(2, ("Composing a page failed %d", code));
  return out;
}

PBUFFER ComposeNotFound(const REQUEST& request, PCH10 configFile, PHIERAKI connection) {
  BODY body;
  body.PutMarkup("<h1>404 File not found</h1><p>File: ");
  if (request.readable) {
    body.PutText(request.folder);
    body.PutText(request.slash);
    body.PutText(request.page);
  }
  body.PutMarkup("</p><br><p>Using configfile: ");
  body.PutText(configFile);
  body.PutMarkup("</p>");

  CH1 head[kHeadBytes];
  UI4 n = PutHead(head, http404, request.type) - 2;  // the blank line comes behind the length
  const int size = static_cast<int>(body.Size());
  n += static_cast<UI4>(snprintf(head + n, sizeof head - n, httpCL, size));
  CH1 answer[kHeadBytes + kBodyBytes];
  memcpy(answer, head, n);
  if (request.headOnly) return Compose(connection, answer, n, -1);
  memcpy(answer + n, body.Start(), body.Size());
  return Compose(connection, answer, n + static_cast<UI4>(body.Size()), -1);
}

}  // namespace

PBUFFER HandleHttpRequest(const PAGES& pages, PHIERAKI connection, PBUFFER received) {
  received->Rewind();
  const REQUEST request(pages, received->Next(), received->Remaining());
  const int file = request.Open();
  if (file >= 0) {
    CH1 head[kHeadBytes];
    const UI4 n = PutHead(head, httpOK, request.type);
    // The length goes in there. A file that is too long for one is answered as if it were not
    // there.
    if (const PBUFFER answer = Compose(connection, head, n, file)) return answer;
  }
  return ComposeNotFound(request, pages.configFile, connection);
}
