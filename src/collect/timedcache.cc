// Timed refresh of collected data (see timedcache.h): the clock and the age test.
#include "timedcache.h"

#include <algorithm>
#include <climits>

namespace
{

time_t system_clock()
{
    return time(nullptr);
}

timed_cache_clock_fn current_clock = system_clock;

} // namespace

void timed_cache_set_clock(timed_cache_clock_fn clock)
{
    current_clock = clock ? clock : system_clock;
}

time_t timed_cache_now()
{
    return current_clock();
}

bool timed_cache_due(time_t last_refresh, int interval, time_t *now, int *elapsed)
{
    *now = current_clock();
    // Whole seconds, truncated as a conversion to int truncates; a span that
    // does not fit an int saturates instead of overflowing.
    double seconds = std::clamp(difftime(*now, last_refresh), double(INT_MIN), double(INT_MAX));
    *elapsed = static_cast<int>(seconds);
    return *elapsed >= interval;
}
