// library.h - the library as an interpreter meets it: opened at run time, every entry found by
// name, Z blocks through Call.
//
// Two levels. Call and CallWait pass prepared blocks and hand back the library's own, uncopied;
// what stands below them in Session works with values and throws.
#pragma once

#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/zvalue.h"
#include "include/kyrno.h"

namespace host {

/// Codes that the host itself knows; every other one is only passed on and shown.
inline constexpr int kTimeout = 100;
inline constexpr int kClosed = 1119;
inline constexpr int kActiveClose = 1144;

/// Send flags.
inline constexpr int kSendPlain = 0;
inline constexpr int kSendAndClose = 1;
inline constexpr int kSendNoAnswer = 2;
inline constexpr int kSendReport = 3;

/// A failure that the library reported, with what it says of the code.
class LibraryError : public std::runtime_error {
 public:
  LibraryError(const std::string& doing, int code, std::string name, std::string text);

  const int code;
  const std::string name;
  const std::string text;
};

/// One Z block of the library, given back to it by the destructor.
class ZBlock {
 public:
  using Free = void (*)(void*);

  ZBlock() = default;
  ZBlock(std::uint32_t* block, Free give) : z(block), free(give) {}
  ZBlock(ZBlock&& other) noexcept : z(std::exchange(other.z, nullptr)), free(other.free) {}
  ZBlock& operator=(ZBlock&& other) noexcept {
    std::swap(z, other.z);
    std::swap(free, other.free);
    return *this;
  }
  ~ZBlock() {
    if (z) free(z);
  }

  const std::uint32_t* Get() const { return z; }
  std::size_t Size() const { return z ? ZSize(z) : 0; }
  /// The whole block as a value. Throws ZError.
  ZValue Value() const;
  /// The top array, in place. Throws ZError.
  ZArray Top() const;
  /// Element 0 of a result: the code that every command puts first. Throws ZError.
  int Code() const;

 private:
  std::uint32_t* z = nullptr;  // owned; the library's allocation
  Free free = nullptr;
};

/// The opened library.
///
/// Threads: any number, as the entries allow.
/// Errors:  the constructor throws std::runtime_error when the library or an entry is missing.
class Library {
 public:
  /// KYRNO_LIBRARY if it is set, else kyrno32_64.so beside the running program.
  static std::string DefaultPath();

  explicit Library(const std::string& path = DefaultPath());
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  const std::string& Path() const { return path; }
  /// Major, minor, build.
  std::array<std::uint32_t, 3> Version() const;
  int Init(const std::string& root) const;
  LibraryError Error(const std::string& doing, int code) const;
  /// The table of the link to a remote development environment; null without memory.
  TKYRNOFNS* Zeph2Init(tZeph2Config* config) const { return pZeph2Init(config); }
  /// The text of a whole gzip stream. Throws std::runtime_error when it is none.
  std::string Gunzip(const std::string& compressed) const;

  /// Call with prepared blocks, which stay the caller's. `right` may be null. Returns the code of
  /// Call itself; `result` takes the block that stands in the right argument's place afterwards.
  int Call(const char* root, const char* command, const std::uint32_t* right, ZBlock* result) const;
  /// The same with a left argument; `leftResult` stays empty when the command leaves it alone.
  int Call(const char* root, const char* command, const std::uint32_t* right,
           const std::uint32_t* left, ZBlock* result, ZBlock* leftResult) const;

 private:
  template <class T>
  void Find(T* entry, const char* name);

  std::string path;
  void* handle = nullptr;  // owned, from dlopen

  decltype(&::Version) pVersion;
  decltype(&::Init) pInit;
  decltype(&::Call) pCall;
  decltype(&::ErrorText) pErrorText;
  decltype(&::FreeUsedTessorResult) pFree;
  decltype(&::Zeph2Init) pZeph2Init;
  // Found so that a library without them is refused at once, as an interpreter would.
  decltype(&::Call1) pCall1;
  decltype(&::Call2) pCall2;
  decltype(&::SetXLate) pSetXLate;
  decltype(&::GetXLate) pGetXLate;
  decltype(&::cflate) pcflate;
  decltype(&::KickStart) pKickStart;
};

/// Named options of a server, a client or a certificate request.
using Options = std::vector<std::pair<std::string, ZValue>>;

/// What a wait brought. With a code other than 0 nothing else is set.
struct Event {
  int code = 0;
  std::string name;
  std::string event;
  std::array<double, 4> times{};  ///< created, ready, picked up, wait begun: microseconds
  ZValue value;

  /// With the root property "EventMode" a time-out is an event and no code.
  bool IsTimeout() const { return code == kTimeout || event == "Timeout"; }
};

/// One root of the library, from Init to the close of "."; or a root that the library has made for
/// itself, which stays.
///
/// Threads: any number; each call stands for itself.
/// Errors:  LibraryError for a code of the library, ZError for a result of unexpected shape.
class Session {
 public:
  Session(const Library& library, std::string root);
  struct Existing {};
  Session(const Library& lib, std::string name, Existing)
      : library(lib), root(std::move(name)), isMine(false) {}
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const Library& Lib() const { return library; }
  const std::string& Root() const { return root; }

  /// The fast path: see Library::Call.
  int Call(const char* command, const std::uint32_t* right, ZBlock* result) const {
    return library.Call(root.c_str(), command, right, result);
  }
  int Call(const char* command, const std::uint32_t* right, const std::uint32_t* left,
           ZBlock* result, ZBlock* leftResult) const {
    return library.Call(root.c_str(), command, right, left, result, leftResult);
  }
  /// AWaitZ with a prepared (name, time-out): the command's code, its result and its data.
  int CallWait(const std::uint32_t* request, ZBlock* result, ZBlock* data) const;

  /// Any command. The result as it came, its element 0 the code; only a failure of Call throws.
  ZValue Run(const char* command, const ZValue& right) const;
  ZValue Run(const char* command, const ZValue& right, const ZValue& left) const;
  /// The same, where a code in the result throws as well.
  ZValue Must(const char* command, const ZValue& right) const;
  ZValue Must(const char* command, const ZValue& right, const ZValue& left) const;

  /// Both return the name of the new object. A client that refuses the server's certificate tells
  /// the reason.
  std::string Server(const Options& options) const;
  std::string Client(const Options& options) const;
  /// Returns the path as the object completed it.
  std::string Send(const std::string& to, const ZValue& value, int flag = kSendPlain) const;
  std::string Send(const std::string& to, const std::vector<std::uint32_t>& z,
                   int flag = kSendPlain) const;
  /// In command mode `flag` true answers and false reports progress; elsewhere it is a send flag.
  void Respond(const std::string& to, const ZValue& value, int flag = 1) const;
  /// Never throws for a code: time-outs and vanished objects stand in Event::code.
  Event Wait(const std::string& name, int millis) const;
  void Close(const std::string& name) const;
  /// One item (info, children) per node, from the named object down.
  ZValue Tree(const std::string& name = ".") const;
  void SetProp(const std::string& name, const std::string& property, const ZValue& value) const;
  ZValue GetProp(const std::string& name, const std::string& property,
                 const std::vector<ZValue>& more = {}) const;
  void Relay(const std::string& from, const std::string& to, int size = 131072,
             bool oneWay = false) const;
  ZValue Certs(const Options& options) const;
  /// The local port of a server or connection.
  int Port(const std::string& name) const;

 private:
  const Library& library;
  const std::string root;
  const bool isMine = true;
};

/// The argument that ASrv, AClt and ACerts take.
ZValue OptionList(const Options& options);

}  // namespace host
