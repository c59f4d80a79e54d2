// A reader's check that its current element is not too far from now.
#pragma once

#include "errors.h"

#include <cstdint>

namespace avpool::detail {

// Whole seconds only, absolute value (a slot stamped in the future counts too);
// an age equal to maxAge passes, more throws "age too old".
// Returns the age in seconds.
int probeAge(int32_t slotSeconds, int maxAge, Raise raise);

}  // namespace avpool::detail
