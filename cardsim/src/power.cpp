#include "power.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>

#include "sandbox.h"
#include "scripts.h"

namespace fs = std::filesystem;

namespace cardsim {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds look_period{10};
constexpr milliseconds grace{2000};  // from the reset request, or a signal to us, to the power-off

// ---- signals to the command itself

volatile std::sig_atomic_t caught_signal = 0;
volatile std::sig_atomic_t signal_to_forward = 0;

extern "C" void note_signal(int number, siginfo_t *info, void *) {
    caught_signal = number;
    if (info->si_code <= 0) signal_to_forward = number;
}

/// From now on an ending signal is noted, not obeyed. One of the terminal reaches the card's command by itself.
void catch_ending_signals() {
    caught_signal = 0;
    signal_to_forward = 0;
    struct sigaction action = {};
    action.sa_sigaction = note_signal;
    action.sa_flags = SA_SIGINFO;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
    std::signal(SIGCHLD, SIG_DFL);  // whoever started us may ignore it, and exit statuses would be lost
}

void forward_caught_signal(const Sandbox &card) {
    const int number = signal_to_forward;
    signal_to_forward = 0;
    if (number != 0) card.forward(number);
}

// ---- what runs inside

SandboxLayout card_layout(const CardPlace &place) {
    SandboxLayout layout;
    layout.packaged_firmware = package_directory(place.state);
    layout.log = place.state / "log";
    layout.scratch = place.state / "scratch";
    layout.flash = place.state / "flash";
    layout.local_etc = place.state / "etc";
    layout.boot_commands = place.state / "bin";
    layout.bootstrap_file = place.state / "kd_bootstrap";
    layout.extra = {{place.state, state_path_inside}, {place.file.parent_path(), card_path_inside}};
    layout.path_first = {fs::read_symlink("/proc/self/exe").parent_path()};
    return layout;
}

/// Replaces the process by the command; returns the shell's status for one that cannot be run.
int run_command(const std::vector<std::string> &command) {
    std::vector<char *> arguments;
    for (const std::string &argument : command) arguments.push_back(const_cast<char *>(argument.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments.front(), arguments.data());
    const int error_number = errno;
    std::fprintf(stderr, "cardsim: %s: %s\n", arguments.front(), std::strerror(error_number));
    return error_number == ENOENT ? 127 : 126;
}

int run_on_card(const CardPlace &place, uint32_t speed, const std::vector<std::string> &command) {
    setenv("CARDSIM_CARD", (fs::path(card_path_inside) / place.file.filename()).c_str(), 1);
    setenv("CARDSIM_STATE", state_path_inside, 1);
    setenv("CARDSIM_SPEED", std::to_string(speed).c_str(), 1);
    if (place.description.obfl.mounted && mount(sandbox_flash_path, "/mnt/obfl", nullptr, MS_BIND, nullptr) != 0) {
        std::fprintf(stderr, "cardsim: mount the OBFL flash: %s\n", std::strerror(errno));
        return 126;
    }
    return run_command(command);
}

void read_nothing() {
    const int null = open("/dev/null", O_RDONLY);
    if (null > 0) {
        dup2(null, STDIN_FILENO);
        close(null);
    }
}

Sandbox power_up(const CardPlace &place, const std::function<int()> &body) {
    Sandbox card;
    std::string error;
    if (!sandbox_start(card_layout(place), body, card, error)) throw PowerError(error);
    return card;
}

/// Makes the card's state, but only where a card can be powered at all.
void power_on(const CardPlace &place, uint32_t speed) {
    const auto nothing = [] { return 0; };
    std::string error;
    if (!has_state(place) && sandbox_run({}, nothing, error) != 0) throw PowerError(error);
    prepare_state(place, speed);
}

// ---- one boot

/// Expires when the watchdog script has not been run for the described time. The power-on counts as a punch.
class Watchdog {
  public:
    Watchdog(const CardPlace &place, uint32_t speed) : punches_(watchdog_punches(place.state)) {
        if (place.description.watchdog) {
            const std::chrono::duration<double> seconds(place.description.watchdog->timeout / speed);
            limit_ = std::chrono::duration_cast<Clock::duration>(seconds);
        }
    }
    bool expired() {
        if (!limit_) return false;
        std::error_code none_yet;
        const std::uintmax_t count = fs::file_size(punches_, none_yet);
        if (!none_yet && count != seen_) {
            seen_ = count;
            last_ = Clock::now();
        }
        return Clock::now() - last_ > *limit_;
    }

  private:
    fs::path punches_;
    std::optional<Clock::duration> limit_;
    std::uintmax_t seen_ = 0;
    Clock::time_point last_ = Clock::now();
};

struct BootEnd {
    enum class Why { CommandEnded, PoweredOff, WatchdogExpired, Interrupted } why;
    int status = 0;  ///< of a start-up command that ended
};

/// Lets the command go on for `grace`, then powers the card off.
BootEnd end_with_grace(Sandbox &card, BootEnd::Why otherwise) {
    const Clock::time_point deadline = Clock::now() + grace;
    while (Clock::now() < deadline) {
        if (const std::optional<int> status = card.wait_for(look_period)) return {BootEnd::Why::CommandEnded, *status};
    }
    card.power_off();
    return {otherwise};
}

BootEnd watch_boot(Sandbox &card, const CardPlace &place, uint32_t speed) {
    Watchdog watchdog(place, speed);
    while (true) {
        if (const std::optional<int> status = card.wait_for(look_period)) return {BootEnd::Why::CommandEnded, *status};
        if (caught_signal != 0) {
            forward_caught_signal(card);
            end_with_grace(card, BootEnd::Why::Interrupted);
            return {BootEnd::Why::Interrupted};
        }
        if (fs::exists(reset_request(place.state))) return end_with_grace(card, BootEnd::Why::PoweredOff);
        if (watchdog.expired()) {
            card.power_off();
            return {BootEnd::Why::WatchdogExpired};
        }
    }
}

void forget_last_boot(const CardPlace &place) {
    fs::remove(reset_request(place.state));
    fs::remove(watchdog_punches(place.state));
}

CardState card_state(const CardPlace &place) {
    CardState state;
    std::string error;
    if (load_state(place.state, place.description, state, error) != 0) throw CardError(error);
    return state;
}

/// Programmed versions become the running ones. Returns the number of the new boot.
uint32_t reload_card(const CardPlace &place) {
    const StateLock lock(place.state);
    CardState state = card_state(place);
    reload(state);
    std::string error;
    if (save_state(place.state, state, error) != 0) throw std::runtime_error(error);
    return state.boot;
}

/// The number of the boot that comes now. A card that has not booted since it was made starts as it is described.
uint32_t begin_first_boot(const CardPlace &place, const CardInUse &use) {
    const uint32_t boot = card_state(place).boot;
    const bool booted = use.last_boot() == boot || fs::exists(reset_request(place.state));
    return booted ? reload_card(place) : boot;
}

std::uintmax_t loud_ends(const CardPlace &place) {
    std::error_code none_yet;
    const std::uintmax_t size = fs::file_size(abort_log(place.state), none_yet);
    return none_yet ? 0 : size;
}

std::string text_behind(const fs::path &path, std::uintmax_t position) {
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(position));
    std::string line;
    std::getline(file, line);
    return line;
}

bool ended_by_signal(int status) {
    return status > 128 && status <= 128 + SIGRTMAX;
}

void tell(uint32_t boot, const std::string &text) {
    std::printf("boot %u: %s\n", boot, text.c_str());
    std::fflush(stdout);
}

void complain(uint32_t boot, const std::string &text) {
    std::fflush(stdout);
    std::fprintf(stderr, "cardsim: boot %u: %s\n", boot, text.c_str());
}

void tell_command_end(uint32_t boot, const BootEnd &end, Clock::duration duration) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.1f s", std::chrono::duration<double>(duration).count());
    if (end.why == BootEnd::Why::CommandEnded) {
        tell(boot, "the start-up command ended with status " + std::to_string(end.status) + " after " + seconds);
    } else {
        tell(boot, std::string("the card was powered off after ") + seconds);
    }
}

void record_watchdog(const CardPlace &place) {
    std::ofstream log(scripts_log(place.state), std::ios::app);
    log << "watchdog expired\n";
}

/// Runs the start-up command to its end, whatever that is.
BootEnd boot_once(const CardPlace &place, uint32_t speed, uint32_t boot) {
    forget_last_boot(place);
    const Clock::time_point begun = Clock::now();
    Sandbox card = power_up(place, [&] {
        read_nothing();
        return run_on_card(place, speed, {"/bin/sh", "-c", place.description.startup});
    });
    const BootEnd end = watch_boot(card, place, speed);
    tell_command_end(boot, end, Clock::now() - begun);
    return end;
}

/// What follows from the end of a boot: an exit status, or nothing when the card reloads.
std::optional<int> judge(const CardPlace &place, uint32_t boot, const BootEnd &end, std::uintmax_t loud_before) {
    if (end.why == BootEnd::Why::Interrupted) return 128 + caught_signal;
    if (loud_ends(place) != loud_before) {
        complain(boot, "ended loudly: " + text_behind(abort_log(place.state), loud_before));
        return boot_loud_end;
    }
    if (end.why == BootEnd::Why::WatchdogExpired) {
        record_watchdog(place);
        complain(boot, "the watchdog was not punched in time");
        return std::nullopt;
    }
    if (fs::exists(reset_request(place.state))) {
        tell(boot, "reload requested: " + text_behind(reset_request(place.state), 0));
        return std::nullopt;
    }
    if (ended_by_signal(end.status)) {
        complain(boot, "the start-up command was killed by signal " + std::to_string(end.status - 128) + " (" +
                           strsignal(end.status - 128) + ")");
        return boot_loud_end;
    }
    if (end.status != 0) return boot_command_failed;
    tell(boot, "the card is up");
    return boot_is_up;
}

/// Whoever had the terminal before the command gets it back: a shell leaves it to a process group that is gone.
class TerminalKept {
  public:
    TerminalKept() : group_(tcgetpgrp(STDIN_FILENO)) {}
    TerminalKept(const TerminalKept &) = delete;
    TerminalKept &operator=(const TerminalKept &) = delete;
    ~TerminalKept() {
        if (group_ != getpgrp() || tcgetpgrp(STDIN_FILENO) == group_) return;
        std::signal(SIGTTOU, SIG_IGN);
        tcsetpgrp(STDIN_FILENO, group_);
    }

  private:
    pid_t group_;
};

}  // namespace

int boot_card(const CardPlace &place, uint32_t speed, uint32_t max_boots) {
    catch_ending_signals();
    power_on(place, speed);
    const CardInUse use(place, CardInUse::For::Boot);
    uint32_t boot = begin_first_boot(place, use);
    for (uint32_t count = 1;; ++count) {
        use.set_last_boot(boot);
        tell(boot, (count == 1 ? "power on: " : "reload: ") + place.description.startup);
        const std::uintmax_t loud_before = loud_ends(place);
        const BootEnd end = boot_once(place, speed, boot);
        if (const std::optional<int> status = judge(place, boot, end, loud_before)) return *status;
        if (count == max_boots) break;
        boot = reload_card(place);
    }
    std::fprintf(stderr, "cardsim: gave up: the card did not come up in %u boots\n", max_boots);
    return boot_limit_reached;
}

int exec_on_card(const CardPlace &place, uint32_t speed, const std::vector<std::string> &command) {
    catch_ending_signals();
    power_on(place, speed);
    const CardInUse use(place, CardInUse::For::Command);
    const TerminalKept terminal;
    Sandbox card = power_up(place, [&] { return run_on_card(place, speed, command); });
    while (true) {
        if (const std::optional<int> status = card.wait_for(milliseconds(100))) return *status;
        forward_caught_signal(card);
    }
}

}  // namespace cardsim
