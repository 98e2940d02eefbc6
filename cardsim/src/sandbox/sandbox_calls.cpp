#include "sandbox_calls.h"

#include <asm/ioctls.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "error.h"

namespace cardsim {
namespace {

constexpr uint32_t first_x32_call = 0x40000000;

constexpr sock_filter load(std::size_t offset) {
    return {BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<uint32_t>(offset)};
}

/// Skips so many instructions when the comparison holds, or when it does not.
constexpr sock_filter skip_if(uint16_t comparison, uint32_t value, uint8_t skipped) {
    return {static_cast<uint16_t>(BPF_JMP | BPF_K | comparison), skipped, 0, value};
}
constexpr sock_filter skip_unless(uint16_t comparison, uint32_t value, uint8_t skipped) {
    return {static_cast<uint16_t>(BPF_JMP | BPF_K | comparison), 0, skipped, value};
}

constexpr sock_filter answer(uint32_t action) {
    return {BPF_RET | BPF_K, 0, 0, action};
}

// Of an argument the low half is looked at, as the kernel does for a request of ioctl.
constexpr std::array filter = {
    load(offsetof(seccomp_data, arch)),    skip_unless(BPF_JEQ, AUDIT_ARCH_X86_64, 10),
    load(offsetof(seccomp_data, nr)),      skip_if(BPF_JGE, first_x32_call, 8),
    skip_if(BPF_JEQ, SYS_add_key, 7),      skip_if(BPF_JEQ, SYS_request_key, 6),
    skip_if(BPF_JEQ, SYS_keyctl, 5),       skip_unless(BPF_JEQ, SYS_ioctl, 3),
    load(offsetof(seccomp_data, args[1])), skip_if(BPF_JEQ, TIOCSTI, 2),
    skip_if(BPF_JEQ, TIOCLINUX, 1),        answer(SECCOMP_RET_ALLOW),
    answer(SECCOMP_RET_ERRNO | ENOSYS),
};

}  // namespace

void sandbox_refuse_calls() {
    std::array program = filter;
    const sock_fprog handed = {static_cast<unsigned short>(program.size()), program.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &handed) != 0) {
        throw system_error("refuse system calls", errno);
    }
}

}  // namespace cardsim
