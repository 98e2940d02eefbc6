/// The file system of a sandbox.
#ifndef CARDSIM_SANDBOX_ROOT_H
#define CARDSIM_SANDBOX_ROOT_H

#include "sandbox.h"

namespace cardsim {

/// Makes every path of `layout` absolute and free of symbolic links. Throws std::runtime_error naming what is missing.
SandboxLayout sandbox_layout_resolve(const SandboxLayout &layout);

/// Replaces the file system of the calling process by that of the sandbox. Call as the init of fresh user, mount, IPC
/// and PID namespaces with a resolved layout. Throws std::runtime_error with the step that failed.
void sandbox_root_enter(const SandboxLayout &layout);

/// What an administrator has to allow when the kernel refuses a step; empty for an errno that has another cause.
std::string sandbox_refusal_hint(int error_number);

}  // namespace cardsim

#endif
