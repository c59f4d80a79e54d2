#include "age_probe.h"

#include <sys/time.h>

namespace avpool::detail {

int probeAge(int32_t slotSeconds, int maxAge, Raise raise) {
    timeval now;
    gettimeofday(&now, nullptr);
    long long age = static_cast<long long>(now.tv_sec) - slotSeconds;
    if (age < 0) age = -age;
    if (age > maxAge) raise("age too old");
    return static_cast<int>(age);
}

}  // namespace avpool::detail
