// calls.h - calls of the library with prepared blocks, as a quick application makes them.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "host/library.h"

namespace bench {

using host::ZArray;
using host::ZBlock;
using host::ZValue;

using Block = std::vector<std::uint32_t>;

inline constexpr int kWaitMillis = 5'000;

inline Block TextBlock(std::size_t bytes) { return ZValue(std::string(bytes, 'k')).Encode(); }

/// The argument (path, number) of a command. A new path of the same length, which nearly every one
/// has, is written over the old one.
class PathArgument {
 public:
  explicit PathArgument(int n) : number(n) {}
  PathArgument(std::string_view path, int n) : number(n) { Encode(path); }

  void SetPath(std::string_view path) {
    if (path.size() == length)
      std::memcpy(reinterpret_cast<unsigned char*>(block.data()) + at, path.data(), length);
    else
      Encode(path);
  }
  const std::uint32_t* Get() const { return block.data(); }

 private:
  void Encode(std::string_view path) {
    block = ZValue::List({path, number}).Encode();
    const auto* bytes = reinterpret_cast<const unsigned char*>(block.data());
    const std::size_t size = block.size() * sizeof block[0];
    const ZArray list = ZArray::Read(bytes, size, 8);
    const ZArray text = ZArray::Read(bytes, size, list.next);
    at = static_cast<std::size_t>(text.data - bytes);
    length = path.size();
  }

  const int number;
  Block block;
  std::size_t at = 0;      // of the path's bytes in the block
  std::size_t length = 0;  // of the path
};

/// What a wait brought; the texts stand in the result.
struct Arrival {
  ZBlock result;
  ZBlock data;
  std::string_view name;
  std::string_view event;
};

/// False when nothing came in time.
inline bool Wait(const host::Session& session, const PathArgument& request, Arrival* arrival) {
  const int code = session.CallWait(request.Get(), &arrival->result, &arrival->data);
  if (code == host::kTimeout) return false;
  if (code != 0) throw session.Lib().Error("AWaitZ", code);
  const auto* bytes = reinterpret_cast<const unsigned char*>(arrival->result.Get());
  const std::size_t size = arrival->result.Size();
  const ZArray number = ZArray::Read(bytes, size, arrival->result.Top().next);
  const ZArray name = ZArray::Read(bytes, size, number.next);
  arrival->name = name.Text();
  arrival->event = ZArray::Read(bytes, size, name.next).Text();
  return true;
}

/// ASendZ or ARespondZ; the code.
inline int TryPass(const host::Session& session, const char* command, const PathArgument& argument,
                   const std::uint32_t* array) {
  ZBlock result;
  ZBlock untouched;
  const int code = session.Call(command, argument.Get(), array, &result, &untouched);
  return code != 0 ? code : result.Code();
}

inline void Pass(const host::Session& session, const char* command, const PathArgument& argument,
                 const std::uint32_t* array) {
  if (const int code = TryPass(session, command, argument, array); code != 0)
    throw session.Lib().Error(command, code);
}

}  // namespace bench
