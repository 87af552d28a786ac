// ini_fuzz.cpp - INI text from outside, read in all modes into buffers of several sizes.
//
// The first line of the input is the asked section, the second the asked key.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "sys/linux/fdhold.h"
#include "sys/linux/qlnplat.h"

namespace {

std::string CutLine(std::string* text) {
  const size_t end = text->find('\n');
  std::string line = text->substr(0, end);
  *text = end == std::string::npos ? "" : text->substr(end + 1);
  return line;
}

void Read(PCH10 section, PCH10 key, UI4 size, PCH10 path) {
  const std::unique_ptr<CH1[]> out(new CH1[size]);  // exact, so that a byte too much shows
  const SI4 n = PLATIni(section, key, "default", out.get(), size, path);
  if (n < 0 || (section && key && size && static_cast<UI4>(n) >= size)) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  const std::string section = CutLine(&text);
  const std::string key = CutLine(&text);
  const FDHOLD file(memfd_create("ini", MFD_CLOEXEC));
  if (!file || write(file.Get(), text.data(), text.size()) < 0) return 0;
  const std::string path = "/proc/self/fd/" + std::to_string(file.Get());

  for (const UI4 room : {0u, 1u, 2u, 7u, 100u, 4096u}) {
    Read(section.c_str(), key.c_str(), room, path.c_str());
    Read(section.c_str(), nullptr, room, path.c_str());
    Read(nullptr, nullptr, room, path.c_str());
  }
  return 0;
}
