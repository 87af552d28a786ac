// httpfiles.h - which file of a folder an HTTP request means, and what it is. Nothing here sends.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>

namespace host {

/// What a request asks for.
struct RequestTarget {
  std::string link;   ///< the path as it was written, with one slash in front
  std::string query;  ///< with its question mark, or empty
  std::string path;   ///< decoded and relative to the folder; "." for the folder itself

  bool EndsInSlash() const { return link.back() == '/'; }
  /// An absolute path or an http URL; nothing where that names no file of any folder: another form,
  /// a bad escape, a NUL, or "..".
  static std::optional<RequestTarget> Parse(std::string_view target);
};

/// By the ending of the name.
struct ContentType {
  const char* word;
  bool compresses;
};
ContentType TypeOfFile(std::string_view name);

/// A descriptor that closes itself.
class Descriptor {
 public:
  explicit Descriptor(int descriptor = -1) : fd(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : fd(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept;
  ~Descriptor();

  explicit operator bool() const { return fd >= 0; }
  int Get() const { return fd; }
  int Release();

 private:
  int fd;
};

/// What was found under a name.
struct Found {
  int error = 0;  ///< of errno where there is nothing to serve
  Descriptor file;
  struct stat info {};

  bool IsFolder() const { return S_ISDIR(info.st_mode); }
  /// A name for the open file that stays right whatever happens to the path.
  std::string OpenName() const;
};

/// A folder, of which nothing outside can be reached: neither "..", nor an absolute path, nor a
/// symbolic link leads out.
class Folder {
 public:
  /// Throws std::runtime_error when it is no folder that can be read.
  explicit Folder(const std::string& path);

  /// A file or folder below, by its path relative to this one. ENOENT also for other kinds.
  Found Open(const std::string& path) const;

 private:
  Descriptor OpenBeneath(const std::string& path) const;

  std::string real;  // absolute, without links
  Descriptor folder;
};

/// A page with a link to everything in the folder. `link` is the path as the request wrote it.
std::string ListingPage(const Found& folder, const std::string& path);

std::string EscapeHtml(std::string_view text);

}  // namespace host
