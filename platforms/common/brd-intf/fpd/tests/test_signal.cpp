#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "os_signal.h"
#include "test_support.h"

namespace {

struct Signals : CardTest {};

void *handler_of(int signal_number) {
    struct sigaction now {};
    sigaction(signal_number, nullptr, &now);
    return reinterpret_cast<void *>(now.sa_handler);
}

/// How a child ends in which `body` runs.
template <class Body>
int end_of_child(Body body) {
    const pid_t child = fork();
    if (child == 0) {
        // A program that was started in the background inherits signals that are ignored.
        for (const int number : unwanted_signals) std::signal(number, SIG_DFL);
        body();
        _exit(7);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

TEST_F(Signals, DoNotEndTheProcessWhileTheyAreHeld) {
    for (const int number : unwanted_signals) {
        const int held = end_of_child([number] {
            const UnwantedSignalsHeld hold;
            raise(number);
        });
        EXPECT_TRUE(WIFEXITED(held)) << number;
        if (number == SIGTSTP) continue;  // would stop the child
        const int free_again = end_of_child([number] {
            { const UnwantedSignalsHeld hold; }
            raise(number);
        });
        EXPECT_TRUE(WIFSIGNALED(free_again) && WTERMSIG(free_again) == number) << number;
    }
}

TEST_F(Signals, AreLeftAsTheyWere) {
    struct sigaction ignored {};
    ignored.sa_handler = SIG_IGN;
    struct sigaction before {};
    sigaction(SIGHUP, &ignored, &before);
    {
        const UnwantedSignalsHeld hold;
        EXPECT_NE(handler_of(SIGHUP), reinterpret_cast<void *>(SIG_IGN)) << "a program that is run would ignore it too";
    }
    EXPECT_EQ(handler_of(SIGHUP), reinterpret_cast<void *>(SIG_IGN));
    sigaction(SIGHUP, &before, nullptr);
}

TEST_F(Signals, MeetTheDefaultActionsInProgramsThatAreRun) {
    const UnwantedSignalsHeld hold;
    for (const char *name : {"HUP", "INT", "TERM", "QUIT", "PIPE", "XFSZ"}) {
        const std::string command = std::string("kill -s ") + name + " $$";
        const int status = end_of_child([&] { execl("/bin/sh", "sh", "-c", command.c_str(), nullptr); });
        EXPECT_TRUE(WIFSIGNALED(status)) << name;
    }
}

TEST_F(Signals, DoNotInterruptWhatIsGoingOn) {
    const UnwantedSignalsHeld hold;
    for (const int number : unwanted_signals) {
        struct sigaction now {};
        sigaction(number, nullptr, &now);
        EXPECT_TRUE(now.sa_flags & SA_RESTART) << number;
    }
}

TEST_F(Signals, LetAWriteBeyondTheLimitFail) {
    const int status = end_of_child([] {
        survive_file_size_limit();
        const rlimit limit{4, 4};
        setrlimit(RLIMIT_FSIZE, &limit);
        const int file = open("/misc/scratch/a", O_WRONLY | O_CREAT, 0600);
        const ssize_t first = write(file, "text", 4);
        if (first != 4 || write(file, "s", 1) != -1 || errno != EFBIG) abort();
    });
    EXPECT_TRUE(WIFEXITED(status));
}

}  // namespace
