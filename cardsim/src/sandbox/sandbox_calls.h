/// The system calls that a sandbox refuses.
#ifndef CARDSIM_SANDBOX_CALLS_H
#define CARDSIM_SANDBOX_CALLS_H

namespace cardsim {

/// From now on this thread and all that it starts gain nothing by a set-user-ID program, and are refused (ENOSYS) what
/// no namespace keeps apart: the kernel's keyrings, typing on somebody's terminal, and the calls of 32-bit programs.
/// Throws Error.
void sandbox_refuse_calls();

}  // namespace cardsim

#endif
