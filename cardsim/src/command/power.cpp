#include "power.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "life.h"
#include "live_view.h"
#include "printable.h"
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

/// What the sandbox is to show, and the open files by which it is named there.
struct CardLayout {
    SandboxLayout layout;
    std::vector<Descriptor> files;

    CardLayout(const CardPlace &place, const StateDirectory &state, bool host_network) {
        layout.packaged_firmware = opened(state, package_directory);
        layout.log = opened(state, "log");
        layout.scratch = opened(state, "scratch");
        layout.flash = opened(state, "flash");
        layout.local_etc = opened(state, "etc");
        layout.boot_commands = opened(state, "bin");
        layout.bootstrap_file = opened(state, "kd_bootstrap", 0);
        // An earlier boot may have put a link in the place of the card.
        const StateDirectory card(place.file.parent_path());
        layout.extra = {{opened(state, ""), state_path_inside}, {opened(card, ""), card_path_inside}};
        const fs::path programs = fs::read_symlink("/proc/self/exe").parent_path();
        layout.path_first = {programs, programs.parent_path() / "sbin"};  // as built, and as installed
        layout.host_network = host_network;
    }

  private:
    fs::path opened(const StateDirectory &state, const char *name, int kind = O_DIRECTORY) {
        files.push_back(state.open(name, O_RDONLY | kind));
        return files.back().name();
    }
};

/// The environment is the card's: nothing of the caller's but how to talk to the user, what the user asked for, and
/// what instruments of a program under test are told by.
void set_environment(const Power &power, const fs::path &card_file) {
    constexpr std::array kept = {
        "TERM",         "LANG",          "TZ",          "ASAN_OPTIONS",      "LSAN_OPTIONS",
        "TSAN_OPTIONS", "UBSAN_OPTIONS", "GCOV_PREFIX", "GCOV_PREFIX_STRIP", "LLVM_PROFILE_FILE"};
    std::map<std::string, std::string> variables = {{"HOME", "/"}, {"PATH", std::getenv("PATH")}};
    for (const char *name : kept) {
        if (const char *const value = std::getenv(name)) variables[name] = value;
    }
    for (const std::string &given : power.environment) {
        const std::size_t equals = given.find('=');
        const std::string name = given.substr(0, equals);
        const char *const own = std::getenv(name.c_str());
        if (equals != std::string::npos) {
            variables[name] = given.substr(equals + 1);
        } else if (own != nullptr) {
            variables[name] = own;
        }
    }
    variables["CARDSIM_CARD"] = fs::path(card_path_inside) / card_file.filename();
    variables["CARDSIM_STATE"] = state_path_inside;
    variables["CARDSIM_SPEED"] = std::to_string(power.speed);
    clearenv();
    for (const auto &[name, value] : variables) setenv(name.c_str(), value.c_str(), 1);
}

/// Replaces the process by the command; returns the shell's status for one that cannot be run.
int run_command(const std::vector<std::string> &command) {
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string &argument : command) arguments.push_back(const_cast<char *>(argument.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments.front(), arguments.data());
    const int error_number = errno;
    std::fprintf(stderr, "cardsim: %s: %s\n", arguments.front(), std::strerror(error_number));
    return error_number == ENOENT ? 127 : 126;
}

/// No file of the caller's but the standard streams goes to the card: through a directory among them it would reach the
/// whole host.
int run_on_card(const CardPlace &place, const Power &power, const std::vector<std::string> &command) {
    set_environment(power, place.file);
    if (close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
        std::fprintf(stderr, "cardsim: close the files of the caller: %s\n", std::strerror(errno));
        return 126;
    }
    if (place.description.obfl.mounted && mount(sandbox_flash_path, "/mnt/obfl", nullptr, MS_BIND, nullptr) != 0) {
        std::fprintf(stderr, "cardsim: mount the OBFL flash: %s\n", std::strerror(errno));
        return 126;
    }
    return run_command(command);
}

void read_nothing() {
    [[maybe_unused]] const FILE *const nothing = std::freopen("/dev/null", "r", stdin);
}

Sandbox power_up(const CardPlace &place, const StateDirectory &state, const Power &power,
                 const std::function<int()> &body) {
    const CardLayout card(place, state, power.host_network);
    return sandbox_start(card.layout, body);
}

/// Makes the card's state where there is none, but only where a card can be powered at all.
void make_missing_state(const CardPlace &place, uint32_t speed) {
    if (has_state(place)) return;
    sandbox_run({}, [] { return 0; });
    make_state(place, speed);
}

void bring_up_to_date(const CardPlace &place, const StateDirectory &state, uint32_t speed) {
    const StateLock lock(state);
    update_state(place, state, speed);
}

// ---- one boot

/// Expires when the watchdog script has not been run for the described time. The power-on counts as a punch.
class Watchdog {
  public:
    Watchdog(const CardDescription &card, const StateDirectory &state, uint32_t speed) : state_(state) {
        if (card.watchdog) {
            const std::chrono::duration<double> seconds(card.watchdog->timeout / speed);
            limit_ = std::chrono::duration_cast<Clock::duration>(seconds);
        }
    }
    bool expired() {
        if (!limit_) return false;
        const std::uintmax_t count = state_.size(watchdog_punches);
        if (count != seen_) {
            seen_ = count;
            last_ = Clock::now();
        }
        return Clock::now() - last_ > *limit_;
    }
    /// Since the last punch that was seen; absent: there is no watchdog.
    std::optional<Clock::duration> age() const {
        if (!limit_) return std::nullopt;
        return Clock::now() - last_;
    }

  private:
    const StateDirectory &state_;
    std::optional<Clock::duration> limit_;
    std::uintmax_t seen_ = 0;
    Clock::time_point last_ = Clock::now();
};

struct BootEnd {
    enum class Why { CommandEnded, PoweredOff, WatchdogExpired, Interrupted } why;
    int status = 0;  ///< of a start-up command that ended
    Clock::duration duration = {};
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

BootEnd watch_boot(Sandbox &card, const CardDescription &description, const StateDirectory &state, uint32_t speed,
                   LiveView *view) {
    Watchdog watchdog(description, state, speed);
    while (true) {
        if (view != nullptr) view->look(watchdog.age());
        if (const std::optional<int> status = card.wait_for(look_period)) return {BootEnd::Why::CommandEnded, *status};
        if (caught_signal != 0) {
            forward_caught_signal(card);
            end_with_grace(card, BootEnd::Why::Interrupted);
            return {BootEnd::Why::Interrupted};
        }
        if (state.has(reset_request)) return end_with_grace(card, BootEnd::Why::PoweredOff);
        if (watchdog.expired()) {
            card.power_off();
            return {BootEnd::Why::WatchdogExpired};
        }
    }
}

void forget_last_boot(const StateDirectory &state) {
    state.remove(reset_request);
    state.remove(watchdog_punches);
}

/// Programmed versions become the running ones. Returns the number of the new boot.
uint32_t reload_card(const CardPlace &place, const StateDirectory &directory) {
    const StateLock lock(directory);
    CardState state = load_state(directory, place.description);
    reload(state);
    save_state(directory, state);
    return state.boot;
}

struct BootBegin {
    uint32_t number;
    const char *why;  ///< see BootLife
};

/// The boot that comes now. A card that has not booted since it was made starts as it is described.
BootBegin begin_first_boot(const CardPlace &place, const StateDirectory &state, const CardInUse &use) {
    const uint32_t boot = load_state(state, place.description).boot;
    const bool booted = use.last_boot() == boot || state.has(reset_request);
    if (booted) return {reload_card(place, state), "power cycle"};
    return {boot, "power on"};
}

bool ended_by_signal(int status) {
    return status > 128 && status <= 128 + SIGRTMAX;
}

void tell(uint32_t boot, const std::string &text) {
    std::printf("boot %u: %s\n", boot, printable(text).c_str());
    std::fflush(stdout);
}

void complain(uint32_t boot, const std::string &text) {
    std::fflush(stdout);
    std::fprintf(stderr, "cardsim: boot %u: %s\n", boot, printable(text).c_str());
}

void tell_command_end(uint32_t boot, const BootEnd &end) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.1f s", std::chrono::duration<double>(end.duration).count());
    if (end.why == BootEnd::Why::CommandEnded) {
        tell(boot, "the start-up command ended with status " + std::to_string(end.status) + " after " + seconds);
    } else {
        tell(boot, std::string("the card was powered off after ") + seconds);
    }
}

/// Runs the start-up command to its end, whatever that is.
BootEnd boot_once(const CardPlace &place, const StateDirectory &state, const Power &power, uint32_t boot,
                  LiveView *view) {
    forget_last_boot(state);
    const Clock::time_point begun = Clock::now();
    Sandbox card = power_up(place, state, power, [&] {
        read_nothing();
        return run_on_card(place, power, {"/bin/sh", "-c", place.description.startup});
    });
    BootEnd end = watch_boot(card, place.description, state, power.speed, view);
    end.duration = Clock::now() - begun;
    tell_command_end(boot, end);
    return end;
}

/// What follows from the end of a boot.
struct Verdict {
    std::optional<int> status;  ///< of `boot`; absent: the card reloads
    std::string why;            ///< one line
};

Verdict judge_command(int status) {
    if (ended_by_signal(status)) {
        return {boot_aborted, "the start-up command was killed by signal " + std::to_string(status - 128) + " (" +
                                  strsignal(status - 128) + ")"};
    }
    if (status != 0) {
        return {boot_command_failed, "the start-up command ended with status " + std::to_string(status)};
    }
    return {boot_is_up, "the card is up"};
}

Verdict judge(const StateDirectory &state, const BootEnd &end, std::uintmax_t aborts_before) {
    if (end.why == BootEnd::Why::Interrupted) {
        return {128 + caught_signal, "interrupted by signal " + std::to_string(caught_signal)};
    }
    if (state.size(abort_log) != aborts_before)
        return {boot_aborted, "aborted: " + state.line(abort_log, aborts_before)};
    if (end.why == BootEnd::Why::WatchdogExpired) return {std::nullopt, "the watchdog was not punched in time"};
    if (state.has(reset_request)) return {std::nullopt, "reload requested: " + state.line(reset_request, 0)};
    return judge_command(end.status);
}

/// Says on standard output what went well, on standard error what did not; a failed command has been told of.
void tell_verdict(uint32_t boot, const BootEnd &end, const Verdict &verdict) {
    const bool is_wrong = verdict.status == boot_aborted || end.why == BootEnd::Why::WatchdogExpired;
    if (end.why == BootEnd::Why::Interrupted || verdict.status == boot_command_failed) return;
    if (is_wrong) {
        complain(boot, verdict.why);
    } else {
        tell(boot, verdict.why);
    }
}

/// Waits for the end of the command, and hands on the signals that are meant for it.
int wait_for_command(Sandbox &card) {
    while (true) {
        if (const std::optional<int> status = card.wait_for(milliseconds(100))) return *status;
        forward_caught_signal(card);
    }
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

Life boot_card(const CardPlace &place, const Power &power, uint32_t max_boots) {
    catch_ending_signals();
    make_missing_state(place, power.speed);
    const StateDirectory state(place.state);
    const CardInUse use(state, CardInUse::For::Boot);
    bring_up_to_date(place, state, power.speed);
    LifeRecord life(place, state);
    BootBegin boot = begin_first_boot(place, state, use);
    std::unique_ptr<TerminalScreen> screen = power.live ? TerminalScreen::open() : nullptr;
    std::optional<LiveView> view;
    if (screen) view.emplace(place.description, state, power.speed, std::move(screen));
    for (uint32_t count = 1;; ++count) {
        use.set_last_boot(boot.number);
        tell(boot.number, (count == 1 ? "power on: " : "reload: ") + place.description.startup);
        life.begin_boot(boot.number, boot.why);
        if (view) view->begin_boot(boot.number, boot.why);
        const std::uintmax_t aborts_before = state.size(abort_log);
        const BootEnd end = boot_once(place, state, power, boot.number, view ? &*view : nullptr);
        const Verdict verdict = judge(state, end, aborts_before);
        if (!verdict.status && end.why == BootEnd::Why::WatchdogExpired)
            state.append(scripts_log, "watchdog expired\n");
        tell_verdict(boot.number, end, verdict);
        life.end_boot(verdict.why, std::chrono::duration<double>(end.duration).count() * power.speed);
        if (verdict.status) return life.finish(*verdict.status);
        if (count == max_boots) break;
        boot = {reload_card(place, state),
                end.why == BootEnd::Why::WatchdogExpired ? "watchdog expired" : "reload requested"};
    }
    std::fprintf(stderr, "cardsim: gave up: the card did not come up in %u boots\n", max_boots);
    return life.finish(boot_limit_reached);
}

int run_at_boot(const CardPlace &place, const Power &power, const std::vector<std::string> &command, int output) {
    catch_ending_signals();
    make_missing_state(place, power.speed);
    const StateDirectory state(place.state);
    const CardInUse use(state, CardInUse::For::Boot);
    bring_up_to_date(place, state, power.speed);
    use.set_last_boot(begin_first_boot(place, state, use).number);
    forget_last_boot(state);
    Sandbox card = power_up(place, state, power, [&] {
        read_nothing();
        if (dup2(output, STDOUT_FILENO) < 0) return 126;
        return run_on_card(place, power, command);
    });
    return wait_for_command(card);
}

int exec_on_card(const CardPlace &place, const Power &power, const std::vector<std::string> &command) {
    catch_ending_signals();
    make_missing_state(place, power.speed);
    const StateDirectory state(place.state);
    const CardInUse use(state, CardInUse::For::Command);
    bring_up_to_date(place, state, power.speed);
    const TerminalKept terminal;
    Sandbox card = power_up(place, state, power, [&] { return run_on_card(place, power, command); });
    return wait_for_command(card);
}

void power_on_machine(const CardPlace &place, uint32_t speed) {
    make_state(place, speed);
    const StateDirectory state(place.state);
    const CardInUse use(state, CardInUse::For::Boot);
    bring_up_to_date(place, state, speed);
    const uint32_t boot = begin_first_boot(place, state, use).number;
    forget_last_boot(state);
    use.set_last_boot(boot);
    sync();  // the number above all: without it the next power-on would not reload the card
    tell(boot, "power on");
}

}  // namespace cardsim
