// commands.h - the commands that send, answer, close and couple: ASendZ, ARespondZ, AClose,
// ASetRelay.
//
// A path in an argument is relative to the root. ppZ is the caller's second array, which stays the
// caller's. Results are the caller's; null without memory.
#pragma once

#include "kyrno/boundary/argument.h"
#include "kyrno/boundary/roots.h"

/// Results are blocks, as nearly every message costs one.
PUI4 ASendZ(ROOTSHARE& share, PUI4* ppZ, ARGUMENT& arg);
PUI4 ARespondZ(ROOTSHARE& share, PUI4* ppZ, ARGUMENT& arg);
/// With the path "." the root itself goes, and the share is outside afterwards.
PAA AClose(ROOTSHARE& share, PAA arg);
PAA ASetRelay(ROOTSHARE& share, PAA arg);
