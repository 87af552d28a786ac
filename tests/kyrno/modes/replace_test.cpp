// replace_test.cpp - a connection whose node is given to another object while it works.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "Apl/zblock.h"
#include "kyrno/base/error.h"
#include "kyrno/boundary/roots.h"
#include "kyrno/boundary/wait.h"
#include "kyrno/modes/blkconnection.h"
#include "kyrno/modes/message.h"

namespace {

/// Each byte that comes is a unit of its own, also those which were read before it was there.
class BYTEWISE : public CONNECTION {
 public:
  BYTEWISE() {
    Mode = MBlkAscii;
    SetState(SConnected);
  }
  PBUFFER NewHeader() override { return new BUFFER(1); }
  SI4 HeaderComplete(PFDSETS, PHIERAKI item) override WORK_ONLY {
    pHeader->Rewind();
    MESSAGE* const unit = new MESSAGE(new BUFFER(1, pHeader->Start()), SAPL);
    unit->Mode = MBlkAscii;
    CH1 name[kMaxName];
    snprintf(name, sizeof name, "Byte%08u", count++);
    Ready4Apl(item->AddNew(name, unit));
    return 0;
  }

 private:
  UI4 count = 0;
};

/// The next event of C, or the code of the wait: "Block" with the first byte of its data.
std::string Next(SI4 timeout) {
  ROOTSHARE share;
  EXPECT_TRUE(share.Open("REPLACE"));
  CH1 name[kFullNameSize + 1], word[kEventSize];
  F8 times[3];
  PUI4 z = nullptr;
  const SI4 code = WaitZ1(share, "C", timeout, name, word, &z, times);
  std::string text = code ? std::to_string(code) : word;
  if (text == "Block") text = text + ' ' + reinterpret_cast<PCH1>(z)[kVectorZHead];
  free(z);
  return text;
}

TEST(Replace, TakesTheStreamTheWaitersAndWhatIsQueuedOver) {
  ASSERT_EQ(CreateRoot("REPLACE", "/"), 0);
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  BLKCONNECTION* const first = new BLKCONNECTION(0, 1000, MBlkAscii, new RPCSOCK(ends[0]));
  first->SetState(SConnected);
  {
    ROOTSHARE share;
    ASSERT_TRUE(share.Open("REPLACE"));
    PHIERAKI const node = share.Root()->AddNew("C", first);
    ASSERT_EQ(share.Object()->Changed(node), 0);
  }
  const std::string block("\0\0\0\5x\0\0", 7);  // a whole block, and half a header
  ASSERT_EQ(write(ends[1], block.data(), block.size()), 7);
  EXPECT_EQ(Next(10000), "Block x");

  std::thread waiter([] { EXPECT_EQ(Next(10000), std::string("Block ") + '\0'); });
  {
    ROOTSHARE share;
    ASSERT_TRUE(share.Open("REPLACE"));
    PHIERAKI const node = share.Root()->FindLeaf("C");
    share.Object()->TakeRoleFromCall();
    share.Object()->Replace(node, new BYTEWISE);
    share.Object()->GiveRoleFromCall();
    EXPECT_NE(node->Obj(), first);
    EXPECT_EQ(first->SendBuffer(node, nullptr, new BUFFER(1, "a"), 0), ERR_CLOSED);
    EXPECT_EQ(node->Obj()->SendBuffer(node, nullptr, new BUFFER(1, "b"), 0), 0);
  }
  ASSERT_EQ(write(ends[1], "yz", 2), 2);
  waiter.join();
  EXPECT_EQ(Next(10000), std::string("Block ") + '\0');
  EXPECT_EQ(Next(10000), "Block y");
  EXPECT_EQ(Next(10000), "Block z");
  char sent = 0;
  EXPECT_EQ(read(ends[1], &sent, 1), 1);
  EXPECT_EQ(sent, 'b');
  close(ends[1]);
  EXPECT_EQ(Next(10000), "Error");

  ROOTSHARE share;
  ASSERT_TRUE(share.Open("REPLACE"));
  EXPECT_EQ(RPCUnload(&share), 0);
}

}  // namespace
