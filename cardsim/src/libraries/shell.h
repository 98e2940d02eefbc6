/// Commands run through the shell.
#ifndef CARDSIM_SHELL_H
#define CARDSIM_SHELL_H

#include <string>

#include "cancellation.h"

namespace cardsim {

struct ShellResult {
    int code = 0;        ///< exit status; 128 + signal when a signal ended the command
    std::string output;  ///< standard output and standard error in the order they were written, at most 1 MiB
    std::string reason;  ///< why the code is not 0, on one line; empty otherwise
};

/// Runs `sh -c command` with nothing on its standard input and waits until it ended and nobody writes any more. The
/// waits are cancellation points as far as the thread could be cancelled before `uncancelled`; a cancelled run kills
/// the command's process group and leaves no process, no open file. Throws Error when the shell cannot be started.
ShellResult run_shell(const std::string &command, const CancellationGuard &uncancelled);

}  // namespace cardsim

#endif
