// Number of global operator new calls so far in this program (see counting_new.cpp).
#pragma once

namespace avpool::testing {
unsigned long long allocationCount();
// Whether a call of operator new is seen by the counter at all: without that, a
// count that stays the same proves nothing.
bool allocationsAreCounted();
}
