#include "os_signal.h"

namespace {

extern "C" void take_no_notice(int) {}

/// A handler, as what is ignored would be ignored in the programs that are run too. Calls that it interrupts go on.
void hold(int signal_number, struct sigaction *before) {
    struct sigaction held {};
    held.sa_handler = take_no_notice;
    held.sa_flags = SA_RESTART;
    sigaction(signal_number, &held, before);
}

}  // namespace

UnwantedSignalsHeld::UnwantedSignalsHeld() {
    for (std::size_t i = 0; i < unwanted_signals.size(); ++i) hold(unwanted_signals[i], &before[i]);
}

UnwantedSignalsHeld::~UnwantedSignalsHeld() {
    for (std::size_t i = 0; i < unwanted_signals.size(); ++i) sigaction(unwanted_signals[i], &before[i], nullptr);
}

void survive_file_size_limit() {
    hold(SIGXFSZ, nullptr);
}
