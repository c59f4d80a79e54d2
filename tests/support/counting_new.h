// Number of global operator new calls so far in this program (see counting_new.cpp).
#pragma once

namespace avpool::testing {
unsigned long long allocationCount();
}
