// listing.h - the command that shows the tree: ATree.
//
// A node's item is a pair of its properties and the items of its children:
//
//   root                       (name, type, state, version text, semaphores in the pool)
//   command, message           (name, type, state, bytes done, bytes to do)
//   all others                 (name, type, state)
#pragma once

#include "kyrno/boundary/roots.h"

PAA ATree(ROOTSHARE& share, PAA arg);
