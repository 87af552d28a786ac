// objects.h - servers and clients of every mode: from a plan to an object that works, and its place
// in the tree.
//
// An object starts outside the gate, because looking a name up and connecting block. It is linked
// when it works, complete with its stop list and its filters, so that no byte and no peer meets an
// object with the wrong rules.
#pragma once

#include <memory>

#include "kyrno/base/error.h"
#include "kyrno/boundary/roots.h"
#include "kyrno/modes/connection.h"
#include "kyrno/modes/server.h"
#include "kyrno/modes/udpaddr.h"
#include "kyrno/net/ranges.h"
#include "kyrno/net/stoplist.h"
#include "kyrno/tls/certdata.h"
#include "util/freed.h"

inline constexpr UI4 kObjectNameSize = 65;  // of the option "Name", with its terminator

struct DELETELIST {
  void operator()(PLIST list) const { FreeList(list); }
};

/// What a new object is to be.
struct OBJECTPLAN {
  CH1 name[kObjectNameSize + kPeerNameSize] = {0};  // a UDP client's has that of its peer behind it
  TEXT address;                                     // null for none
  TEXT port;                                        // null for none
  OBJMODE mode = MCommand;
  UI4 size = 0;   // the longest unit
  UI4 magic = 0;  // of the block modes
  PROTOCOL prot = PAny;
  REF<RANGES> allow, deny;
  std::unique_ptr<LIST, DELETELIST> stop;
  REF<CERTDATA> cert;  // null for a plain object
  bool ignoreCase = true;
  TPOOSFN callback = nullptr;  // of a root that works out of stream
  UI4 features = 0;            // of a server of mode "http": see websocket.h
  int giveUp = -1;             // a descriptor that ends a connect once it is readable
};

/// A server that listens, or a client that is connected, of any mode but "udp", which nobody knows
/// yet. An empty name is completed. The share is outside meanwhile, and inside afterwards unless
/// the code is ERR_ROOT_NOT_FOUND.
[[nodiscard]] SI4 MakeServer(ROOTSHARE& share, OBJECTPLAN* plan, std::unique_ptr<SERVER>* server);
[[nodiscard]] SI4 MakeClient(ROOTSHARE& share, OBJECTPLAN* plan,
                             std::unique_ptr<CONNECTION>* client);

/// Links an object that works below the root, which then owns it; its node in *node.
/// ERR_NAME_IN_USE.
template <typename OBJECT>
[[nodiscard]] SI4 LinkObject(ROOTSHARE& share, PCH10 name, std::unique_ptr<OBJECT> object,
                             PHIERAKI* node = nullptr) {
  PHIERAKI const linked = share.Root()->AddNew(name, object.get());
  if (!linked) return ERR_NAME_IN_USE;
  static_cast<void>(object.release());
  if (node) *node = linked;
  return share.Object()->Changed(linked);
}

/// Both steps, and mode "udp" as well.
[[nodiscard]] SI4 NewServer(ROOTSHARE& share, OBJECTPLAN* plan);
[[nodiscard]] SI4 NewClient(ROOTSHARE& share, OBJECTPLAN* plan);
