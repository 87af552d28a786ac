// stream.h - one connection over a socket pair, turned by hand: what a peer sends, in pieces, goes
// through the real engine, and every unit that becomes ready is delivered.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "kyrno/annotate.h"
#include "kyrno/modes/connection.h"
#include "kyrno/tree/root.h"

/// The tree: a root without a work thread, and the connection under test.
class STREAM {
 public:
  /// `make` gets an accepted socket, which the connection owns.
  template <typename MAKE>
  explicit STREAM(MAKE make) {
    AssumeWorkThread();
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) abort();
    peer = pair[1];
    CONNECTION* const connection = make(new RPCSOCK(pair[0]));
    connection->SetState(SConnected);
    ROOT* const object = static_cast<ROOT*>(root.Obj());
    if (object->Sets.ss.Open() || object->OpenReadAhead()) abort();
    node = root.AddNew("CON", connection);
    object->Mark(node);
    Turn();
  }
  ~STREAM() {
    if (peer >= 0) close(peer);
  }
  STREAM(const STREAM&) = delete;
  STREAM& operator=(const STREAM&) = delete;

  /// The peer sends; the engine turns until it has taken all or the connection has ended.
  void Send(const UI1* data, size_t n) {
    while (n > 0 && node && node->Obj()->GetState() == SConnected) {
      const ssize_t sent = send(peer, data, n, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent > 0) {
        data += sent;
        n -= static_cast<size_t>(sent);
      }
      for (int i = 0; i < 4; ++i) Turn();
    }
  }
  void ClosePeer() {
    close(peer);
    peer = -1;
    for (int i = 0; i < 8; ++i) Turn();
  }
  /// Is shown each unit before it is delivered.
  std::function<void(RPCOBJS*)> seen;
  /// The connection has ended without an event.
  bool IsGone() const { return !node; }

  void Turn() {
    AssumeWorkThread();
    ROOT* const object = static_cast<ROOT*>(root.Obj());
    SI4 count = 0;
    object->Sets.ss.WakeAt(1);  // poll only
    if (SfWait(&object->Sets.ss, 0, &count)) abort();
    object->Turn(count);
    if (!root.FirstChild()) node = nullptr;
    if (!node) return;
    Deliver(node);
    // One that has become something else.
    if (node->Obj()->GetState() == SIncoming) TakeOne(&root, node);
  }

 private:
  /// Picks every ready unit below, as waiting threads do; the next turn removes what is finished.
  void Deliver(PHIERAKI parent) WORK_ONLY {
    parent->WalkSub([&](PHIERAKI child) {
      AssumeWorkThread();
      Deliver(child);
      TakeOne(parent, child);
    });
  }

  void TakeOne(PHIERAKI parent, PHIERAKI child) WORK_ONLY {
    ROOT* const object = static_cast<ROOT*>(root.Obj());
    if (!object->Queue.PickThis(child)) return;
    RPCOBJS* const obj = child->Obj();
    if (seen) seen(obj);
    CH1 name[kFullNameSize + 1];
    CH1 event[kEventSize];
    OBJSTATE next = SFinished;
    PUI4 z = nullptr;
    const SI4 code = obj->GetWaitReturns(child, name, event, &next, &z);
    (void)code;
    free(z);
    obj->Unpick(next);
    object->Queue.Delivered(parent);
    object->Mark(child);
  }

  int peer = -1;
  HIERAKI root{"ROOT", new ROOT};
  PHIERAKI node = nullptr;
};
