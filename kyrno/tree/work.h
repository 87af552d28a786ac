// work.h - the work thread: one per root, the only one that touches sockets and frees nodes.
//
// One turn:
//
//   CheckSub   whole tree     each object says what it wants; finished ones are unlinked
//   SfWait     one wait       until something is ready, a time limit falls due, or Dirty
//   ExecSub    whole tree     what is ready is read, written, accepted; new nodes appear
//   Collect                   what nobody can look at any more is freed
//
//   type                                      CheckSub                     ExecSub
//   TRoot, TServer                            children, Check              Setinfo, children,
//   Execute TClient, TConnection                      Setinfo, children, Check     Execute
//   TCommand, TMessage, TRelay, TUdpPeer      children, Check              -
//   TUdp                                      Setinfo, children, Check     Setinfo, children,
//   Execute
#pragma once

#include "kyrno/tree/hieraki.h"

/// The thread's function; root is the PHIERAKI of the root node. Returns the thread's exit code:
/// 1124 when the end was asked for or the wake-up pair failed, 1133 after a fork, or the error of
/// the wait.
UI4 WorkThread(PVOID root);
