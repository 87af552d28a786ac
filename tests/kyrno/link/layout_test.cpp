// layout_test.cpp - the link's table as the library has it, and as its header shows it to an
// interpreter.
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>

#include "kyrno/link/zeph2.h"

namespace shown {
#include "include/kyrno.h"
}  // namespace shown

namespace {

// clang-format off
#define CONFIG_FIELDS(X) \
  X(CommNotify) X(CommConfig) X(ConfigFile) X(Direction) X(pAddress) X(Port) X(MaxBlockSize) \
  X(SSLValidation) X(Protocol) X(Secure) X(pPublicCertData) X(pPublicCertFile) X(pPrivateKeyData) \
  X(pPrivateKeyFile) X(pRootCertDir) X(pPriority) X(Magic) X(Trace) X(pLogfilename) \
  X(pCurrentConnection) X(pHttpDir) X(pConnectThread) X(pCert) X(pAllow) X(pDeny) X(lError) \
  X(pAcceptCertDir) X(pAcceptCertList) X(KAtime) X(KAint)
#define TABLE_FIELDS(X) \
  X(pZeph2Config) X(Zeph2State) X(Zeph2Enabled) X(pZephRoot) X(pZeph2Enable) X(pZeph2GetBuffer) \
  X(pZeph2Free) X(pZeph2Send) X(pZeph2Errortext)
// clang-format on

#define EXPECT_SAME(TYPE, field)                                            \
  EXPECT_EQ(offsetof(TYPE, field), offsetof(shown::TYPE, field)) << #field; \
  EXPECT_EQ(sizeof(TYPE::field), sizeof(shown::TYPE::field)) << #field;
#define EXPECT_CONFIG(field) EXPECT_SAME(tZeph2Config, field)
#define EXPECT_TABLE(field) EXPECT_SAME(TKYRNOFNS, field)

TEST(LinkTable, LiesInMemoryAsItsHeaderShows) {
  EXPECT_EQ(sizeof(tZeph2Config), sizeof(shown::tZeph2Config));
  EXPECT_EQ(sizeof(TKYRNOFNS), sizeof(shown::TKYRNOFNS));
  CONFIG_FIELDS(EXPECT_CONFIG)
  TABLE_FIELDS(EXPECT_TABLE)
  EXPECT_EQ(UI4{Zeph2HttpSrv}, UI4{shown::Zeph2HttpSrv});
}

}  // namespace
