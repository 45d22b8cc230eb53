// Timed refresh of collected data: a cache re-collects only when its last collection is old enough.
#ifndef LEISOBEK_COLLECT_TIMEDCACHE_H
#define LEISOBEK_COLLECT_TIMEDCACHE_H

#include <cstdint>
#include <ctime>

// The data (a record or a group of lists) sits inline behind the time of the
// last refresh and the function that refills it. last_refresh starts at 0 so
// that the first use always collects.
template <typename T> struct timed_cache {
    time_t last_refresh;
    int (*refresh)(T *data);
    T data;
};

// The clock the caches read; time() unless a test installed another.
typedef time_t (*timed_cache_clock_fn)(void);

// Installs the clock read by timed_cache_refresh; null restores time().
void timed_cache_set_clock(timed_cache_clock_fn clock);

// The current time by that clock.
time_t timed_cache_now();

// Decides whether a cache last refreshed at last_refresh is due: stores the
// current time in *now and the whole seconds since the last refresh in
// *elapsed (negative when the clock went back), and returns true when
// *elapsed is at least interval.
bool timed_cache_due(time_t last_refresh, int interval, time_t *now, int *elapsed);

// Refreshes the cache when at least interval seconds have passed since its
// last refresh: calls its refresh function, records the time taken before the
// call and returns the function's result. Otherwise returns the elapsed
// seconds and changes nothing. After the clock was set back nothing is
// refreshed until it passes the last refresh time by interval again. An
// interval of 0 refreshes on every call while the clock runs forward.
template <typename T> int timed_cache_refresh(timed_cache<T> *cache, int interval)
{
    time_t now;
    int elapsed;
    if (!timed_cache_due(cache->last_refresh, interval, &now, &elapsed)) return elapsed;
    int result = cache->refresh(&cache->data);
    cache->last_refresh = now;
    return result;
}

// Counts one request of a group that is refreshed by request count rather
// than by age: the first request refreshes, and so does every period-th
// after it (period 19: the 1st, 20th, 39th, ...). *counter starts at 0 and
// is the group's own. Returns true when this request refreshes.
inline bool request_count_due(uint32_t *counter, uint32_t period)
{
    bool due = *counter == 0;
    *counter = due ? 1 : *counter + 1;
    // Reset once the period is complete, so that the next request refreshes.
    if (*counter >= period) *counter = 0;
    return due;
}

#endif
