// work.h - the work thread: one per root. It, or who has its role for a moment, touches sockets and
// unlinks nodes; what it costs follows what has happened, not what is there.
//
// One turn:
//
//   what the wait has brought,      MakeDue      nodes with a socket become due
//   what falls due
//   what was touched                TakeTouched  children tell their connection what they want,
//                                                finished nodes are unlinked, and the node with a
//                                                socket above becomes due
//   what is due                     RunDue       Setinfo, Execute: reads, writes, accepts;
//                                                Check: says what the socket is to wait for
//   what has become ready           CallBack     on roots that work out of stream
//   what nobody can look at         Collect      is freed
//   the wait                        Sleep        outside the role
//
// Nodes with a socket: TRoot, TServer, TClient, TConnection, TUdp.
#pragma once

#include "kyrno/tree/hieraki.h"

/// While changes are left by bursts, a turn comes this often.
inline constexpr F8 kTickMicros = 1000;
inline constexpr F8 kTickingMicros = 30e3;  // and for this long after the last one

/// The thread's function; root is the PHIERAKI of the root node. Returns the thread's exit code:
/// 1124 when the end was asked for or the wake-up pair failed, 1133 after a fork, or the error of
/// the wait.
UI4 WorkThread(PVOID root);
