// rawpeer.h - the other end of a connection, byte by byte: blocking loopback sockets, and the
// headers of the command and block protocols put together by hand. Shares no code with the library.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace support {

/// A file descriptor that closes itself.
class Descriptor {
 public:
  explicit Descriptor(int owned = -1) : fd(owned) {}
  Descriptor(Descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd, other.fd);
    return *this;
  }
  ~Descriptor();
  int Get() const { return fd; }

 private:
  int fd;
};

/// A connected socket. Every operation gives up after 20 seconds with std::runtime_error.
class RawPeer {
 public:
  /// Connects to a port of 127.0.0.1, from another loopback address if one is given.
  explicit RawPeer(int port, const char* from = "127.0.0.1");
  explicit RawPeer(Descriptor connected);

  void Send(std::string_view bytes);
  /// Sends in pieces of at most this size, the next one when the other end, which belongs to this
  /// process, has read the one before.
  void SendApart(std::string_view bytes, std::size_t piece);
  /// Sends what the other end takes, up to `most` bytes of one unit after the other, and returns
  /// how many it took before it let half a second pass without reading.
  std::size_t SendUntilStuck(std::size_t most, std::string_view unit = "s");
  /// Exactly n bytes.
  std::string Receive(std::size_t n);
  /// All bytes up to the other end's close, reset included.
  std::string ReceiveAll();

  void EndSending();
  void Close() { socket = Descriptor(); }
  /// Closes at once and lets the other end see a failure instead of an end.
  void Reset();
  /// The descriptor of the other end in this process.
  int OtherEnd() const;

 private:
  Descriptor socket;
};

/// Listens on a free port of 127.0.0.1.
class RawListener {
 public:
  RawListener();
  int Port() const;
  RawPeer Accept();

 private:
  Descriptor socket;
};

/// Four bytes in network order.
std::string Word(std::uint32_t value);

inline constexpr std::size_t kIpmHeaderSize = 115;

/// Message types of the command protocol.
enum IpmType : std::uint32_t {
  kIpmCommand = 1,
  kIpmProgress,
  kIpmAnswer,
  kIpmNoAnswer,
  kIpmCommandComp,
  kIpmAnswerComp
};

/// One message of the command protocol.
struct Ipm {
  std::uint32_t type;
  std::string name;
  std::string payload;
  std::string subname{};
  char features = 0;

  std::string Bytes() const;
  /// The header alone, with any length.
  std::string Header(std::uint32_t length) const;
  static Ipm Read(RawPeer& from);
};

/// A compressed payload: the length it claims, and a zlib stream that holds the bytes uncompressed.
/// Less than 64 KiB of them.
std::string Stored(std::string_view bytes, std::uint32_t claimed);

/// One block of the block protocol, with a magic number if one is given.
std::string Block(std::string_view payload, std::optional<std::uint32_t> magic = {});

}  // namespace support
