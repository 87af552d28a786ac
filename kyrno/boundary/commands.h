// commands.h - the commands that send, answer, close and couple: ASendZ, ARespondZ, AClose,
// ASetRelay, ACerts.
//
// A path in an argument is relative to the root. ppZ is the caller's second array, which stays the
// caller's.
#pragma once

#include "kyrno/boundary/roots.h"

PAA ASendZ(ROOTSHARE& share, PUI4* ppZ, PAA arg);
PAA ARespondZ(ROOTSHARE& share, PUI4* ppZ, PAA arg);
/// With the path "." the root itself goes, and the share is outside afterwards.
PAA AClose(ROOTSHARE& share, PAA arg);
PAA ASetRelay(ROOTSHARE& share, PAA arg);
PAA ACerts(ROOTSHARE& share, PAA arg);
