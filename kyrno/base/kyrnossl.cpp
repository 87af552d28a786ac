// kyrnossl.cpp - GnuTLS, zlib and libtasn1, opened at run time.

#include "kyrno/base/kyrnossl.h"

#include <cstring>
#include <memory>
#include <new>
#include <type_traits>

constinit KYRNOSSL kyrnossl{};

namespace {

constexpr CH1 kDefaultLibrary[] = "libkyrno32ssl64.so";
constexpr UI4 kTextBytes = 1024;

struct ENTRY {
  PCH10 name;
  void* slot;  // in the table, of the type that belongs to the name
};

#define ENTRY_ROW(result, name, parameters, arguments) {#name, &kyrnossl.i##name},
constexpr ENTRY entries[] = {DYNAMIC_FUNCTION(ENTRY_ROW) DYNAMIC_VARIABLE(ENTRY_ROW)};
#undef ENTRY_ROW

/// What a forwarder without an entry answers: see the header.
template <typename RESULT>
RESULT Absent() {
  if constexpr (std::is_signed_v<RESULT>) {
    return -1;
  } else {
    return RESULT();
  }
}

}  // namespace

#define FORWARDER(result, name, parameters, arguments)                               \
  result name parameters {                                                           \
    return SslHas(kyrnossl.i##name) ? kyrnossl.i##name arguments : Absent<result>(); \
  }
DYNAMIC_FUNCTION(FORWARDER)
#undef FORWARDER

#define FORWARDER(result, name, parameters, arguments)                                 \
  result QLN_##name parameters {                                                       \
    return SslHas(kyrnossl.i##name) ? (*kyrnossl.i##name)arguments : Absent<result>(); \
  }
DYNAMIC_VARIABLE(FORWARDER)
#undef FORWARDER

SI4 LoadKyrnossl() {
  if (kyrnossl.ikyrnossl) return 0;

  CH1 name[kTextBytes];
  CH1 text[kTextBytes];
  PLATEnvironment("KYRNOSSL_LIBRARY", kDefaultLibrary, name, sizeof name);
  const SI4 beside = strcmp(name, kDefaultLibrary) == 0 ? -1 : 0;
  std::unique_ptr<QLNLIB> library(new (std::nothrow) QLNLIB(beside, name, text));
  if (!library) return 1;
  const auto version = reinterpret_cast<Tkyrnosslversion>(library->fptr("kyrnosslversion"));
  if (!version) return 1;

  kyrnossl.ikyrnossl = library.release();
  if (version(text, sizeof text) < 1) return 0;
  for (const ENTRY& entry : entries) {
    const QLNFPTR found = kyrnossl.ikyrnossl->fptr(entry.name);
    memcpy(entry.slot, &found, sizeof found);
  }
  return 0;
}

SI4 UnloadKyrnossl() {
  const std::unique_ptr<QLNLIB> library(kyrnossl.ikyrnossl);
  kyrnossl = {};
  return 0;
}

SI4 KyrnosslLoaded() { return kyrnossl.ikyrnossl != nullptr; }

SI4 IsFnLoaded(PCH10 name) {
  return kyrnossl.ikyrnossl && kyrnossl.ikyrnossl->fptr(name) != nullptr;
}
