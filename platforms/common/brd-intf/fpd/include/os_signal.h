/// Signals that would end or stop the process at a moment when it must go on. Main thread.
#ifndef OS_SIGNAL_H
#define OS_SIGNAL_H

#include <array>
#include <csignal>

/// Sent by an operator or the system, or met while writing (SIGPIPE, SIGXFSZ). SIGTSTP would only stop the process, but
/// with it the upgrade and the watchdog's food.
inline constexpr std::array unwanted_signals = {SIGHUP, SIGINT, SIGTERM, SIGQUIT, SIGTSTP, SIGPIPE, SIGXFSZ};

/// Keeps the process from being ended or stopped by these signals for its lifetime; they are not made up for later.
/// Programs that are run meanwhile meet the default actions.
struct UnwantedSignalsHeld {
    UnwantedSignalsHeld();
    ~UnwantedSignalsHeld();
    UnwantedSignalsHeld(const UnwantedSignalsHeld &) = delete;
    UnwantedSignalsHeld &operator=(const UnwantedSignalsHeld &) = delete;

    std::array<struct sigaction, unwanted_signals.size()> before;  // in their order
};

/// Lets a write beyond the limit of a file's size fail, from here on, instead of ending the process.
void survive_file_size_limit();

#endif
