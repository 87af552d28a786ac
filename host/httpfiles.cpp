// httpfiles.cpp - which file of a folder an HTTP request means, and what it is.
#include "host/httpfiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <stdexcept>

#include "host/httphead.h"
#include "host/url.h"

namespace host {

namespace {

/// A pipe without a writer must not hold the server up.
constexpr int kOpenFlags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

constexpr struct {
  const char* ending;
  ContentType type;
} kTypes[] = {
    {"html", {"text/html; charset=utf-8", true}},
    {"htm", {"text/html; charset=utf-8", true}},
    {"css", {"text/css; charset=utf-8", true}},
    {"js", {"text/javascript; charset=utf-8", true}},
    {"mjs", {"text/javascript; charset=utf-8", true}},
    {"csv", {"text/csv; charset=utf-8", true}},
    // Shown by a browser rather than saved.
    {"txt", {"text/plain; charset=utf-8", true}},
    {"md", {"text/plain; charset=utf-8", true}},
    {"c", {"text/plain; charset=utf-8", true}},
    {"cpp", {"text/plain; charset=utf-8", true}},
    {"h", {"text/plain; charset=utf-8", true}},
    {"py", {"text/plain; charset=utf-8", true}},
    {"sh", {"text/plain; charset=utf-8", true}},
    {"log", {"text/plain; charset=utf-8", true}},
    {"3", {"text/plain; charset=utf-8", true}},
    {"json", {"application/json", true}},
    {"xml", {"application/xml", true}},
    {"wasm", {"application/wasm", true}},
    {"pdf", {"application/pdf", false}},
    {"zip", {"application/zip", false}},
    {"gz", {"application/gzip", false}},
    {"svg", {"image/svg+xml", true}},
    {"png", {"image/png", false}},
    {"jpg", {"image/jpeg", false}},
    {"jpeg", {"image/jpeg", false}},
    {"gif", {"image/gif", false}},
    {"webp", {"image/webp", false}},
    {"ico", {"image/x-icon", false}},
    {"woff", {"font/woff", false}},
    {"woff2", {"font/woff2", false}},
    {"ttf", {"font/ttf", true}},
    {"mp3", {"audio/mpeg", false}},
    {"mp4", {"video/mp4", false}},
    {"webm", {"video/webm", false}},
};
constexpr ContentType kUnknownType{"application/octet-stream", false};

std::optional<std::string> PercentDecode(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    unsigned char byte = 0;
    if (text.size() - i < 3) return std::nullopt;
    const char* const digits = text.data() + i + 1;
    if (std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2) return std::nullopt;
    out += static_cast<char>(byte);
    i += 2;
  }
  return out;
}

/// Whether one of the parts between slashes is "..".
bool LeadsUp(std::string_view path) {
  while (!path.empty()) {
    const std::size_t end = std::min(path.find('/'), path.size());
    if (path.substr(0, end) == "..") return true;
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  return false;
}

bool IsFolderEntry(int folder, const dirent& entry) {
  if (entry.d_type == DT_DIR) return true;
  struct stat info {};
  return (entry.d_type == DT_LNK || entry.d_type == DT_UNKNOWN) &&
         fstatat(folder, entry.d_name, &info, 0) == 0 && S_ISDIR(info.st_mode);
}

/// The names in a folder, in order, those of folders with a slash behind.
std::set<std::string> NamesIn(const Found& found) {
  std::set<std::string> names;
  Descriptor copy(openat(found.file.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!copy) return names;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(fdopendir(copy.Get()), closedir);
  if (!folder) return names;
  copy.Release();  // closedir closes it
  while (const dirent* entry = readdir(folder.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    names.insert(IsFolderEntry(dirfd(folder.get()), *entry) ? name + "/" : name);
  }
  return names;
}

std::string Link(const std::string& to, const std::string& text) {
  return "<li><a href=\"" + to + "\">" + EscapeHtml(text) + "</a></li>\n";
}

}  // namespace

std::optional<RequestTarget> RequestTarget::Parse(std::string_view target) {
  constexpr std::string_view kScheme = "http://";
  if (SameWord(target.substr(0, kScheme.size()), kScheme)) {
    target.remove_prefix(std::min(target.find_first_of("/?", kScheme.size()), target.size()));
    if (target.empty()) target = "/";
  }
  if (!target.starts_with('/')) return std::nullopt;

  target = target.substr(0, target.find('#'));
  const std::size_t query = std::min(target.find('?'), target.size());
  const std::string_view link = target.substr(0, query);
  const std::size_t start = std::min(link.find_first_not_of('/'), link.size());
  const std::optional<std::string> path = PercentDecode(link.substr(start));
  if (!path || path->find('\0') != std::string::npos || path->starts_with('/') || LeadsUp(*path))
    return std::nullopt;
  // Two slashes in front would make a link to another host of it.
  return RequestTarget{"/" + std::string(link.substr(start)), std::string(target.substr(query)),
                       path->empty() ? "." : *path};
}

ContentType TypeOfFile(std::string_view name) {
  name = name.substr(name.rfind('/') + 1);
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos) return kUnknownType;
  for (const auto& [ending, type] : kTypes)
    if (SameWord(name.substr(dot + 1), ending)) return type;
  return kUnknownType;
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  std::swap(fd, other.fd);
  return *this;
}

Descriptor::~Descriptor() {
  if (fd >= 0) close(fd);
}

int Descriptor::Release() { return std::exchange(fd, -1); }

std::string Found::OpenName() const { return "/proc/self/fd/" + std::to_string(file.Get()); }

Folder::Folder(const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> resolved(realpath(path.c_str(), nullptr), std::free);
  if (resolved) {
    real = resolved.get();
    folder = Descriptor(open(real.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
  if (!folder) throw std::runtime_error(path + ": " + std::strerror(errno));
}

Found Folder::Open(const std::string& path) const {
  Found found;
  found.file = OpenBeneath(path);
  if (!found.file || fstat(found.file.Get(), &found.info) != 0)
    found.error = errno;
  else if (!S_ISREG(found.info.st_mode) && !found.IsFolder())
    found.error = ENOENT;
  return found;
}

Descriptor Folder::OpenBeneath(const std::string& path) const {
  open_how how{};
  how.flags = kOpenFlags;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  const long fd = syscall(SYS_openat2, folder.Get(), path.c_str(), &how, sizeof how);
  // Without that call, or where a filter of calls refuses it, and while names move under it.
  if (fd >= 0 || (errno != ENOSYS && errno != EPERM && errno != EAGAIN))
    return Descriptor(static_cast<int>(fd));

  const std::string wanted = real + "/" + path;
  const std::unique_ptr<char, void (*)(void*)> resolved(realpath(wanted.c_str(), nullptr),
                                                        std::free);
  if (!resolved) return Descriptor();
  const std::string_view below(resolved.get());
  const std::string inside = real == "/" ? real : real + "/";
  if (below != real && !below.starts_with(inside)) {
    errno = EXDEV;
    return Descriptor();
  }
  return Descriptor(open(resolved.get(), kOpenFlags | O_NOFOLLOW));
}

std::string EscapeHtml(std::string_view text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string ListingPage(const Found& folder, const std::string& path) {
  const std::string title = EscapeHtml(path == "." ? "/" : "/" + path);
  std::string page = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>" +
                     title + "</title></head>\n<body><h1>" + title + "</h1>\n<ul>\n";
  if (path != ".") page += Link("../", "../");
  // "./" in front keeps a colon in a name from reading as the end of a scheme.
  for (const std::string& name : NamesIn(folder))
    page += Link("./" + PercentEncode(name, "-._~/"), name);
  return page + "</ul></body></html>\n";
}

}  // namespace host
