// link.h - both ends of the link to a remote development environment: the interpreter, which the
// test plays through the table of Zeph2Init, and the remote environment, on a raw socket. Shares no
// code with the library.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "tests/support/program.h"
#include "tests/support/session.h"

namespace support {

inline constexpr std::uint32_t kZephMagic = 0x5A455048;  // "ZEPH"
inline constexpr char kZephRoot[] = "\t\tZEPH";

/// The library, loaded for this object alone: of what it keeps as long as it is loaded, nothing is
/// left from an earlier one.
///
/// Errors: std::runtime_error when this process has it open already, as after Lib().
class FreshLibrary : public host::Library {
 public:
  FreshLibrary();

  /// An exported function.
  template <class T>
  T* Entry(const char* name) const {
    return reinterpret_cast<T*>(Find(name));
  }

 private:
  void* Find(const char* name) const;
};

/// The interpreter's side. One at a time.
///
/// Threads: any; the library's call in on its own.
class Link {
 public:
  using Settings = std::map<std::string, std::string>;

  /// The file is that which the link looks for where its direction's setting names no other,
  /// "zeph.ini" below "TESSORUSERDIR", and "ZEPH\\CONFIGURATION"; there is none where it is empty.
  explicit Link(Settings given, const std::string& file = "");
  ~Link();
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  int Enable(int on);
  unsigned State() const;
  bool Reaches(unsigned state) const;
  int Send(std::string block) const;
  /// What Zeph2Errortext writes for a code into so much room.
  std::string Error(int code, std::uint32_t room = 255) const;
  /// The bytes of a block, which stays; "none" where there are none.
  std::string Look(void* node) const;
  void Free(void* node) const { table->pZeph2Free(node); }

  /// An event: "gone", or a block with "block " in front; "nothing" when none comes.
  struct Event {
    std::string text = "nothing";
    void* node = nullptr;
  };
  /// The next one, and the node stays.
  Event Next();
  /// The next one, and the node goes.
  std::string Told();
  /// Forgets what has not been asked for.
  void Forget();
  /// Events that came while the link was off.
  int Late() const { return late; }
  /// The threads that events came on.
  std::set<std::thread::id> Threads();
  /// The settings that it has been asked for.
  std::set<std::string> Asked();

  int Port(const std::string& server = "ZephServer") const;
  /// Writes the file anew.
  void Configure(const std::string& file) const { folder.File("zeph.ini", file); }
  void Set(const std::string& key, const std::string& value);

  const TempFolder folder;
  TKYRNOFNS* table;  // the library's

 private:
  static std::int32_t Notify(std::uint32_t code, void* node);
  static std::int32_t Config(char* key, char* buffer, std::size_t size);
  void Note(std::uint32_t code, void* node);

  std::mutex lock;
  std::condition_variable came;
  Settings settings;
  std::deque<Event> events;
  std::set<std::thread::id> threads;
  std::set<std::string> asked;
  std::atomic<bool> isOff{true};
  std::atomic<int> late{0};

 public:
  const FreshLibrary library;  // goes first, and all its threads
};

/// The remote environment: blocks with a magic number, or none where it is 0, or messages of a
/// WebSocket.
class Remote {
 public:
  explicit Remote(int port) : Remote(RawPeer(port)) {}
  explicit Remote(RawPeer connected, std::uint32_t magicOfBlocks = kZephMagic)
      : peer(std::move(connected)), magic(magicOfBlocks) {}
  static Remote OverWebSocket(int port);

  /// The bytes that carry a block from this end.
  std::string Bytes(const std::string& block) const;
  void Say(const std::string& block) { peer.Send(Bytes(block)); }
  /// The next block. std::runtime_error at the connection's end, or when something else comes.
  std::string Hear();
  /// Its part of the handshake. Before the link has taken note of the last message blocks may
  /// follow.
  void Shake();
  /// The link's answer was an end instead.
  bool IsTurnedAway() { return peer.ReceiveAll().empty(); }

  RawPeer peer;

 private:
  std::uint32_t magic;
  bool isWeb = false;
};

/// Connects to a port of ::1.
RawPeer PeerOverIpv6(int port);
/// A frame of a WebSocket as a client sends it, with a mask of zeros.
std::string WebFrame(unsigned char first, const std::string& payload);
/// What opens a WebSocket, with its last line.
extern const std::string kWebSocketRequest;

/// A link with the direction listen at a free port of 127.0.0.1, turned on.
struct Listening : Link {
  explicit Listening(const std::string& file = "")
      : Link({{"ZEPH\\INIT", "serve:127.0.0.1:0"}}, file) {
    EXPECT_EQ(Enable(1), 0);
  }
};

}  // namespace support
