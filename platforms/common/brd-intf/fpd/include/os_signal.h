/// Signals that would end the process at a moment when it must not end. Main thread.
#ifndef OS_SIGNAL_H
#define OS_SIGNAL_H

#include <array>
#include <csignal>

/// Asked for by an operator or the system (SIGHUP, SIGINT, SIGTERM, SIGQUIT), or met while writing (SIGPIPE, SIGXFSZ).
inline constexpr std::array ending_signals = {SIGHUP, SIGINT, SIGTERM, SIGQUIT, SIGPIPE, SIGXFSZ};

/// Keeps the process from being ended by these signals for its lifetime; they are not made up for later. Programs that
/// are run meanwhile meet the default actions.
struct EndingSignalsHeld {
    EndingSignalsHeld();
    ~EndingSignalsHeld();
    EndingSignalsHeld(const EndingSignalsHeld &) = delete;
    EndingSignalsHeld &operator=(const EndingSignalsHeld &) = delete;

    std::array<struct sigaction, ending_signals.size()> before;  // in their order
};

/// Lets a write beyond the limit of a file's size fail, from here on, instead of ending the process.
void survive_file_size_limit();

#endif
