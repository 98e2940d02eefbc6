#include "os_thread.h"

// A thread that would take the signals of others is worse than none: these checks hold in every build.
#undef NDEBUG
#include <cassert>
#include <csignal>

namespace {

void block_reserved_signals() {
    sigset_t signals;
    int rc = sigemptyset(&signals);
    assert(rc == 0);
    rc = sigaddset(&signals, SIGRTMIN + 6);
    assert(rc == 0);
    rc = sigaddset(&signals, SIGRTMIN + 10);
    // clang-format off
    assert(rc ==0);
    // clang-format on
    rc = pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    assert(rc == 0);
}

}  // namespace

int os_thread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*entry)(void *), void *argument) {
    block_reserved_signals();
    pthread_t local_handle{};
    return pthread_create(thread ? thread : &local_handle, attributes, entry, argument);
}
