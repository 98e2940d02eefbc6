/// The command line: parses it, answers the configuration commands, and runs the card commands.

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "brd_intf_auto_fpd_upgrade_config.h"
#include "brd_intf_auto_fpd_upgrade_handler.h"
#include "brd_intf_auto_fpd_upgrade_init.h"
#include "brd_intf_auto_fpd_upgrade_worker.h"
#include "brd_platform_access.h"
#include "card_libraries.h"
#include "fpd_log.h"
#include "os_signal.h"

namespace {

enum class Command {
    none = 0,
    upgrade = 1,
    check_upgrade = 2,
    list_upgrade = 3,
    get_config = 4,
    set_config = 5,
    get_upgrade_mode = 6,
    set_upgrade_mode = 7,
};

/// One run of the tool.
struct Run {
    RunLevel run_level = RunLevel::boot;
    Command command = Command::none;
    int config_value{};  // of set_config
    int mode_value{};    // of set_upgrade_mode, an UpgradeMode
    int config{};        // as stored: 0 is disabled
    char err_msg[512] = "";
    // Stays with the process when the upgrade interface cannot be initialised.
    LocalCard *card = nullptr;
    bool thread_hangs{};  // one is still in the platform library
};

constexpr int status_failed = -1;
constexpr int status_fpds_to_upgrade = 1;

constexpr int attribute_flag_boot = 1;

constexpr const char *usage_format =
    "Usage: %s -h | -c {check_upgrade | upgrade | list_upgrade | get_config | set_config={enable|disable}"
    "get_upgrade_mode |set_upgrade_mode={regular|mfg|dummy-minor-version|dummy-major-version}[-b]}\n"
    "    -h: Display this usage output\n"
    "    -c check_upgrade: Checks whether any FPD available that need to be upgrade.\n"
    "         Returns: 0 - None FPD upgrade required\n"
    "                  1 - FPD upgrade available\n"
    "                 -1 - Error check for FPD upgrade\n"
    "    -c upgrade: Upgrades all availabe FPDs that need to be upgraded and reloads the card if any of FPD required "
    "to "
    "activating it\n"
    "    -c list_upgrade: Lists all available FPD upgrades.\n"
    "    -c get_config: Get the Auto FPD Upgrade cookie config\n"
    "    -c set_config: Set the Auto FPD Upgrade cookie config enable or disable\n"
    "    -c get_upgrade_mode: Get the FPD Upgrade Mode\n"
    "    -c set_upgrade_mode: Set the FPD Upgrade Mode to one of 'regular' or 'mfg' or 'dummy-minor-version' or "
    "'dummy-major-version'"
    "    -b: Optional argument, Backend level, Use this tool at runtime on backend.\n\n";

// The words of -c, as getsubopt takes them; the index of one is its command's number less 1.
constexpr std::array<const char *, 8> command_words = {"upgrade",          "check_upgrade", "list_upgrade",
                                                       "get_config",       "set_config",    "get_upgrade_mode",
                                                       "set_upgrade_mode", nullptr};
static_assert(command_words.size() == static_cast<std::size_t>(Command::set_upgrade_mode) + 1);

struct ModeRow {
    const char *word;
    const char *name;
};

// Indexed by UpgradeMode.
constexpr std::array<ModeRow, 4> modes = {{
    {"regular", "'Regular'"},
    {"mfg", "'Manufacturing'"},
    {"dummy-minor-version", "'Dummy Minor Version'"},
    {"dummy-major-version", "'Dummy Major Version'"},
}};
static_assert(modes.size() == static_cast<std::size_t>(UpgradeMode::dummy_major_version) + 1);

const char *mode_name(int mode) {
    const auto index = static_cast<std::size_t>(mode);
    return index < modes.size() ? modes[index].name : "'Unknown'";
}

const char *config_name(int config) {
    switch (config) {
        case 0:
            return "'DISABLED'";
        case 1:
            return "'ENABLED'";
        default:
            return "'Unknown'";
    }
}

// Parsing ---------------------------------------------------------------------------------------------------------

bool parse_config_value(const char *value, int &config_value) {
    if (!value) {
        std::fprintf(stderr, "set_config can't be empty\n\n\n");
        return false;
    }
    if (std::strcmp(value, "enable") == 0) {
        config_value = 1;
    } else if (std::strcmp(value, "disable") == 0) {
        config_value = 0;
    } else {
        std::fprintf(stderr, "Invalid set_config value\n\n\n");
        return false;
    }
    return true;
}

bool parse_mode_value(const char *value, int &mode_value) {
    for (std::size_t mode = 0; value && mode < modes.size(); ++mode) {
        if (std::strcmp(value, modes[mode].word) != 0) continue;
        mode_value = static_cast<int>(mode);
        return true;
    }
    std::fprintf(stderr, "Invalid set_upgrade_mode value\n\n\n");
    return false;
}

/// Parses the words of one -c; each overwrites the command before it. False at the first error.
bool parse_command(char *words, Run &run) {
    while (*words != '\0') {
        char *value = nullptr;
        // getsubopt's declaration knows no const, but it leaves the words as they are.
        const int index = getsubopt(&words, const_cast<char *const *>(command_words.data()), &value);
        if (index < 0) {
            std::fprintf(stderr, "Unknown Command Subopt, rc %d\n", index);
            return false;
        }
        run.command = static_cast<Command>(index + 1);
        if (run.command == Command::set_config && !parse_config_value(value, run.config_value)) return false;
        if (run.command == Command::set_upgrade_mode && !parse_mode_value(value, run.mode_value)) return false;
    }
    return true;
}

enum class Parsed { run, help, error };

/// Options that getopt does not know it complains of itself; they are otherwise ignored.
Parsed parse_options(int argc, char **argv, Run &run) {
    bool error = false;
    for (int option; (option = getopt(argc, argv, "c:bh")) != -1;) {
        if (option == 'h') return Parsed::help;
        if (option == 'b') run.run_level = RunLevel::backend;
        if (option == 'c' && !error) error = !parse_command(optarg, run);
    }
    return error || run.command == Command::none ? Parsed::error : Parsed::run;
}

// Configuration commands ------------------------------------------------------------------------------------------

int set_config(Run &run) {
    if (card_auto_upgrade_set(run.config_value, run.err_msg, sizeof run.err_msg) != 0) {
        std::fprintf(stderr, "Setting Auto FPD Upgrade configuration is failed, %s\n", run.err_msg);
        return status_failed;
    }
    std::printf("Auto FPD Upgrade Config updated from %s to %s\n", config_name(run.config),
                config_name(run.config_value));
    return 0;
}

/// Reads the stored mode, or complains and returns the store's code.
int read_upgrade_mode(Run &run, int &mode) {
    const int rc = card_upgrade_mode_get(mode, run.err_msg, sizeof run.err_msg);
    if (rc != 0) std::fprintf(stderr, "Getting FPD Upgrade Mode failed, %s\n", run.err_msg);
    return rc;
}

int get_upgrade_mode(Run &run) {
    int mode;
    const int rc = read_upgrade_mode(run, mode);
    if (rc == 0) std::printf("FPD Upgrade Mode: %s\n", mode_name(mode));
    return rc;
}

int set_upgrade_mode(Run &run) {
    int old_mode;
    int rc = read_upgrade_mode(run, old_mode);
    if (rc != 0) return rc;
    rc = card_upgrade_mode_set(run.mode_value, run.err_msg, sizeof run.err_msg);
    if (rc != 0) {
        std::fprintf(stderr, "Setting FPD Upgrade Mode is failed, %s\n", run.err_msg);
        return rc;
    }
    // The mode that was in force until now is the one told.
    std::printf("FPD Upgrade Mode updated to %s\n", mode_name(old_mode));
    return 0;
}

// Card commands ---------------------------------------------------------------------------------------------------

void upgrade(Run &run) {
    // A failed upgrade is told in words; the exit status is that of the command.
    if (run_fpd_upgrade(*run.card, run.run_level) != 0)
        std::fprintf(stderr, "FPD Upgrade failed\n");
    else
        std::printf("Auto FPD Upgrade done\n");
}

int check_upgrade(const LocalCard &card) {
    if (card.planned_count == 0) return 0;
    std::printf("FPD available that need to be upgraded\n");
    return status_fpds_to_upgrade;
}

void list_upgrade(const LocalCard &card) {
    if (card.planned_count == 0) return;
    std::printf("FPD name         Available Version\n");
    for (const Fpd *const queue : card.queues.seq_queues)
        for (const Fpd *fpd = queue; fpd; fpd = fpd->next) {
            char version[fpd_version_text_size];
            std::printf("%-16s %s\n", fpd->info.name,
                        fpd_version_to_text(fpd->desc.packaged_version, version, sizeof version));
        }
}

int card_command_failed(const char *step, const char *err_msg) {
    std::fprintf(stderr, "Local Card Auto FPD Upgrade %s failed err_msg %s\n", step, err_msg);
    return status_failed;
}

int run_command_on_card(Run &run) {
    switch (run.command) {
        case Command::upgrade:
            upgrade(run);
            return 0;
        case Command::check_upgrade:
            return check_upgrade(*run.card);
        case Command::list_upgrade:
            list_upgrade(*run.card);
            return 0;
        case Command::none:
            std::fprintf(stderr, "Invalid test command\n");
            return 0;
        case Command::get_config:
        case Command::set_config:
        case Command::get_upgrade_mode:
        case Command::set_upgrade_mode:
            break;
    }
    std::fprintf(stderr, "Unknown test command %d\n", static_cast<int>(run.command));
    return 0;
}

int card_command(Run &run) {
    if (context_init(&run.card, run.err_msg, sizeof run.err_msg) != 0)
        return card_command_failed("Context Init", run.err_msg);
    if (interface_init(run.run_level, *run.card, run.err_msg, sizeof run.err_msg) != 0)
        return card_command_failed("Interface Init", run.err_msg);
    const int result = run_command_on_card(run);
    const int rc = interface_deinit(*run.card, run.err_msg, sizeof run.err_msg);
    // Also when the queue could not be removed.
    release_retired_workers(*run.card);
    run.thread_hangs = run.card->hanging_threads != 0;
    if (rc != 0) return card_command_failed("Interface Deinit", run.err_msg);
    if (context_deinit(&run.card, run.err_msg, sizeof run.err_msg) != 0)
        return card_command_failed("Context Deinit", run.err_msg);
    return result;
}

// The run ---------------------------------------------------------------------------------------------------------

int run_command(Run &run) {
    switch (run.command) {
        case Command::get_config:
            std::printf("Auto FPD Upgrade Config is %s\n", config_name(run.config));
            return 0;
        case Command::set_config:
            return set_config(run);
        case Command::get_upgrade_mode:
            return get_upgrade_mode(run);
        case Command::set_upgrade_mode:
            return set_upgrade_mode(run);
        case Command::none:
        case Command::upgrade:
        case Command::check_upgrade:
        case Command::list_upgrade:
            break;
    }
    if (run.config == 0) {
        std::printf("Auto FPD Upgrade is Disabled\n");
        return 0;
    }
    return card_command(run);
}

int bootup_fpd(int argc, char **argv, Run &run) {
    const Parsed parsed = parse_options(argc, argv, run);
    if (parsed != Parsed::run) {
        std::printf(usage_format, argv[0]);
        return parsed == Parsed::help ? 0 : status_failed;
    }
    if (run.run_level == RunLevel::boot) brd_sb_attribute_flag_set(attribute_flag_boot);
    if (platform_interface_init() != 0) {
        std::fprintf(stderr, "Init Auto FPD Upgrade interface library\n");
        return status_failed;
    }
    if (get_auto_fpd_upgrade_config(run.config, run.err_msg, sizeof run.err_msg) != 0) {
        std::fprintf(stderr, "Getting Auto FPD Upgrade configuration is failed, %s\n", run.err_msg);
        return status_failed;
    }
    return run_command(run);
}

/// Standard descriptors that are closed would become those of the queue, or of a device of the platform library, which
/// would then be written our answers.
void open_closed_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (fcntl(fd, F_GETFD) == -1) open("/dev/null", O_RDWR);
}

// Before the libraries' constructors, which may open something.
[[gnu::section(".preinit_array"), gnu::used]] void (*const before_libraries)() = open_closed_standard_descriptors;

}  // namespace

int main(int argc, char **argv) {
    survive_file_size_limit();
    Run run;
    const int status = bootup_fpd(argc, argv, run);
    if (run.thread_hangs) {
        // The platform library's own end could wait for that thread, or pull the ground from under it.
        std::fflush(stdout);
        std::fflush(stderr);
        _exit(status);
    }
    // By exit and not by returning: `run` keeps its place, so that the card it still holds after a failed
    // initialisation is no leak to a checker that looks at the end of the process.
    std::exit(status);
}
