// library.cpp - opening the library, and its commands with values.
#include "host/library.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "host/tlsoptions.h"

namespace host {

namespace {

constexpr char kLibraryName[] = "kyrno32_64.so";

std::string Describe(const std::string& doing, int code, const std::string& name,
                     const std::string& text) {
  return doing + ": " + std::to_string(code) + " " + name + ": " + text;
}

}  // namespace

LibraryError::LibraryError(const std::string& doing, int errorCode, std::string errorName,
                           std::string errorText)
    : std::runtime_error(Describe(doing, errorCode, errorName, errorText)),
      code(errorCode),
      name(std::move(errorName)),
      text(std::move(errorText)) {}

ZValue ZBlock::Value() const {
  if (!z) throw ZError("no block came back");
  return ZValue::Decode(z);
}

ZArray ZBlock::Top() const {
  if (!z) throw ZError("no block came back");
  return ZArray::Read(reinterpret_cast<const unsigned char*>(z), ZSize(z), 8);
}

int ZBlock::Code() const {
  ZArray array = Top();
  if (array.type == ZType::Nested)
    array = ZArray::Read(reinterpret_cast<const unsigned char*>(z), ZSize(z), array.next);
  return static_cast<int>(array.Integer());
}

std::string Library::DefaultPath() {
  if (const char* named = std::getenv("KYRNO_LIBRARY"); named && *named) return named;
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self);
  if (n <= 0) return kLibraryName;
  const std::string program(self, static_cast<std::size_t>(n));
  return program.substr(0, program.rfind('/') + 1) + kLibraryName;
}

Library::Library(const std::string& file) : path(file) {
  handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) throw std::runtime_error(std::string("cannot open the library: ") + dlerror());
  try {
    Find(&pVersion, "Version");
    Find(&pInit, "Init");
    Find(&pCall, "Call");
    Find(&pErrorText, "ErrorText");
    Find(&pFree, "FreeUsedTessorResult");
    Find(&pZeph2Init, "Zeph2Init");
    Find(&pCall1, "Call1");
    Find(&pCall2, "Call2");
    Find(&pSetXLate, "SetXLate");
    Find(&pGetXLate, "GetXLate");
    Find(&pKickStart, "KickStart");
    Find(&pcflate, "cflate");
  } catch (...) {
    dlclose(handle);
    throw;
  }
}

Library::~Library() { dlclose(handle); }

template <class T>
void Library::Find(T* entry, const char* name) {
  void* const found = dlsym(handle, name);
  if (!found) throw std::runtime_error(path + " has no entry " + name);
  *entry = reinterpret_cast<T>(found);
}

std::array<std::uint32_t, 3> Library::Version() const {
  std::array<std::uint32_t, 3> version{};
  pVersion(version.data());
  return version;
}

int Library::Init(const std::string& root) const { return pInit(root.c_str(), path.c_str()); }

LibraryError Library::Error(const std::string& doing, int code) const {
  char name[64] = "";
  char text[512] = "";
  std::int32_t nameSize = sizeof name;
  std::int32_t textSize = sizeof text;
  pErrorText(code, name, &nameSize, text, &textSize);
  return LibraryError(doing, code, std::string(name, strnlen(name, sizeof name)),
                      std::string(text, strnlen(text, sizeof text)));
}

std::string Library::Gunzip(const std::string& compressed) const {
  constexpr int kInflateGzip = 1 | 8;
  constexpr int kDrop = 1 | 4;
  constexpr int kStreamEnd = 1;
  constexpr std::uint32_t kRoom = 1 << 16;

  std::string text;
  std::vector<std::uint8_t> out(kRoom);
  void* session = nullptr;
  auto left = static_cast<std::uint32_t>(compressed.size());
  int state = 0;
  while (state == 0) {
    std::uint32_t room = kRoom;
    state =
        pcflate(kInflateGzip, &session, reinterpret_cast<const std::uint8_t*>(compressed.data()),
                &left, out.data(), &room, 0);
    text.append(out.begin(), out.begin() + (state >= 0 ? room : 0));
  }
  pcflate(kDrop, &session, nullptr, nullptr, nullptr, nullptr, 0);
  if (state != kStreamEnd) throw std::runtime_error("no gzip stream: " + std::to_string(state));
  return text;
}

int Library::Call(const char* root, const char* command, const std::uint32_t* right,
                  ZBlock* result) const {
  // The library only reads the block, and puts its own in the same place.
  auto* z = const_cast<std::uint32_t*>(right);
  std::uint32_t* none = nullptr;
  const int code = pCall(root, command, &z, &none);
  *result = ZBlock(z == right ? nullptr : z, pFree);
  return code;
}

int Library::Call(const char* root, const char* command, const std::uint32_t* right,
                  const std::uint32_t* left, ZBlock* result, ZBlock* leftResult) const {
  auto* z = const_cast<std::uint32_t*>(right);
  auto* l = const_cast<std::uint32_t*>(left);
  const int code = pCall(root, command, &z, &l);
  *result = ZBlock(z == right ? nullptr : z, pFree);
  *leftResult = ZBlock(l == left ? nullptr : l, pFree);
  return code;
}

Session::Session(const Library& lib, std::string name) : library(lib), root(std::move(name)) {
  if (const int code = library.Init(root); code != 0) throw library.Error("Init " + root, code);
}

Session::~Session() {
  if (!isMine) return;
  try {
    Run("AClose", ".");
  } catch (const std::exception&) {
    // The root is gone already, or nothing can be done for it.
  }
}

int Session::CallWait(const std::uint32_t* request, ZBlock* result, ZBlock* data) const {
  // Any block serves as the left argument: the command only puts its data in that place.
  static const std::vector<std::uint32_t> place = ZValue(0).Encode();
  const int code = Call("AWaitZ", request, place.data(), result, data);
  return code != 0 ? code : result->Code();
}

ZValue Session::Run(const char* command, const ZValue& right) const {
  ZBlock result;
  const std::vector<std::uint32_t> z = right.Encode();
  if (const int code = Call(command, z.data(), &result); code != 0)
    throw library.Error(command, code);
  return result.Value();
}

ZValue Session::Run(const char* command, const ZValue& right, const ZValue& left) const {
  ZBlock result;
  ZBlock data;
  const std::vector<std::uint32_t> z = right.Encode();
  const std::vector<std::uint32_t> l = left.Encode();
  if (const int code = Call(command, z.data(), l.data(), &result, &data); code != 0)
    throw library.Error(command, code);
  return result.Value();
}

ZValue Session::Must(const char* command, const ZValue& right) const {
  ZValue result = Run(command, right);
  if (const auto code = static_cast<int>(result.Integer()); code != 0)
    throw library.Error(command, code);
  return result;
}

ZValue Session::Must(const char* command, const ZValue& right, const ZValue& left) const {
  ZValue result = Run(command, right, left);
  if (const auto code = static_cast<int>(result.Integer()); code != 0)
    throw library.Error(command, code);
  return result;
}

ZValue OptionList(const Options& options) {
  std::vector<ZValue> pairs;
  pairs.reserve(options.size());
  for (const auto& [name, value] : options) pairs.push_back(ZValue::List({name, value}));
  return ZValue::List(std::move(pairs));
}

std::string Session::Server(const Options& options) const {
  return Must("ASrv", OptionList(options)).At(1).Text();
}

std::string Session::Client(const Options& options) const {
  const ZValue result = Run("AClt", OptionList(options));
  const auto code = static_cast<int>(result.Integer());
  if (code == 0) return result.At(1).Text();
  const LibraryError error = library.Error("AClt", code);
  const auto more = [&](const std::string& reason) {
    return LibraryError("AClt", code, error.name, error.text + ": " + reason);
  };
  if (code == kTlsHandshake)
    throw more("nobody listens there, no TLS suits both ends, or a certificate is wanted");
  if (code != kInvalidPeerCertificate) throw error;

  int verify = 0;
  for (const auto& [name, value] : options)
    if (name == "SSLValidation") verify = static_cast<int>(value.Integer());
  const auto status = result.Count() > 1 ? static_cast<unsigned>(result.Integer(1)) : 0;
  throw more(WhyRefused(status, verify));
}

std::string Session::Send(const std::string& to, const ZValue& value, int flag) const {
  return Send(to, value.Encode(), flag);
}

std::string Session::Send(const std::string& to, const std::vector<std::uint32_t>& z,
                          int flag) const {
  const std::vector<std::uint32_t> request = ZValue::List({to, flag}).Encode();
  ZBlock result;
  ZBlock untouched;
  int code = Call("ASendZ", request.data(), z.data(), &result, &untouched);
  if (code == 0) code = result.Code();
  if (code != 0) throw library.Error("ASendZ " + to, code);
  return result.Value().At(1).Text();
}

void Session::Respond(const std::string& to, const ZValue& value, int flag) const {
  Must("ARespondZ", ZValue::List({to, flag}), value);
}

Event Session::Wait(const std::string& name, int millis) const {
  const std::vector<std::uint32_t> request = ZValue::List({name, millis}).Encode();
  ZBlock result;
  ZBlock data;
  Event event;
  event.code = CallWait(request.data(), &result, &data);
  if (event.code != 0) return event;

  const ZValue answer = result.Value();
  event.name = answer.At(1).Text();
  event.event = answer.At(2).Text();
  const ZValue times = answer.At(3);
  for (std::size_t i = 0; i < event.times.size(); ++i) event.times[i] = times.Number(i);
  event.value = data.Value();
  return event;
}

void Session::Close(const std::string& name) const { Must("AClose", name); }

ZValue Session::Tree(const std::string& name) const { return Must("ATree", name).At(1); }

void Session::SetProp(const std::string& name, const std::string& property,
                      const ZValue& value) const {
  Must("ASetProp", ZValue::List({name, property, value}));
}

ZValue Session::GetProp(const std::string& name, const std::string& property,
                        const std::vector<ZValue>& more) const {
  std::vector<ZValue> argument{name, property};
  argument.insert(argument.end(), more.begin(), more.end());
  return Must("AGetProp", ZValue::List(std::move(argument))).At(1);
}

void Session::Relay(const std::string& from, const std::string& to, int size, bool oneWay) const {
  Must("ASetRelay", ZValue::List({from, to, size, oneWay ? 1 : 0}));
}

ZValue Session::Certs(const Options& options) const {
  return Must("ACerts", OptionList(options)).At(1);
}

int Session::Port(const std::string& name) const {
  return static_cast<int>(GetProp(name, "LocalAddr").At(3).Integer());
}

}  // namespace host
