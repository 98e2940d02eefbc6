/// Time spans, and waiting for them. Callable from every thread.
#ifndef OS_TIME_H
#define OS_TIME_H

#include <cstdint>
#include <ctime>

/// µs from `then` to `now`, cut to whole ones.
std::int64_t elapsed(const timespec &then, const timespec &now);

/// Sleeps that long, µs, whatever signals come meanwhile. A cancellation point.
void sleep_for(std::uint32_t microseconds);

#endif
