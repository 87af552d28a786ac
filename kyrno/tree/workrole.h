// workrole.h - the role in which sockets are read and written and nodes are unlinked: one thread of
// a root has it at a time.
//
//   free --TryTake--> an interpreter thread sends at once --Give--> free
//   free --Take-----> the work thread makes its turn     --Give--> free
//
// An interpreter thread only tries, and keeps the role for system calls that do not block. Whoever
// gives the role up looks at the list of touched nodes afterwards: a thread that could not get the
// role has put there what it wanted.
#pragma once

#include <atomic>

#include "kyrno/annotate.h"
#include "sys/linux/qlntypes.h"

class WORKROLE {
 public:
  WORKROLE() = default;
  WORKROLE(const WORKROLE&) = delete;
  WORKROLE& operator=(const WORKROLE&) = delete;

  /// False when another thread has the role, or the work thread waits for it.
  bool TryTake() TSA(try_acquire_capability(true, WorkThreadRole));
  /// For the work thread alone: waits until it is free.
  void Take() TSA(acquire_capability(WorkThreadRole));
  void Give() TSA(release_capability(WorkThreadRole));

 private:
  enum WORD : UI4 { Free, Held, Wanted };
  std::atomic<UI4> word{Free};
};
