#include "fake_system.h"

#include <fcntl.h>
#include <mqueue.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <vector>

#include "brd_intf_auto_fpd_upgrade_handler.h"
#include "brd_intf_auto_fpd_upgrade_init.h"
#include "brd_intf_auto_fpd_upgrade_msg_queue.h"
#include "brd_intf_auto_fpd_upgrade_worker.h"
#include "fpd_log.h"
#include "text_builder.h"
#include "worker_msg.h"

namespace {

constexpr std::int64_t second = 1'000'000'000;  // ns
constexpr std::int64_t boot_time = 100 * second;
/// After the input's end: longer than every limit of a run.
constexpr std::int64_t large_step = 200 * second;

struct Thread {
    void *(*entry)(void *);
    void *argument;
    bool ended = false;
    bool joined = false;
    bool given_up = false;
    bool cancelled = false;
};

struct System {
    Input *input = nullptr;
    std::function<void()> between_steps;
    const LocalCard *card = nullptr;
    std::deque<Thread> threads;  // a handle is an index and 1
    std::deque<WorkerMsg> sent;
    std::int64_t clock = boot_time;
    unsigned clock_failures = 0;  // of the next reads
    bool workers_hang = false;    // after the input's end; else they do their work
    unsigned waits_behind_the_input = 0;
    WorkerMsg repeated{};  // comes so many times more
    unsigned repetitions = 0;
};

System fake;

bool is_on() {
    return fake.input != nullptr;
}

bool rarely() {
    return fake.input->byte() >= 0xf0;
}

bool is_worker(const Thread &thread) {
    return thread.entry == fpd_upg_handler;
}

FpdWorkerCtx *worker_of(const Thread &thread) {
    return static_cast<FpdWorkerCtx *>(thread.argument);
}

Thread &thread_of(pthread_t handle) {
    require(handle >= 1 && handle <= fake.threads.size(), "a thread that never was");
    Thread &thread = fake.threads[handle - 1];
    require(!thread.joined && !thread.given_up, "a thread that was joined or detached before");
    return thread;
}

/// A cancelled thread either notices it now, or was past its last cancellation point.
void run(Thread &thread) {
    if (thread.ended) return;
    thread.ended = true;
    if (thread.cancelled && is_worker(thread) && fake.input->flag())
        std::atomic_ref(worker_of(thread)->ended).store(true);
    else
        thread.entry(thread.argument);
}

void run_some_threads() {
    if (fake.input->empty()) {
        for (Thread &thread : fake.threads)
            if (!fake.workers_hang && !thread.cancelled && !thread.joined) run(thread);
        return;
    }
    for (unsigned left = fake.input->below(4); left > 0 && !fake.threads.empty(); --left) {
        Thread &thread = fake.threads[fake.input->byte() % fake.threads.size()];
        if (!thread.joined) run(thread);
    }
}

void move_clock(std::int64_t slept) {
    constexpr std::array steps = {0, 1, 2, 3, 4, 6, 11, 59, 60, 61, 179, 180, 181};  // s
    if (fake.input->empty()) {
        ++fake.waits_behind_the_input;
        fake.clock += large_step;
        return;
    }
    const unsigned kind = fake.input->below(steps.size() + 3);
    fake.clock += kind < steps.size() ? steps[kind] * second : slept;
    if (kind == steps.size()) fake.clock_failures = fake.input->below(4);
}

// Reports ---------------------------------------------------------------------------------------------------------

std::vector<FpdWorkerCtx *> workers_now() {
    std::vector<FpdWorkerCtx *> workers;
    for (const Fpd *const queue : fake.card->queues.seq_queues)
        for (const Fpd *fpd = queue; fpd; fpd = fpd->next)
            if (fpd->worker) workers.push_back(fpd->worker);
    return workers;
}

FpdWorkerCtx *stranger() {
    constexpr std::array<std::uintptr_t, 4> addresses = {0, 1, 0xdeadbeef, UINTPTR_MAX};
    FpdWorkerCtx *const retired = fake.card->retired_workers;
    const unsigned kind = fake.input->below(addresses.size() + 2);
    if (kind < addresses.size()) return reinterpret_cast<FpdWorkerCtx *>(addresses[kind]);
    if (kind == addresses.size()) return reinterpret_cast<FpdWorkerCtx *>(fake.card->queues.fpd_queue);
    return retired && retired->next && fake.input->flag() ? retired->next : retired;
}

WorkerMsg made_up_report() {
    constexpr std::array states = {FpdState::upgrade_started, FpdState::upgrade_progressing, FpdState::upgrade_failed,
                                   FpdState::upgrade_done};
    const std::vector<FpdWorkerCtx *> workers = workers_now();
    WorkerMsg msg{};
    msg.magic = rarely() ? fake.input->number() : worker_msg_magic;
    msg.worker = workers.empty() || rarely() ? stranger() : workers[fake.input->byte() % workers.size()];
    msg.progress = rarely() ? fake.input->number() : fake.input->byte();
    const unsigned state = fake.input->byte();
    msg.state = state < 0xe0 ? states[state % states.size()] : static_cast<FpdState>(fake.input->number());
    return msg;
}

ssize_t hand_over(const WorkerMsg &msg, char *message, std::size_t size, ssize_t told) {
    std::memcpy(message, &msg, std::min(sizeof msg, size));
    return told;
}

ssize_t failed(int error) {
    errno = error;
    return -1;
}

ssize_t receive_sent(char *message, std::size_t size) {
    if (fake.sent.empty()) return failed(EAGAIN);
    const WorkerMsg msg = fake.sent.front();
    fake.sent.pop_front();
    return hand_over(msg, message, size, sizeof msg);
}

/// The same report again and again, 20 ms apart.
ssize_t receive_repeated(char *message, std::size_t size) {
    --fake.repetitions;
    fake.clock += second / 50;
    return hand_over(fake.repeated, message, size, sizeof fake.repeated);
}

ssize_t receive(char *message, std::size_t size) {
    constexpr std::array errors = {EINTR, EBADF, EMSGSIZE, EAGAIN};
    constexpr std::array<ssize_t, 6> sizes = {0, 1, 16, 23, 25, 8192};
    if (fake.repetitions > 0) return receive_repeated(message, size);
    fake.between_steps();
    if (fake.input->empty()) return receive_sent(message, size);
    const unsigned kind = fake.input->byte();
    if (kind < 0x60) return failed(EAGAIN);
    if (kind < 0xa0) return receive_sent(message, size);
    if (kind < 0xf0) return hand_over(made_up_report(), message, size, sizeof(WorkerMsg));
    if (kind < 0xf8) return hand_over(made_up_report(), message, size, sizes[kind % sizes.size()]);
    if (kind < 0xff) return failed(errors[kind % errors.size()]);
    fake.repeated = made_up_report();
    fake.repetitions = 600;
    return receive_repeated(message, size);
}

}  // namespace

namespace fake_system {

void begin(Input &input, std::function<void()> between_steps) {
    fake = {};
    fake.input = &input;
    fake.between_steps = std::move(between_steps);
    fake.workers_hang = input.flag();
}

void use_card(const LocalCard *card) {
    fake.card = card;
}

unsigned end() {
    unsigned given_up = 0;
    for (const Thread &thread : fake.threads) {
        require(thread.joined || thread.given_up, "a thread that nobody joined");
        if (!thread.given_up) continue;
        ++given_up;
        std::free(thread.argument);
    }
    fake = {};
    return given_up;
}

unsigned waits_behind_the_input() {
    return fake.waits_behind_the_input;
}

}  // namespace fake_system

extern "C" {

int __real_clock_gettime(clockid_t clock, timespec *now);
int __wrap_clock_gettime(clockid_t clock, timespec *now) {
    if (!is_on() || clock != CLOCK_MONOTONIC_RAW) return __real_clock_gettime(clock, now);
    if (fake.clock_failures > 0) {
        --fake.clock_failures;
        errno = EINVAL;
        return -1;
    }
    *now = {fake.clock / second, fake.clock % second};
    return 0;
}

/// The diagnostic log, which cannot be opened here: without the system call a run takes a third less.
int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
    if (is_on() && std::strcmp(path, "/var/log/fpd.log") == 0) return static_cast<int>(failed(EISDIR));
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return __real_open(path, flags, mode);
}

int __real_usleep(useconds_t microseconds);
int __wrap_usleep(useconds_t microseconds) {
    if (!is_on()) return __real_usleep(microseconds);
    fake.between_steps();
    run_some_threads();
    move_clock(std::int64_t{microseconds} * 1000);
    return 0;
}

int __real_nanosleep(const timespec *time, timespec *left);
int __wrap_nanosleep(const timespec *time, timespec *left) {
    if (!is_on()) return __real_nanosleep(time, left);
    run_some_threads();
    fake.clock += time->tv_sec * second + time->tv_nsec;
    return 0;
}

/// What queues and records that are in order never have logged.
void __wrap__Z9log_errorRK7LogSitePKcz(const LogSite &site, const char *format, ...) {
    constexpr std::array<std::string_view, 4> impossible = {"FpdUpgProgressCheckInvState", "MoveFpdBetweenQueueRm",
                                                            "MoveFpdBetweenQueueAdd", "RmFpdQueueNotFound"};
    for (const std::string_view tag : impossible) require(!is_on() || tag != site.tag, tag.data());
    TextBuilder text;
    std::va_list arguments;
    va_start(arguments, format);
    text.add_list(format, arguments);
    va_end(arguments);
    pass_on(site, 0, "%s", text.text());
}

int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*entry)(void *), void *argument);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*entry)(void *), void *argument) {
    if (!is_on()) return __real_pthread_create(thread, attributes, entry, argument);
    if (rarely()) return EAGAIN;
    fake.threads.push_back({.entry = entry, .argument = argument});
    *thread = fake.threads.size();
    if (!is_worker(fake.threads.back())) return 0;
    const Fpd &fpd = *worker_of(fake.threads.back())->fpd;
    require(fpd.state == FpdState::queued_for_upgrade, "a worker for an FPD that is not queued");
    require(!fpd.dependency || fpd.dependency->state == FpdState::upgrade_not_needed ||
                fpd.dependency->state == FpdState::upgrade_done,
            "an upgrade before that of the FPD it depends on");
    return 0;
}

int __real_pthread_cancel(pthread_t thread);
int __wrap_pthread_cancel(pthread_t thread) {
    if (!is_on()) return __real_pthread_cancel(thread);
    thread_of(thread).cancelled = true;
    return rarely() ? ESRCH : 0;
}

int __real_pthread_join(pthread_t thread, void **result);
int __wrap_pthread_join(pthread_t thread, void **result) {
    if (!is_on()) return __real_pthread_join(thread, result);
    Thread &joined = thread_of(thread);
    require(joined.ended, "waits without a limit for a thread that may hang");
    joined.joined = true;
    return 0;
}

int __real_pthread_tryjoin_np(pthread_t thread, void **result);
int __wrap_pthread_tryjoin_np(pthread_t thread, void **result) {
    if (!is_on()) return __real_pthread_tryjoin_np(thread, result);
    Thread &looked_at = thread_of(thread);
    // The run counts its waits for the flash: as many as it takes with a large divisor would take too long here.
    const bool must_end = !is_worker(looked_at) && fake.input->empty() && main_loop_sleep() < 100'000;
    if (must_end || fake.input->flag()) run(looked_at);
    looked_at.joined = looked_at.ended;
    return looked_at.ended ? 0 : EBUSY;
}

int __real_pthread_detach(pthread_t thread);
int __wrap_pthread_detach(pthread_t thread) {
    if (!is_on()) return __real_pthread_detach(thread);
    thread_of(thread).given_up = true;
    return 0;
}

ssize_t __real_mq_receive(mqd_t queue, char *message, std::size_t size, unsigned *priority);
ssize_t __wrap_mq_receive(mqd_t queue, char *message, std::size_t size, unsigned *priority) {
    return is_on() ? receive(message, size) : __real_mq_receive(queue, message, size, priority);
}

int __real_mq_send(mqd_t queue, const char *message, std::size_t size, unsigned priority);
int __wrap_mq_send(mqd_t queue, const char *message, std::size_t size, unsigned priority) {
    if (!is_on()) return __real_mq_send(queue, message, size, priority);
    require(size == sizeof(WorkerMsg), "a report of another size");
    if (fake.sent.size() == static_cast<std::size_t>(fpd_mq_max_messages)) return static_cast<int>(failed(EAGAIN));
    std::memcpy(&fake.sent.emplace_back(), message, size);
    return 0;
}

}  // extern "C"
