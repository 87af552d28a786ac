// tesnaz.h - the command table behind the exported entry points, which include/kyrno.h declares.
#pragma once

#include "kyrno/boundary/argument.h"
#include "kyrno/boundary/roots.h"

// Syntax of a command, in octal as the interpreter knows it.
inline constexpr UI4 NILA = 0000;  ///< no argument
inline constexpr UI4 MONA = 0001;  ///< one argument
inline constexpr UI4 DYAD = 0003;  ///< two arguments
inline constexpr UI4 OPTL = 0007;  ///< left argument optional
inline constexpr UI4 RSLT = 0010;  ///< has a result
inline constexpr UI4 RLEF = 0020;  ///< the left argument is also a result
inline constexpr UI4 RRIG = 0040;  ///< the right argument is also a result

using COMMAND1 = PAA (*)(ROOTSHARE& share, PAA arg);
using COMMAND2 = PUI4 (*)(ROOTSHARE& share, PUI4* ppZ, ARGUMENT& arg);

/// One row of the command table; one of the two pointers is set.
struct NAFUNCTION {
  PSZ name;
  UI4 syntax;
  COMMAND1 one;
  COMMAND2 two;
};
inline constexpr UI4 kFunctions = 11;
extern const NAFUNCTION functions[kFunctions];
