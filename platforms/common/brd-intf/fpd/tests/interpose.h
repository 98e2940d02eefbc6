/// System calls that fail, and clocks that stand still, when a test says so.
///
/// The linker sends the calls of the modules and of the tests through here (not those of the C and C++ libraries
/// themselves); what is not armed goes on to the real function. Any thread.
#ifndef BOOTUP_FPD_TESTS_INTERPOSE_H
#define BOOTUP_FPD_TESTS_INTERPOSE_H

#include <sys/time.h>

#include <cstdint>
#include <ctime>
#include <functional>

namespace interpose {

enum class Call {
    access,
    calloc,
    clock_gettime,
    flock,
    fopen,
    fread,  // reads nothing, without a stream error
    fsync,
    malloc,
    move_fpd_between_queue,  // its text is then "no move"
    mq_close,
    mq_open,
    mq_receive,
    mq_send,
    mq_unlink,
    open,
    opendir,
    pthread_cancel,
    pthread_create,  // leaves what is no thread behind
    pthread_detach,
    pthread_join,
    pthread_sigmask,
    pthread_tryjoin_np,
    readdir,
    realloc,
    regcomp,
    sigaddset,
    sigemptyset,
    stat,
    unlink,
    usleep,
    write,
    count  // of the values above
};

/// Fails the `nth` call from now (1: the next one) and the `times - 1` after it, with `error`: through errno, or as the
/// result where the function has its error there. A later fail() of the same call replaces this one.
void fail(Call call, int error, unsigned nth = 1, unsigned times = 1);
inline constexpr unsigned for_ever = ~0U;
/// Calls since the last reset(), failed ones included.
unsigned calls(Call call);

/// Holds CLOCK_MONOTONIC and CLOCK_MONOTONIC_RAW at `now`; a failed read leaves the caller's record alone.
void hold_clock(timespec now);
/// Moves the held clock on.
void advance_clock(std::int64_t microseconds);
/// Holds gettimeofday at `now`.
void hold_wall_clock(timeval now);

/// Adds so many bytes to the size of every file that stat() tells of.
void grow_stat(std::int64_t bytes);

/// Calls `before` ahead of each such call, but not of those that it makes itself; null: nothing.
/// Not while another thread may make the call.
void before_each(Call call, std::function<void()> before);

/// Calls `instead` with the microseconds of each usleep() and nanosleep(), which do not sleep then; null: they sleep.
/// Not while another thread may sleep.
void on_sleep(std::function<void(std::uint64_t microseconds)> instead);

/// Pieces of memory and compiled patterns that the modules and the tests took and have not given back. Who writes
/// after the end of one ends the process when it is given back.
std::size_t held();

/// Disarms everything.
void reset();

}  // namespace interpose

#endif
