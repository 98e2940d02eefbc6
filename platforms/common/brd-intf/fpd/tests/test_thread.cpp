#include <pthread.h>
#include <signal.h>

#include <cerrno>

#include "interpose.h"
#include "os_thread.h"
#include "test_support.h"

namespace {

using interpose::Call;

bool is_blocked(int signal_number) {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, signal_number) == 1;
}

void set_mask(int how, int signal_number = 0) {
    sigset_t signals;
    sigemptyset(&signals);
    if (signal_number) sigaddset(&signals, signal_number);
    pthread_sigmask(how, &signals, nullptr);
}

/// What a thread finds out about itself.
struct Seen {
    pthread_t self{};
    bool reserved_blocked = false;
    bool usr1_blocked = false;
    int others_blocked = 0;
    std::size_t stack_size = 0;
};

void *look(void *argument) {
    Seen &seen = *static_cast<Seen *>(argument);
    seen.self = pthread_self();
    seen.reserved_blocked = is_blocked(SIGRTMIN + 6) && is_blocked(SIGRTMIN + 10);
    seen.usr1_blocked = is_blocked(SIGUSR1);
    for (int number = 1; number <= SIGRTMAX; ++number)
        if (number != SIGRTMIN + 6 && number != SIGRTMIN + 10) seen.others_blocked += is_blocked(number);
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        pthread_attr_getstacksize(&attributes, &seen.stack_size);
        pthread_attr_destroy(&attributes);
    }
    return argument;
}

struct OsThreadCreate : CardTest {
    OsThreadCreate() { set_mask(SIG_SETMASK); }

    /// Creates a thread that looks around, and joins it.
    Seen run(const pthread_attr_t *attributes = nullptr) {
        Seen seen;
        pthread_t thread{};
        EXPECT_EQ(os_thread_create(&thread, attributes, look, &seen), 0);
        void *result = nullptr;
        EXPECT_EQ(pthread_join(thread, &result), 0);
        EXPECT_EQ(result, &seen);
        EXPECT_TRUE(pthread_equal(thread, seen.self));
        return seen;
    }
};

TEST_F(OsThreadCreate, BlocksTheTwoReservedSignalsAndNoOtherInTheThreadAndItsCreator) {
    ASSERT_FALSE(is_blocked(SIGRTMIN + 6));
    ASSERT_FALSE(is_blocked(SIGRTMIN + 10));
    const Seen seen = run();
    EXPECT_TRUE(seen.reserved_blocked);
    EXPECT_EQ(seen.others_blocked, 0);
    EXPECT_TRUE(is_blocked(SIGRTMIN + 6));
    EXPECT_TRUE(is_blocked(SIGRTMIN + 10));
    EXPECT_FALSE(is_blocked(SIGRTMIN + 7));
}

TEST_F(OsThreadCreate, KeepsBlockedWhatWasBlockedBefore) {
    set_mask(SIG_BLOCK, SIGUSR1);
    EXPECT_TRUE(run().usr1_blocked);
    EXPECT_TRUE(is_blocked(SIGUSR1));
}

TEST_F(OsThreadCreate, HandsTheAttributesOn) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    // Larger than any stack that an earlier thread may have left to be used again.
    constexpr std::size_t odd_size = 33 * 1024 * 1024;
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, odd_size), 0);
    EXPECT_EQ(run(&attributes).stack_size, odd_size);
    pthread_attr_destroy(&attributes);
}

TEST_F(OsThreadCreate, ReturnsTheResultOfTheCreation) {
    pthread_t thread{};
    for (const int error : {EAGAIN, EINVAL, EPERM}) {
        interpose::fail(Call::pthread_create, error);
        EXPECT_EQ(os_thread_create(&thread, nullptr, look, nullptr), error);
        interpose::fail(Call::pthread_create, error);
        EXPECT_EQ(os_thread_create(nullptr, nullptr, look, nullptr), error);
    }
    EXPECT_TRUE(is_blocked(SIGRTMIN + 6));
}

using OsThreadCreateDeathTest = OsThreadCreate;

TEST_F(OsThreadCreateDeathTest, AbortsWhenTheSignalsCannotBeBlocked) {
    const struct {
        Call call;
        unsigned nth;
        const char *text;
    } cases[] = {
        {Call::sigemptyset, 1, "Assertion `rc == 0' failed"},
        {Call::sigaddset, 1, "Assertion `rc == 0' failed"},
        {Call::sigaddset, 2, "Assertion `rc ==0' failed"},
        {Call::pthread_sigmask, 1, "Assertion `rc == 0' failed"},
    };
    for (const auto &each : cases)
        EXPECT_EXIT(
            {
                interpose::fail(each.call, EINVAL, each.nth);
                run();
            },
            testing::KilledBySignal(SIGABRT), each.text);
}

}  // namespace
