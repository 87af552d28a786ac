// ready.h - which of the ready objects at or below a node goes next.
//
//   strategy   function        order
//   0          FindReady       first in tree order, older siblings first
//   1          FindReadyRR     the same, round robin at root and servers
//   2          FindReadyTO     by the time it became ready
//   3          FindReadyTS     the same, among the first ready of a ring
//   4          FindReadyTnc    the same, within a budget of 10 descents
//   -          PopReady        by arrival, for a server in FIFO mode
//
// Whatever the order between subtrees, some things come before others:
//   - below a connection that is closed or failed, whole units come before failures, and all of
//     them before the connection itself;
//   - progress of a command comes before its answer or its failure;
//   - a connection that this side closes has nothing to tell itself.
//
// The root's ready queue finds it (kyrno/tree/readyqueue.h). A find is taken by a compare-exchange
// from the state that was seen, so each event is delivered to one waiter.
#pragma once

#include "kyrno/tree/root.h"

/// The object has nothing more to come: it is taken when all below it has been delivered.
constexpr bool HasEnded(OBJSTATE state) { return state == SSocketClosed || state == SError; }

/// Each takes what it finds: LastState tells why it was picked, and the caller owns it until
/// Unpick; then its parent's READYQUEUE::Delivered is due. The find is the result and *found as
/// well, null when nothing is ready.
PHIERAKI FindReady(PHIERAKI node, PHIERAKI* found);
PHIERAKI FindReadyRR(PHIERAKI node, PHIERAKI* found);
PHIERAKI FindReadyTO(PHIERAKI node, PHIERAKI* found);
PHIERAKI FindReadyTS(PHIERAKI node, PHIERAKI* found);
PHIERAKI FindReadyTnc(PHIERAKI node, PHIERAKI* found);
/// node is a server's.
PHIERAKI PopReady(PHIERAKI node, PHIERAKI* found);
