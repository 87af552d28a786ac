// vaconv.h - conversion of whole arrays, and the walk that makes a result fit to be packed.
#pragma once

#include "Apl/vapl.h"

/// The type that a single value ends in: scalars are followed into what they hold. VAPntr for all
/// that is not a single value, and for an empty slot.
VATYPES VAEndType(const VARRAY* array);

/// The narrowest type for all elements of a nested or heterogeneous array; of others their own
/// type.
VATYPES VACheckType(const VARRAY* array);

/// Fills `target`, a fresh array of the same shape, from `source`. Pointer slots get a count of
/// their own. ERR_APL_CONVERSION when an element cannot be had in the target's type.
[[nodiscard]] SI4 convdata(PAA target, PAA source);

/// The array as `type`, owned by the caller: shared when it has that type already. Null on failure.
[[nodiscard]] SI4 VAConv(PAA source, VATYPES type, PPAA result);

/// Turns the array and all that it holds into types that Z blocks carry: `fromVA` maps an array
/// type to an element code and `toVA` back. The array is replaced; on failure the first bad element
/// and what follows it stay as they were, and *array is still the caller's.
[[nodiscard]] SI4 VANorm(PPAA array, const SI2* toVA, const SI2* fromVA);
