// props.h - the commands that reach an object's properties: ASetProp, AGetProp.
#pragma once

#include "kyrno/boundary/roots.h"

PAA ASetProp(ROOTSHARE& share, PAA arg);
/// A host name is looked up, and a certificate decoded, outside the gate: the share is outside
/// afterwards.
PAA AGetProp(ROOTSHARE& share, PAA arg);
