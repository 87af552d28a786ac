// rootprops_test.cpp - the properties of a root that secure sockets hang on.
#include <cstdlib>

#include "kyrno/tls/rootcerts.h"
#include "kyrno/tls/sessioncache.h"
#include "kyrno/tree/root.h"
#include "tests/kyrno/tls/certtexts.h"
#include "tests/support/arrays.h"

namespace {

/// Of a root whose work thread was never started.
class RootProps : public ::testing::Test {
 protected:
  SI4 Set(PCH10 name, const VAHOLD& to) { return root.SetRPCProp(nullptr, name, to.Get()); }
  SI4 Get(PCH10 name) {
    VAHOLD none;
    return root.GetRPCProp(name, none.Get(), value.Out());
  }
  std::string Text() {
    return std::string(reinterpret_cast<PCH10>(VAData(value.Get())), VACount(value.Get()));
  }

  const GNUTLSHOLD loaded;
  ROOT root;
  VAHOLD value;
};

TEST_F(RootProps, RootCertDirNamesWhatIsTrustedFromNowOn) {
  char folder[] = "/tmp/kyrno_props_XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  EXPECT_EQ(Get("RootCertDir"), ERR_OPTION);
  EXPECT_EQ(Set("RootCertDir", MakeText(folder)), ERR_ZERO_CERTS_FOUND);
  const std::string file = folder + std::string("/ca.pem");
  FILE* const out = fopen(file.c_str(), "w");
  fputs(Pem(kAuthority).c_str(), out);
  fclose(out);

  EXPECT_EQ(Set("rootcertdir", MakeText(folder)), 0);
  EXPECT_EQ(root.TrustedCerts()->Current()->Count(), 1);
  ASSERT_EQ(Get("RootCertDir"), 0);
  EXPECT_EQ(Text(), folder);
  remove(file.c_str());
  rmdir(folder);
}

TEST_F(RootProps, InvalidateCacheGivesClientsAnotherOneOfTheirOwn) {
  EXPECT_EQ(Set("InvalidateCache", Int(5)), 0);  // there is none yet
  const REF<SessionCache2> first = root.ClientSessions();
  ASSERT_TRUE(first);
  for (const SI4 n : {0, -1}) EXPECT_EQ(Set("InvalidateCache", Int(n)), 0);
  EXPECT_EQ(root.ClientSessions().Get(), first.Get());
  EXPECT_EQ(Set("InvalidateCache", Int(5)), 0);
  EXPECT_NE(root.ClientSessions().Get(), first.Get());
  EXPECT_NE(Set("InvalidateCache", MakeText("x")), 0);
}

TEST_F(RootProps, OthersAreOneWayOrNotThere) {
  EXPECT_EQ(Get("Security"), ERR_NONCE);
  EXPECT_EQ(Set("Security", Int(1)), ERR_OPTION);
  EXPECT_EQ(Set("TraceGnuTLS", Int(0)), 0);
  EXPECT_EQ(Get("TraceGnuTLS"), ERR_OPTION);
  EXPECT_EQ(Get("InvalidateCache"), ERR_OPTION);
}

}  // namespace
