// options.h - reading one argument that mixes positional values and (name, value) pairs.
//
// An element that is a nested vector of two elements is a pair, its first element the option's
// word, compared without regard to case. Every other element stands for the option of its position.
// Once a pair has been met, all further elements are read as pairs.
//
// The options of a command are a table of n names, and `index` says which one is meant.
#pragma once

#include "Apl/vapl.h"
#include "kyrno/net/stoplist.h"

/// Place of the word in the table, or n.
SI4 Lookup(PCH10 word, SI4 n, const PCH10* table);

/// The value of one option, owned by the caller; null on failure. ERR_ARG_MISSING when it is not
/// there, ERR_ARG_INVALID for an unknown name before it, or the code of a failed read. A simple
/// array is option 0.
[[nodiscard]] SI4 GetOptionpAA(PAA arg, SI4 index, SI4 n, const PCH10* names, PPAA value);

/// 0 when every name is in the table.
[[nodiscard]] SI4 CheckArgList(PAA arg, SI4 n, const PCH10* names);

/// 1 for a text that begins with 1, T or Y behind blanks, else 0. A value that cannot be read gives
/// the default and ERR_ARG_INVALID; an absent one the default and 0.
[[nodiscard]] SI4 GetBool(PAA arg, SI4 index, SI4 n, const PCH10* names, SI1 deflt, SI1* value);
[[nodiscard]] SI4 GetSI4(PAA arg, SI4 index, SI4 n, const PCH10* names, SI4 deflt, PSI4 value);

/// The text, in `buffer` when `size` is not 0, else in a block that the caller frees. Null when the
/// option is absent, cannot be read or does not fit.
PCH1 GetPCH10(PAA arg, SI4 index, SI4 n, const PCH10* names, PCH1 buffer, UI4 size);

/// Place of the value in a table of m words. The default, with *code 0 when the option is absent
/// and ERR_ARG_INVALID when its value is no such word.
SI4 GetEnum(PAA arg, SI4 index, SI4 n, const PCH10* names, SI4 m, const PCH10* words, SI4 deflt,
            PUI4 code);

/// A list of texts, one for each element of a nested value or a single one, owned by the caller;
/// null when the option is absent. `translate` is VABIN or VACHAR. ERR_ARG_STOPLIST for a text that
/// cannot be read.
[[nodiscard]] SI4 GetList(PAA arg, SI4 index, SI4 n, const PCH10* names, SI4 translate,
                          PLIST* value);
