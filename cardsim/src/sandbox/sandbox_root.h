/// The file system of a sandbox.
#ifndef CARDSIM_SANDBOX_ROOT_H
#define CARDSIM_SANDBOX_ROOT_H

#include <sys/types.h>

#include <map>

#include "sandbox.h"

namespace cardsim {

/// What a path of the layout led to when the sandbox was asked for. Nothing else is shown in its place, should a link
/// have been put there meanwhile.
struct SandboxSource {
    std::filesystem::path path;  ///< absolute, free of symbolic links
    dev_t device = 0;
    ino_t inode = 0;
};

struct SandboxRoot {
    SandboxLayout layout;
    std::map<std::filesystem::path, SandboxSource> sources;  ///< for each path of the host in the layout
    std::filesystem::path terminal;                          ///< on standard input; empty: none
};

/// Throws Error naming what is missing.
SandboxRoot sandbox_root_plan(const SandboxLayout &layout);

/// Replaces the file system of the calling process by that of the sandbox. Call as the init of fresh user, mount, IPC
/// and PID namespaces, and of a fresh network namespace unless the layout wants the host's. What is mounted here is
/// safe from those who run in a user namespace below this one. Throws Error with the step that failed.
void sandbox_root_enter(const SandboxRoot &root);

/// The step that the kernel refuses, why, and what an administrator has to allow where that is the cause.
Error sandbox_refusal(const std::string &step, int error_number);

}  // namespace cardsim

#endif
