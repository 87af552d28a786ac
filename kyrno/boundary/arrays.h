// arrays.h - what the commands read from their argument, and the arrays that they answer with.
#pragma once

#include "Apl/vapl.h"

/// How many items an argument has. A text counts as one.
UI4 ItemCount(const VARRAY* arg);

// Results are the caller's; null without memory.

/// A vector of one integer, the code.
PAA CodeResult(SI4 code);
/// The same as a block.
PUI4 CodeZ(SI4 code);
/// (0, value), which takes the value over; a null value, or too little memory, is (1012).
PAA ValueResult(PAA value);
/// A text as a value; null without memory.
PAA TextValue(PCH10 text);
