#include "os_time.h"

#include <unistd.h>

#include <cerrno>

std::int64_t elapsed(const timespec &then, const timespec &now) {
    return (std::int64_t{now.tv_sec} - then.tv_sec) * 1'000'000 + (std::int64_t{now.tv_nsec} - then.tv_nsec) / 1000;
}

void sleep_for(std::uint32_t microseconds) {
    timespec began{};
    clock_gettime(CLOCK_MONOTONIC, &began);
    std::int64_t left = microseconds;
    do {
        if (usleep(static_cast<useconds_t>(left)) == 0 || errno != EINTR) return;
        // What is left, and not the whole of it again: a timer of the platform library could signal for ever.
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        left = microseconds - elapsed(began, now);
    } while (left > 0);
}
