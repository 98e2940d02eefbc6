/// A sandbox in which the absolute paths of a card are those of one simulated card.
///
/// A body runs in a child inside user, mount, IPC, PID and network namespaces of its own. It needs no privilege: an
/// ordinary user is root inside, root keeps its identity. Nothing of it outlives the body, and the host sees nothing of
/// its mounts, message queues and processes. Sandboxes nest; in an inner one /proc is that of the outer one.
///
/// Inside, the host's file system is there (/usr /etc /boot /opt /lib* /bin /sbin /sys read-only, the rest as the
/// caller may use it, but for the devices in it) except for what SandboxLayout names, an empty /run, /dev (null zero
/// full random urandom tty console pts shm mqueue, nothing else) and /proc (that of the PID namespace; what is not of a
/// process is read-only, but for /proc/sys/fs/mqueue). Root inside can mount what it likes, but neither change nor
/// remove what is mounted here. POSIX message queues may hold `sandbox_message_limit` messages. Of the network there is
/// lo.
#ifndef CARDSIM_SANDBOX_H
#define CARDSIM_SANDBOX_H

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "descriptor.h"
#include "error.h"

namespace cardsim {

/// fs.mqueue.msg_max inside.
inline constexpr int sandbox_message_limit = 1024;

/// Where the content of the flash is found inside; a mount command binds it on /mnt/obfl.
inline constexpr const char *sandbox_flash_path = "/.cardsim/flash";

/// A directory of the host, shown at an absolute path inside. Writable as it is on the host.
struct SandboxBind {
    std::filesystem::path source;
    std::filesystem::path target;
};

/// The card's directories on the host. An empty member is not provided: an empty directory of the sandbox's own stands
/// there instead (no file at all for `bootstrap_file`, the host's /usr/sbin for `boot_commands`).
struct SandboxLayout {
    std::filesystem::path packaged_firmware;  ///< /pkg/fpd/ucode
    std::filesystem::path log;                ///< /var/log
    std::filesystem::path scratch;            ///< /misc/scratch
    std::filesystem::path local_etc;          ///< /usr/local/etc
    std::filesystem::path flash;              ///< sandbox_flash_path; /mnt/obfl itself is an empty directory
    std::filesystem::path boot_commands;      ///< its entries stand in /usr/sbin, before the host's of the same name
    std::filesystem::path bootstrap_file;     ///< copied to /dev/kd_bootstrap, a plain file that the body may change
    std::vector<SandboxBind> extra;           ///< shown as they are
    std::vector<std::filesystem::path> path_first;  ///< searched for commands before the system's directories
    bool host_network = false;                      ///< the host's network and its /run instead of ones of its own
};

/// A running sandbox. Destroying it kills everything inside and waits until it is gone.
/// The thread that started it must outlive it: the kernel kills the sandbox together with that thread.
class Sandbox {
  public:
    Sandbox() = default;
    Sandbox(Sandbox &&other) noexcept;
    Sandbox &operator=(Sandbox &&other) noexcept;
    ~Sandbox();

    bool running() const { return supervisor_ > 0; }

    /// Waits at most `timeout` for the body's end. Its exit status, 128 + n when signal n ended it; empty: still
    /// running.
    std::optional<int> wait_for(std::chrono::milliseconds timeout);

    /// Waits for the body's end.
    int wait();

    /// Sends SIGTERM, SIGINT or SIGHUP to the body.
    void forward(int signal_number) const;

    /// Kills everything inside at once and returns when nothing is left.
    void power_off();

  private:
    friend Sandbox sandbox_start(const SandboxLayout &, const std::function<int()> &);

    pid_t supervisor_ = -1;      ///< child of the caller that waits for the sandbox's init
    Descriptor supervisor_end_;  ///< a pidfd
};

/// Starts `body` in a sandbox; its result is the exit status (low 8 bits). Stdio is flushed before and after it; it
/// keeps the caller's open files, environment (but PATH), signal mask and, where it exists inside, working directory.
/// Throws Error when there can be no sandbox; nothing ran and nothing was written then.
Sandbox sandbox_start(const SandboxLayout &layout, const std::function<int()> &body);

/// Runs `body` to its end. Its exit status as Sandbox::wait gives it. Throws as sandbox_start.
int sandbox_run(const SandboxLayout &layout, const std::function<int()> &body);

}  // namespace cardsim

#endif
