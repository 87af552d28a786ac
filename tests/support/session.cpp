// session.cpp - one root per test.
#include "tests/support/session.h"

#include <dlfcn.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <stdexcept>

namespace support {

namespace {

std::atomic<int> roots{0};

std::string TellValue(const ZValue& value) {
  if (value.IsNested()) return "(" + std::to_string(value.Count()) + " items)";
  if (value.Rank() == 0 && value.Type() == ZType::I4) return std::to_string(value.Integer());
  return value.Bytes();
}

}  // namespace

const host::Library& Lib() {
  static const host::Library library;
  return library;
}

void* Entry(const char* name) {
  void* const handle = dlopen(Lib().Path().c_str(), RTLD_NOW | RTLD_NOLOAD);
  void* const entry = dlsym(handle, name);
  dlclose(handle);
  if (!entry) throw std::runtime_error(std::string("no entry ") + name);
  return entry;
}

std::string Tell(const Event& event) {
  if (event.code != 0) return "code " + std::to_string(event.code);
  return event.event + " " + event.name + " " + TellValue(event.value);
}

Lines Sorted(Lines lines) {
  std::sort(lines.begin(), lines.end());
  return lines;
}

Options AtPort(int port, const std::string& mode, const std::string& name, Options more) {
  const Options common{{"Name", name},
                       {"Address", "127.0.0.1"},
                       {"Port", std::to_string(port)},
                       {"Protocol", "ipv4"},
                       {"Mode", mode}};
  more.insert(more.end(), common.begin(), common.end());  // the first of a name counts
  return more;
}

TestRoot::TestRoot() : Session(support::Lib(), "ROOT" + std::to_string(roots++)) {}

int TestRoot::Serve(const std::string& mode, const Options& more, const std::string& name) const {
  return Port(Server(AtPort(0, mode, name, more)));
}

std::string TestRoot::Dial(const std::string& mode, int port, const Options& more,
                           const std::string& name) const {
  return Client(AtPort(port, mode, name, more));
}

Lines TestRoot::Told(const std::string& name, int n) const {
  Lines lines;
  while (n-- > 0) lines.push_back(Told(name));
  return lines;
}

int TestRoot::Code(const char* command, const ZValue& right,
                   const std::optional<ZValue>& left) const {
  host::ZBlock result;
  host::ZBlock leftResult;
  const auto z = right.Encode();
  const auto l = left ? left->Encode() : std::vector<std::uint32_t>();
  const int code = Call(command, z.data(), left ? l.data() : nullptr, &result, &leftResult);
  return code != 0 ? code : result.Code();
}

int TestRoot::State(const std::string& name) const {
  return static_cast<int>(Tree(name).At(0).At(2).Integer());
}

Lines TestRoot::Children(const std::string& name) const {
  Lines names;
  const ZValue children = Tree(name).At(1);
  for (const ZValue& child : children.Items()) names.push_back(child.At(0).At(0).Text());
  return names;
}

std::string ZBytes(const ZValue& value) {
  const std::vector<std::uint32_t> z = value.Encode();
  return std::string(reinterpret_cast<const char*>(z.data()), host::ZSize(z.data()));
}

void AllowDescriptors() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

Memory Memory::Now() {
  std::size_t reserved = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> reserved >> resident;
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return {resident * page, reserved * page};
}

TempFile::TempFile(const std::string& content) : path("/tmp/kyrno_test_XXXXXX") {
  const int fd = mkstemp(path.data());
  if (fd < 0) throw std::runtime_error("cannot make a file");
  close(fd);
  std::ofstream(path, std::ios::binary) << content;
}

TempFile::~TempFile() { unlink(path.c_str()); }

}  // namespace support
