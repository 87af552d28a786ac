// options_fuzz.cpp - any array as a command's argument: each getter gives a value, a default or a
// code, and the options of a server and a client give certificate data, none, or a code.
#include <cstdlib>

#include "Apl/vaget.h"
#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/boundary/certoptions.h"
#include "kyrno/boundary/create.h"
#include "kyrno/boundary/options.h"
#include "tests/support/zfuzz.h"

namespace {

constexpr PCH10 kNames[] = {"Name", "Port", "Mode"};
constexpr PCH10 kWords[] = {"raw", "text"};
constexpr SI4 kCount = 3;

void CheckCode(SI4 code) {
  if (code != 0 && code != ERR_ARG_INVALID) __builtin_trap();
}

void ReadOption(PAA arg, SI4 index) {
  SI1 truth = 0;
  SI4 number = 0;
  UI4 code = 0;
  PLIST list = nullptr;
  CH1 buffer[16];
  CheckCode(GetBool(arg, index, kCount, kNames, 1, &truth));
  CheckCode(GetSI4(arg, index, kCount, kNames, 1, &number));
  GetPCH10(arg, index, kCount, kNames, buffer, sizeof buffer);
  free(GetPCH10(arg, index, kCount, kNames, nullptr, 0));
  GetEnum(arg, index, kCount, kNames, 2, kWords, 0, &code);
  for (const SI2 translate : {VABIN, VACHAR}) {
    if (GetList(arg, index, kCount, kNames, translate, &list) == 0) FreeList(list);
  }
  VAHOLD value;
  if (GetOptionpAA(arg, index, kCount, kNames, value.Out()) != 0) return;
  UI4 length = 0;
  if (VAGetUnicodeLen(value.Get(), 0, &length, UTF8, VACHAR) != 0) return;
  CH1* const text = static_cast<PCH1>(malloc(length + 1));
  if (text && VAGetUnicode(value.Get(), 0, text, length, UTF8, VACHAR) == 0) buffer[0] = *text;
  free(text);
}

bool IsWiped(PAA arg, SI4 option) {
  VAHOLD value;
  if (GetOptionpAA(arg, option, COMAX, KyrnoOptionNames, value.Out()) != 0) return true;
  if (IsPointerLike(VAType(value.Get())) || VARefCount(value.Get()) == 1) return true;
  for (UI4 i = 0; i < VADataLength(value.Get()); ++i)
    if (VAData(value.Get())[i] != 0) return false;
  return true;
}

void ReadCertificates(PAA arg, bool server) {
  REF<CERTDATA> cert;
  const SI4 code = GetCert(arg, server, &cert);
  if (cert && (code != 0 || cert->pubCert == CDTNoCert || cert->certsCount > kMaxChain)) abort();
  if (cert && server && cert->certsCount == 0) abort();
  for (const SI4 option : {COPrivKeyPass, COPubCertPass, COPrivKeyData})
    if (!IsWiped(arg, option)) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool loaded = LoadKyrnossl() == 0 && KyrnosslLoaded();
  if (!loaded) abort();
  const VAHOLD arg = ReadFuzzed(data, size);
  if (!arg) return 0;
  for (SI4 index = 0; index < kCount; ++index) ReadOption(arg.Get(), index);
  for (const bool server : {false, true}) ReadCertificates(arg.Get(), server);
  return CheckArgList(arg.Get(), kCount, kNames) < 0 ? -1 : 0;
}
