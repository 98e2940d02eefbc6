#include "interpose.h"

#include <dirent.h>
#include <fcntl.h>
#include <mqueue.h>
#include <pthread.h>
#include <regex.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <utility>

#include "brd_intf_auto_fpd_upgrade_queue.h"
#include "fpd_log.h"

using interpose::Call;

namespace {

struct Armed {
    std::atomic<unsigned> calls{0};
    std::atomic<unsigned> first{0};  // number of the first call that fails; 0: none does
    std::atomic<unsigned> times{0};
    std::atomic<int> error{0};
};

// Constant-initialised: calls arrive before the constructors have run.
constinit std::array<Armed, static_cast<std::size_t>(Call::count)> armed_calls;

constexpr std::int64_t not_held = -1;
constinit std::atomic<std::int64_t> held_clock{not_held};       // ns
constinit std::atomic<std::int64_t> held_wall_clock{not_held};  // µs
constinit std::atomic<std::int64_t> stat_growth{0};             // bytes

/// What was taken through here and not given back, with its size. Never destroyed: calls arrive until the process has
/// ended.
struct Held {
    std::mutex lock;
    std::map<const void *, std::size_t> pieces;
};

Held &held_pieces() {
    static Held *const held = new Held;
    return *held;
}

void take(const void *piece, std::size_t size) {
    const std::lock_guard guard(held_pieces().lock);
    held_pieces().pieces[piece] = size;
}

/// Size of the piece, 0 when it was not taken through here.
std::size_t give_back(const void *piece) {
    const std::lock_guard guard(held_pieces().lock);
    const auto held = held_pieces().pieces.extract(piece);
    return held ? held.mapped() : 0;
}

// Memory is no wider than it was asked for, and holds nothing that could be taken for zeroes.
constexpr std::size_t guard_size = 16;
constexpr std::size_t most_filled = 1 << 20;
constexpr char filling = '\xa5';

void *take_memory(void *memory, std::size_t size, std::size_t filled_from) {
    if (!memory) return nullptr;
    char *const bytes = static_cast<char *>(memory);
    std::fill_n(bytes + filled_from, std::min(size - filled_from, most_filled), filling);
    std::fill_n(bytes + size, guard_size, filling);
    take(memory, size);
    return memory;
}

std::size_t give_memory_back(const void *memory) {
    const std::size_t size = give_back(memory);
    const char *const end = static_cast<const char *>(memory) + size;
    if (size != 0 && std::count(end, end + guard_size, filling) != guard_size) {
        std::fprintf(stderr, "written after the end of %zu bytes\n", size);
        std::abort();
    }
    return size;
}

std::function<void(std::uint64_t)> &sleep_hook() {
    static std::function<void(std::uint64_t)> hook;
    return hook;
}

using Hooks = std::array<std::function<void()>, static_cast<std::size_t>(Call::count)>;

Hooks &hooks() {
    static Hooks all;
    return all;
}
// Set when a hook is: calls arrive before `hooks` is made, and from many threads.
constinit std::atomic<bool> hooked{false};

void run_hook(Call call) {
    if (!hooked) return;
    std::function<void()> &hook = hooks()[static_cast<std::size_t>(call)];
    if (!hook) return;
    const std::function<void()> once = std::exchange(hook, nullptr);
    once();
    hook = once;
}

Armed &armed(Call call) {
    return armed_calls[static_cast<std::size_t>(call)];
}

/// The error with which this call is to fail, set as errno too; 0: it is not to fail.
int failure(Call call) {
    run_hook(call);
    Armed &one = armed(call);
    const unsigned number = ++one.calls;
    const unsigned first = one.first;
    if (first == 0 || number < first || number - first >= one.times) return 0;
    errno = one.error;
    return one.error;
}

}  // namespace

namespace interpose {

void fail(Call call, int error, unsigned nth, unsigned times) {
    Armed &one = armed(call);
    one.error = error;
    one.times = times;
    one.first = one.calls + nth;
}

unsigned calls(Call call) {
    return armed(call).calls;
}

void hold_clock(timespec now) {
    held_clock = now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

void advance_clock(std::int64_t microseconds) {
    held_clock += microseconds * 1000;
}

void hold_wall_clock(timeval now) {
    held_wall_clock = now.tv_sec * 1'000'000 + now.tv_usec;
}

void grow_stat(std::int64_t bytes) {
    stat_growth = bytes;
}

void on_sleep(std::function<void(std::uint64_t)> instead) {
    sleep_hook() = std::move(instead);
}

void before_each(Call call, std::function<void()> before) {
    hooks()[static_cast<std::size_t>(call)] = std::move(before);
    hooked = true;
}

std::size_t held() {
    const std::lock_guard guard(held_pieces().lock);
    return held_pieces().pieces.size();
}

void reset() {
    for (Armed &one : armed_calls) {
        one.first = 0;
        one.calls = 0;
    }
    held_clock = not_held;
    held_wall_clock = not_held;
    stat_growth = 0;
    sleep_hook() = nullptr;
    if (hooked.exchange(false)) hooks() = {};
}

}  // namespace interpose

extern "C" {

int __real_access(const char *path, int mode);
int __wrap_access(const char *path, int mode) {
    return failure(Call::access) ? -1 : __real_access(path, mode);
}

void *__real_calloc(std::size_t count, std::size_t size);
void *__wrap_calloc(std::size_t count, std::size_t size) {
    return failure(Call::calloc) ? nullptr
                                 : take_memory(__real_calloc(1, count * size + guard_size), count * size, count * size);
}

int __real_clock_gettime(clockid_t clock, timespec *now);
int __wrap_clock_gettime(clockid_t clock, timespec *now) {
    if (clock != CLOCK_MONOTONIC_RAW && clock != CLOCK_MONOTONIC) return __real_clock_gettime(clock, now);
    if (clock == CLOCK_MONOTONIC_RAW && failure(Call::clock_gettime)) return -1;
    const std::int64_t held = held_clock;
    if (held == not_held) return __real_clock_gettime(clock, now);
    *now = {held / 1'000'000'000, held % 1'000'000'000};
    return 0;
}

int __real_flock(int fd, int operation);
int __wrap_flock(int fd, int operation) {
    return failure(Call::flock) ? -1 : __real_flock(fd, operation);
}

std::FILE *__real_fopen(const char *path, const char *mode);
std::FILE *__wrap_fopen(const char *path, const char *mode) {
    return failure(Call::fopen) ? nullptr : __real_fopen(path, mode);
}

std::size_t __real_fread(void *buffer, std::size_t size, std::size_t count, std::FILE *file);
std::size_t __wrap_fread(void *buffer, std::size_t size, std::size_t count, std::FILE *file) {
    return failure(Call::fread) ? 0 : __real_fread(buffer, size, count, file);
}

int __real_gettimeofday(timeval *now, void *zone);
int __wrap_gettimeofday(timeval *now, void *zone) {
    const std::int64_t held = held_wall_clock;
    if (held == not_held) return __real_gettimeofday(now, zone);
    *now = {held / 1'000'000, held % 1'000'000};
    return 0;
}

void *__real_malloc(std::size_t size);
void *__wrap_malloc(std::size_t size) {
    return failure(Call::malloc) ? nullptr : take_memory(__real_malloc(size + guard_size), size, 0);
}

void __real_free(void *memory);
void __wrap_free(void *memory) {
    give_memory_back(memory);
    __real_free(memory);
}

int __real__Z22move_fpd_between_queuePP3FpdS1_S0_Pcm(FpdQueue *from, FpdQueue *to, Fpd *fpd, char *err_msg,
                                                     std::size_t err_len);
int __wrap__Z22move_fpd_between_queuePP3FpdS1_S0_Pcm(FpdQueue *from, FpdQueue *to, Fpd *fpd, char *err_msg,
                                                     std::size_t err_len) {
    if (const int error = failure(Call::move_fpd_between_queue))
        return fail_unlogged(error, err_msg, err_len, "no move");
    return __real__Z22move_fpd_between_queuePP3FpdS1_S0_Pcm(from, to, fpd, err_msg, err_len);
}

int __real_mq_close(mqd_t queue);
int __wrap_mq_close(mqd_t queue) {
    return failure(Call::mq_close) ? -1 : __real_mq_close(queue);
}

mqd_t __real_mq_open(const char *name, int flags, ...);
mqd_t __wrap_mq_open(const char *name, int flags, ...) {
    if (failure(Call::mq_open)) return -1;
    if (!(flags & O_CREAT)) return __real_mq_open(name, flags);
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    mq_attr *const attributes = va_arg(arguments, mq_attr *);
    va_end(arguments);
    return __real_mq_open(name, flags, mode, attributes);
}

ssize_t __real_mq_receive(mqd_t queue, char *message, std::size_t size, unsigned *priority);
ssize_t __wrap_mq_receive(mqd_t queue, char *message, std::size_t size, unsigned *priority) {
    return failure(Call::mq_receive) ? -1 : __real_mq_receive(queue, message, size, priority);
}

int __real_mq_send(mqd_t queue, const char *message, std::size_t size, unsigned priority);
int __wrap_mq_send(mqd_t queue, const char *message, std::size_t size, unsigned priority) {
    return failure(Call::mq_send) ? -1 : __real_mq_send(queue, message, size, priority);
}

int __real_mq_unlink(const char *name);
int __wrap_mq_unlink(const char *name) {
    return failure(Call::mq_unlink) ? -1 : __real_mq_unlink(name);
}

int __real_nanosleep(const timespec *time, timespec *left);
int __wrap_nanosleep(const timespec *time, timespec *left) {
    if (!sleep_hook()) return __real_nanosleep(time, left);
    sleep_hook()(static_cast<std::uint64_t>(time->tv_sec * 1'000'000 + time->tv_nsec / 1000));
    return 0;
}

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
    if (failure(Call::open)) return -1;
    if (!(flags & (O_CREAT | O_TMPFILE))) return __real_open(path, flags);
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return __real_open(path, flags, mode);
}

dirent *__real_readdir(DIR *directory);
dirent *__wrap_readdir(DIR *directory) {
    return failure(Call::readdir) ? nullptr : __real_readdir(directory);
}

DIR *__real_opendir(const char *path);
DIR *__wrap_opendir(const char *path) {
    return failure(Call::opendir) ? nullptr : __real_opendir(path);
}

int __real_pthread_cancel(pthread_t thread);
int __wrap_pthread_cancel(pthread_t thread) {
    const int error = failure(Call::pthread_cancel);
    return error ? error : __real_pthread_cancel(thread);
}

int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*entry)(void *), void *argument);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*entry)(void *), void *argument) {
    const int error = failure(Call::pthread_create);
    if (error) *thread = ~pthread_t{};
    return error ? error : __real_pthread_create(thread, attributes, entry, argument);
}

int __real_pthread_detach(pthread_t thread);
int __wrap_pthread_detach(pthread_t thread) {
    const int error = failure(Call::pthread_detach);
    return error ? error : __real_pthread_detach(thread);
}

int __real_pthread_join(pthread_t thread, void **result);
int __wrap_pthread_join(pthread_t thread, void **result) {
    const int error = failure(Call::pthread_join);
    return error ? error : __real_pthread_join(thread, result);
}

int __real_pthread_sigmask(int how, const sigset_t *signals, sigset_t *before);
int __wrap_pthread_sigmask(int how, const sigset_t *signals, sigset_t *before) {
    const int error = failure(Call::pthread_sigmask);
    return error ? error : __real_pthread_sigmask(how, signals, before);
}

int __real_pthread_tryjoin_np(pthread_t thread, void **result);
int __wrap_pthread_tryjoin_np(pthread_t thread, void **result) {
    const int error = failure(Call::pthread_tryjoin_np);
    return error ? error : __real_pthread_tryjoin_np(thread, result);
}

void *__real_realloc(void *memory, std::size_t size);
void *__wrap_realloc(void *memory, std::size_t size) {
    if (failure(Call::realloc)) return nullptr;
    const std::size_t size_before = give_memory_back(memory);
    return take_memory(__real_realloc(memory, size + guard_size), size, std::min(size_before, size));
}

int __real_regcomp(regex_t *compiled, const char *pattern, int flags);
int __wrap_regcomp(regex_t *compiled, const char *pattern, int flags) {
    const int failed = failure(Call::regcomp);
    const int error = failed ? failed : __real_regcomp(compiled, pattern, flags);
    if (error == 0) take(compiled, 0);
    return error;
}

void __real_regfree(regex_t *compiled);
void __wrap_regfree(regex_t *compiled) {
    give_back(compiled);
    __real_regfree(compiled);
}

int __real_sigaddset(sigset_t *signals, int number);
int __wrap_sigaddset(sigset_t *signals, int number) {
    return failure(Call::sigaddset) ? -1 : __real_sigaddset(signals, number);
}

int __real_sigemptyset(sigset_t *signals);
int __wrap_sigemptyset(sigset_t *signals) {
    return failure(Call::sigemptyset) ? -1 : __real_sigemptyset(signals);
}

int __real_stat(const char *path, struct stat *status);
int __wrap_stat(const char *path, struct stat *status) {
    if (failure(Call::stat) || __real_stat(path, status) != 0) return -1;
    status->st_size += stat_growth;
    return 0;
}

int __real_fsync(int fd);
int __wrap_fsync(int fd) {
    return failure(Call::fsync) ? -1 : __real_fsync(fd);
}

int __real_unlink(const char *path);
int __wrap_unlink(const char *path) {
    return failure(Call::unlink) ? -1 : __real_unlink(path);
}

int __real_usleep(useconds_t microseconds);
int __wrap_usleep(useconds_t microseconds) {
    if (sleep_hook()) sleep_hook()(microseconds);
    if (failure(Call::usleep)) return -1;
    return sleep_hook() ? 0 : __real_usleep(microseconds);
}

ssize_t __real_write(int fd, const void *bytes, std::size_t size);
ssize_t __wrap_write(int fd, const void *bytes, std::size_t size) {
    return failure(Call::write) ? -1 : __real_write(fd, bytes, size);
}

}  // extern "C"
