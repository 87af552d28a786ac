// link.cpp - the interpreter's callbacks, and the remote environment's bytes.
#include "tests/support/link.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <system_error>

namespace support {

const std::string kWebSocketRequest =
    "GET / HTTP/1.1\r\nHost: h\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";

namespace {

constexpr std::uint32_t kBlockArrived = 3;

std::atomic<Link*> current{nullptr};  // callbacks have no argument for it

std::string DefaultPathUnlessOpen() {
  const std::string path = host::Library::DefaultPath();
  if (void* const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD)) {
    dlclose(handle);
    throw std::runtime_error("the library is open: this test wants a process of its own");
  }
  return path;
}

std::size_t NumberOf(const std::string& bytes) {
  std::size_t n = 0;
  for (const char c : bytes) n = n << 8 | static_cast<unsigned char>(c);
  return n;
}

}  // namespace

FreshLibrary::FreshLibrary() : Library(DefaultPathUnlessOpen()) {}

void* FreshLibrary::Find(const char* name) const {
  void* const open = dlopen(Path().c_str(), RTLD_NOW | RTLD_NOLOAD);
  void* const entry = dlsym(open, name);
  dlclose(open);
  if (!entry) throw std::runtime_error(std::string("no entry ") + name);
  return entry;
}

Link::Link(Settings given, const std::string& file) : settings(std::move(given)) {
  if (!file.empty()) Configure(file);
  settings.emplace("TESSORUSERDIR", folder.path);
  settings.emplace("ZEPH\\CONFIGURATION", folder.path + "/zeph.ini");
  current = this;
  tZeph2Config config{};
  config.CommNotify = Notify;
  config.CommConfig = Config;
  table = library.Entry<decltype(::Zeph2Init)>("Zeph2Init")(&config);
  if (!table) throw std::runtime_error("no link");
}

Link::~Link() { Enable(0); }

std::int32_t Link::Notify(std::uint32_t code, void* node) {
  current.load()->Note(code, node);
  return 0;
}

void Link::Note(std::uint32_t code, void* node) {
  if (isOff) ++late;
  Event event{code == kBlockArrived ? "block " + Look(node) : "gone", node};
  const std::lock_guard hold(lock);
  threads.insert(std::this_thread::get_id());
  events.push_back(std::move(event));
  came.notify_all();
}

std::int32_t Link::Config(char* key, char* buffer, std::size_t size) {
  Link& link = *current.load();
  const std::lock_guard hold(link.lock);
  link.asked.insert(key);
  const auto found = link.settings.find(key);
  if (found == link.settings.end()) return 0;
  snprintf(buffer, size, "%s", found->second.c_str());
  return static_cast<std::int32_t>(strlen(buffer));
}

void Link::Set(const std::string& key, const std::string& value) {
  const std::lock_guard hold(lock);
  settings[key] = value;
}

int Link::Enable(int on) {
  if (on != 0) isOff = false;
  const int code = table->pZeph2Enable(on);
  isOff = on == 0;
  return code;
}

unsigned Link::State() const {
  return std::atomic_ref(table->Zeph2State).load(std::memory_order_acquire);
}

bool Link::Reaches(unsigned state) const {
  return Eventually([&] { return State() == state; });
}

int Link::Send(std::string block) const {
  return table->pZeph2Send(block.data(), static_cast<std::uint32_t>(block.size()));
}

std::string Link::Error(int code, std::uint32_t room) const {
  std::string text(room + 8, '#');
  const int n = table->pZeph2Errortext(code, text.data(), room);
  EXPECT_EQ(text.substr(room), "########");
  EXPECT_EQ(static_cast<int>(strlen(text.c_str())), n);
  return text.c_str();
}

std::string Link::Look(void* node) const {
  char* data = nullptr;
  std::uint32_t length = 7;
  EXPECT_EQ(table->pZeph2GetBuffer(node, &data, &length), 0);
  if (data) return std::string(data, length);
  EXPECT_EQ(length, 0U);
  return "none";
}

Link::Event Link::Next() {
  std::unique_lock hold(lock);
  const auto isThere = [&] { return !events.empty(); };
  if (!came.wait_for(hold, std::chrono::milliseconds(kBoundMillis), isThere)) return {};
  Event event = std::move(events.front());
  events.pop_front();
  return event;
}

std::string Link::Told() {
  const Event event = Next();
  Free(event.node);
  return event.text;
}

void Link::Forget() {
  const std::lock_guard hold(lock);
  for (const Event& event : events) Free(event.node);
  events.clear();
}

std::set<std::string> Link::Asked() {
  const std::lock_guard hold(lock);
  return asked;
}

std::set<std::thread::id> Link::Threads() {
  const std::lock_guard hold(lock);
  return threads;
}

int Link::Port(const std::string& server) const {
  host::ZBlock result;
  const auto argument = Args({server, "LocalAddr"}).Encode();
  const int code = library.Call(kZephRoot, "AGetProp", argument.data(), &result);
  if (code != 0 || result.Code() != 0) throw std::runtime_error("no server " + server);
  return static_cast<int>(result.Value().At(1).At(3).Integer());
}

Remote Remote::OverWebSocket(int port) {
  Remote remote{RawPeer(port)};
  remote.isWeb = true;
  remote.peer.Send(kWebSocketRequest);
  std::string answer;
  while (!answer.ends_with("\r\n\r\n")) answer += remote.peer.Receive(1);
  if (!answer.starts_with("HTTP/1.1 101 ")) throw std::runtime_error(answer);
  return remote;
}

std::string Remote::Bytes(const std::string& block) const {
  if (isWeb) return WebFrame(0x81, block);
  return magic != 0 ? Block(block, magic) : Block(block);
}

std::string Remote::Hear() {
  if (isWeb) {
    const std::string head = peer.Receive(2);
    if (head[0] != '\x81') throw std::runtime_error("no whole text: " + head);
    const int length = head[1];
    return peer.Receive(length < 126 ? static_cast<std::size_t>(length)
                                     : NumberOf(peer.Receive(length == 126 ? 2 : 8)));
  }
  const std::size_t size = NumberOf(peer.Receive(4)) - 4;
  const std::string block = peer.Receive(size);
  if (magic == 0) return block;
  if (!block.starts_with("ZEPH")) throw std::runtime_error("no magic: " + block);
  return block.substr(4);
}

void Remote::Shake() {
  if (const std::string offer = Hear(); offer != "SupportedProtocols=2")
    throw std::runtime_error("offered " + offer);
  Say("SupportedProtocols=2");
  Say("UsingProtocol=2");
  if (const std::string choice = Hear(); choice != "UsingProtocol=2")
    throw std::runtime_error("chosen " + choice);
}

RawPeer PeerOverIpv6(int port) {
  Descriptor socket(::socket(AF_INET6, SOCK_STREAM, 0));
  sockaddr_in6 to{};
  to.sin6_family = AF_INET6;
  to.sin6_port = htons(static_cast<std::uint16_t>(port));
  to.sin6_addr = in6addr_loopback;
  if (connect(socket.Get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0)
    throw std::system_error(errno, std::generic_category(), "connect");
  return RawPeer(std::move(socket));
}

std::string WebFrame(unsigned char first, const std::string& payload) {
  const std::size_t n = payload.size();
  const int extended = n < 126 ? 0 : n < 65536 ? 2 : 8;
  std::string frame{static_cast<char>(first), static_cast<char>(0x80 | (extended == 0   ? n
                                                                        : extended == 2 ? 126
                                                                                        : 127))};
  for (int i = extended; i-- > 0;) frame += static_cast<char>(n >> 8 * i);
  return frame + std::string(4, '\0') + payload;
}

}  // namespace support
