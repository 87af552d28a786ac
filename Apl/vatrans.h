// vatrans.h - translation of one-byte text between the interpreter's character set and a host's.
//
// Two byte tables, one each way, that the interpreter may replace while other threads translate: a
// text is translated by the old table or by the new one as a whole.
#pragma once

#include "sys/linux/qlntypes.h"

inline constexpr UI4 MAXCHARSETNAMESIZE = 6;
inline constexpr UI4 MAXTRANSSIZE = 256;

/// One translation between two named character sets, in a list whose head lies with the caller.
/// A record in the list never changes and is never released.
struct TRANSLITERATION {
  TRANSLITERATION* pNextTrans;           // owned
  CH1 FromName[MAXCHARSETNAMESIZE + 1];  ///< blank-padded
  CH1 ToName[MAXCHARSETNAMESIZE + 1];    ///< blank-padded
  CH1 Trans[MAXTRANSSIZE];
};
using PTRANS = TRANSLITERATION*;

/// Path of the translate file; null, as it stands, means that there is none. Set it before the
/// first FindTrans.
extern PCH10 pAPLUnicodeFile;

/// Install 256 bytes as the table towards the interpreter's set, or away from it.
void SetChar2av(PCH10 table);
void SetChar2asc(PCH10 table);

/// Translate in place and return the text. Without a table nothing changes.
PCH1 VA2avn(PCH1 text, UI4 length);
PCH1 VA2ascn(PCH1 text, UI4 length);

/// The table from one set to another, found in the list or read and appended to it; null when both
/// names are the same. Any thread; the list's head must outlive every call.
[[nodiscard]] SI4 FindTrans(PCH10 from, PCH10 to, PTRANS* list, PCH10* table);

/// Fills the table of a record with its two names from the translate file. ERR_UNI_CONVERSION when
/// there is no such file or set.
[[nodiscard]] SI4 ReadTrans(PTRANS record);
