// argument.h - the argument of a call.
//
// The commands that move messages are given (path, number) each time. What has this plain form is
// read where it stands in its block; every other argument becomes an array first, and that alone
// decides what the result or the error is. Both ways give the same.
#pragma once

#include "Apl/vapl.h"
#include "kyrno/boundary/arrays.h"
#include "kyrno/tree/hieraki.h"
#include "util/freed.h"

/// A path with its terminator.
///
/// Owner:   the stack of the command that reads it. Only a path of unusual length needs the heap.
/// Threads: that thread.
class PATH {
 public:
  PATH() = default;
  PATH(const PATH&) = delete;
  PATH& operator=(const PATH&) = delete;

  PCH10 Get() const { return heap ? heap.get() : own; }

 private:
  friend class ARGUMENT;
  CH1 own[kFullNameSize + 1];
  TEXT heap;
};

/// Owner:   the stack of Call. It borrows the block, which stays the interpreter's.
/// Threads: that thread.
/// Errors:  the codes of the array readers.
class ARGUMENT {
 public:
  ARGUMENT() = default;
  ARGUMENT(const ARGUMENT&) = delete;
  ARGUMENT& operator=(const ARGUMENT&) = delete;

  /// Reads a block; a null one is no argument. Its header also tells the interpreter's character
  /// set. ERR_ARCHITECTURE for a block that is not what it says.
  [[nodiscard]] SI4 Read(const UI4* block);
  /// False without an argument.
  explicit operator bool() const { return z != nullptr; }

  /// How many items there are; a text counts as one.
  UI4 Count() const { return items ? items : ItemCount(array.Get()); }
  /// The first item as text into a buffer of `size` bytes, as VAGetCH1.
  [[nodiscard]] SI4 GetPath(PCH1 buffer, UI4 size);
  /// The first item as text of any length.
  [[nodiscard]] SI4 GetPath(PATH* path);
  /// The second item as number.
  [[nodiscard]] SI4 GetNumber(PSI4 number);
  /// The whole argument, lent.
  [[nodiscard]] SI4 GetArray(PPAA lent);

 private:
  const UI4* z = nullptr;  // borrowed; null without an argument
  VAHOLD array;            // of the plain form made when it is needed, else by Read
  // The plain form; without items it is none.
  UI4 items = 0;
  UI4 length = 0;
  const CH1* text = nullptr;  // inside the block
  SI4 number = 0;             // of two items
};
