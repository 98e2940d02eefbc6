/// The command line, against a model of the options and of what each command asks of the configuration store.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <vector>

#include "brd_intf_auto_fpd_upgrade_init.h"
#include "brd_intf_auto_fpd_upgrade_worker.h"
#include "fake_platform.h"
#include "target.h"

/// The front end's main, which has this name here.
int tool_main(int argc, char **argv);

namespace {

constexpr std::size_t most_arguments = 6;
constexpr const char *program = "bootup_fpd";

// The front end ends by exit(): it comes back here.
bool running = false;
std::jmp_buf after_exit;
int exit_status;
// Some failures leave the card to the end of the process, which does not come here.
LocalCard *card_in_use;

void release_card() {
    LocalCard *card = card_in_use;
    if (!card) return;
    char ignored[256];
    require_equal(interface_deinit(*card, ignored, sizeof ignored), 0, "the card's release");
    release_retired_workers(*card);
    context_deinit(&card, ignored, sizeof ignored);
}

[[noreturn]] void come_back(int status) {
    running = false;
    exit_status = status & 0xff;
    std::longjmp(after_exit, 1);
}

// The model -------------------------------------------------------------------------------------------------------

/// What the configuration store and the card answer.
struct Store {
    int config;
    int mode;
    int read_config_rc;
    int write_config_rc;
    int read_mode_rc;
    int write_mode_rc;
    bool card_fails;
};

struct Words {
    std::string command;  // the last one; empty: none
    std::string value;    // of the last set_config or set_upgrade_mode, by that command
    bool bad = false;
    std::string complaint;
};

constexpr std::array command_names = {"upgrade",    "check_upgrade",    "list_upgrade",    "get_config",
                                      "set_config", "get_upgrade_mode", "set_upgrade_mode"};
constexpr std::array mode_words = {"regular", "mfg", "dummy-minor-version", "dummy-major-version"};
constexpr std::array mode_names = {"'Regular'", "'Manufacturing'", "'Dummy Minor Version'", "'Dummy Major Version'"};

template <class Table>
bool is_one_of(const Table &table, std::string_view word) {
    return std::find(table.begin(), table.end(), word) != table.end();
}

void refuse(Words &words, const char *complaint) {
    words.bad = true;
    words.complaint += complaint;
}

/// One argument of -c: words between commas, each a name and perhaps a value.
void take_words(std::string_view argument, Words &words) {
    while (!argument.empty() && !words.bad) {
        const std::string_view word = argument.substr(0, argument.find(','));
        argument.remove_prefix(std::min(word.size() + 1, argument.size()));
        const std::string_view name = word.substr(0, word.find('='));
        const bool has_value = name.size() < word.size();
        const std::string_view value = has_value ? word.substr(name.size() + 1) : "";
        if (!is_one_of(command_names, name)) return refuse(words, "Unknown Command Subopt, rc -1\n");
        words.command = name;
        if (name == "set_config" && !has_value) return refuse(words, "set_config can't be empty\n\n\n");
        if (name == "set_config" && value != "enable" && value != "disable")
            return refuse(words, "Invalid set_config value\n\n\n");
        if (name == "set_upgrade_mode" && !is_one_of(mode_words, value))
            return refuse(words, "Invalid set_upgrade_mode value\n\n\n");
        if (name.starts_with("set_")) words.value = value;
    }
}

struct Options {
    Words words;
    bool by_hand = false;
    bool help = false;
};

/// POSIX options, which may stand after other arguments.
Options options_of(const std::vector<std::string> &arguments) {
    Options options;
    for (std::size_t i = 0; i < arguments.size() && arguments[i] != "--"; ++i) {
        const std::string &argument = arguments[i];
        if (argument.size() < 2 || argument[0] != '-') continue;
        for (std::size_t place = 1; place < argument.size(); ++place) {
            if (argument[place] == 'h') {
                options.help = true;
                return options;
            }
            options.by_hand = options.by_hand || argument[place] == 'b';
            if (argument[place] != 'c') continue;
            const bool attached = place + 1 < argument.size();
            if (!attached && i + 1 == arguments.size()) break;
            take_words(attached ? argument.substr(place + 1) : arguments[++i], options.words);
            break;
        }
    }
    return options;
}

/// What a run says, returns, and changes.
struct Outcome {
    int status = 0;
    std::string out;
    std::string err;
    std::vector<FakeCall> changes;  // of the store and of the boot attribute
    bool reaches_card = false;
};

std::string usage() {
    static const std::string text = [] {
        std::string read;
        require(read_file(USAGE_TEXT, read), USAGE_TEXT);
        return read.replace(read.find("%s"), 2, program);
    }();
    return text;
}

std::string config_name(int config) {
    return config == 0 ? "'DISABLED'" : config == 1 ? "'ENABLED'" : "'Unknown'";
}

std::string mode_name(int mode) {
    return mode >= 0 && mode < 4 ? mode_names[static_cast<std::size_t>(mode)] : "'Unknown'";
}

Outcome failed(Outcome outcome, int status, const std::string &complaint) {
    outcome.status = status & 0xff;
    outcome.err += complaint;
    return outcome;
}

Outcome set_config(Outcome outcome, const Store &store, int value) {
    outcome.changes.push_back({"brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config", std::to_string(value)});
    if (store.write_config_rc != 0)
        return failed(outcome, -1, "Setting Auto FPD Upgrade configuration is failed, no config\n");
    outcome.out =
        "Auto FPD Upgrade Config updated from " + config_name(store.config) + " to " + config_name(value) + "\n";
    return outcome;
}

Outcome mode_command(Outcome outcome, const Store &store, const std::string *new_mode) {
    if (store.read_mode_rc != 0)
        return failed(outcome, store.read_mode_rc, "Getting FPD Upgrade Mode failed, no mode\n");
    if (!new_mode) {
        outcome.out = "FPD Upgrade Mode: " + mode_name(store.mode) + "\n";
        return outcome;
    }
    const auto mode = std::find(mode_words.begin(), mode_words.end(), *new_mode) - mode_words.begin();
    outcome.changes.push_back({"brd_intf_fpd_upgrade_cookie_set_upgrade_mode", std::to_string(mode)});
    if (store.write_mode_rc != 0)
        return failed(outcome, store.write_mode_rc, "Setting FPD Upgrade Mode is failed, mode not set\n");
    outcome.out = "FPD Upgrade Mode updated to " + mode_name(store.mode) + "\n";
    return outcome;
}

/// The card of the fake: one FPD, to be upgraded in each of the modes but the manufacturer's.
Outcome card_command(Outcome outcome, const Store &store, const std::string &command) {
    outcome.reaches_card = true;
    if (store.card_fails)
        return failed(
            outcome, -1,
            "Local Card Auto FPD Upgrade Context Init failed err_msg Local Card BRD group get get failed 7\n");
    if (store.read_mode_rc != 0)
        return failed(outcome, -1, "Local Card Auto FPD Upgrade Interface Init failed err_msg no mode\n");
    if (store.mode < 0 || store.mode > 3)
        return failed(outcome, -1,
                      "Local Card Auto FPD Upgrade Interface Init failed err_msg Unknown FPD Upgrade mode " +
                          std::to_string(store.mode) + "\n");
    const bool planned = store.mode != 1;
    if (planned && command == "check_upgrade") {
        outcome.status = 1;
        outcome.out = "FPD available that need to be upgraded\n";
    } else if (planned) {
        outcome.out = "FPD name         Available Version\nIoFpga           2.0.0\n";
    }
    return outcome;
}

Outcome expected(const Options &options, const Store &store) {
    Outcome outcome;
    outcome.err = options.words.complaint;
    const std::string &command = options.words.command;
    if (options.help || options.words.bad || command.empty()) {
        outcome.out = usage();
        outcome.status = options.help ? 0 : 0xff;
        return outcome;
    }
    if (!options.by_hand) outcome.changes.push_back({"brd_sb_attribute_flag_set", "1"});
    if (store.read_config_rc != 0)
        return failed(outcome, -1, "Getting Auto FPD Upgrade configuration is failed, no config\n");
    if (command == "get_config")
        outcome.out = "Auto FPD Upgrade Config is " + config_name(store.config) + "\n";
    else if (command == "set_config")
        return set_config(outcome, store, options.words.value == "enable" ? 1 : 0);
    else if (command == "get_upgrade_mode")
        return mode_command(outcome, store, nullptr);
    else if (command == "set_upgrade_mode")
        return mode_command(outcome, store, &options.words.value);
    else if (store.config == 0)
        outcome.out = "Auto FPD Upgrade is Disabled\n";
    else
        return card_command(outcome, store, command);
    return outcome;
}

// The run ---------------------------------------------------------------------------------------------------------

/// Answers in place of the fake's: a code with a text, or the value.
auto reading(int rc, int value, const char *text) {
    return [=](int *out, char *err_msg, std::size_t err_len) {
        if (rc != 0)
            std::snprintf(err_msg, err_len, "%s", text);
        else
            *out = value;
        return rc;
    };
}

auto writing(int rc, const char *text) {
    return [=](int, char *err_msg, std::size_t err_len) {
        if (rc != 0) std::snprintf(err_msg, err_len, "%s", text);
        return rc;
    };
}

void prepare_card(const Store &store) {
    static const bool prepared = [] {
        write_file("/dev/kd_bootstrap",
                   "PD_CARD_TYPE=12544\nHW_MAJOR_VERSION=1\nHW_MINOR_VERSION=0\nPD_SLOT_NUM=2\nMY_CARD_PID=CARD-36H\n");
        return true;
    }();
    require(prepared, "a card");
    FakePlatform &fake = fake_platform();
    fake.reset();
    fake.cookie_get_auto_upgrade_config = reading(store.read_config_rc, store.config, "no config");
    fake.cookie_set_auto_upgrade_config = writing(store.write_config_rc, "no config");
    fake.cookie_get_upgrade_mode = reading(store.read_mode_rc, store.mode, "no mode");
    fake.cookie_set_upgrade_mode = writing(store.write_mode_rc, "mode not set");
    if (store.card_fails) fake.brd_local_card_group_id_get = [](std::uint32_t *) { return 7; };
}

/// Standard output or error, kept while the front end runs.
struct Captured {
    explicit Captured(std::FILE *&redirected) : stream(redirected), before(redirected) {
        stream = open_memstream(&text, &size);
    }
    ~Captured() {
        end();
        std::free(text);
    }
    std::string_view end() {
        if (stream != before) {
            std::fclose(stream);
            stream = before;
        }
        return {text, size};
    }
    Captured(const Captured &) = delete;
    Captured &operator=(const Captured &) = delete;

    std::FILE *&stream;
    std::FILE *before;
    char *text = nullptr;
    std::size_t size = 0;
};

void run_tool(const std::vector<std::string> &arguments) {
    std::vector<std::vector<char>> copies = {{program, program + std::string_view(program).size() + 1}};
    for (const std::string &argument : arguments)
        copies.emplace_back(argument.c_str(), argument.c_str() + argument.size() + 1);
    static std::vector<char *> argv;
    argv.clear();
    for (std::vector<char> &copy : copies) argv.push_back(copy.data());
    argv.push_back(nullptr);
    optind = 0;  // getopt begins anew
    opterr = 0;  // the words of its own complaints are not the tool's
    running = true;
    if (setjmp(after_exit) == 0) tool_main(static_cast<int>(argv.size()) - 1, argv.data());
    release_card();
}

std::vector<FakeCall> changes_made() {
    std::vector<FakeCall> calls = fake_platform().calls();
    std::erase_if(calls, [](const FakeCall &call) {
        return !call.function.starts_with("brd_intf_fpd_upgrade_cookie_set") &&
               call.function != "brd_sb_attribute_flag_set";
    });
    return calls;
}

Store make_store(Input &input) {
    Store store{};
    store.config = static_cast<int>(input.below(3));
    store.mode = static_cast<int>(input.below(6)) - 1;
    const unsigned failures = input.byte();
    store.read_config_rc = failures & 1 && failures & 0x10 ? 5 : 0;
    store.write_config_rc = failures & 2 ? 6 : 0;
    store.read_mode_rc = failures & 4 ? static_cast<int>(failures) : 0;
    store.write_mode_rc = failures & 8 ? -static_cast<int>(failures) : 0;
    store.card_fails = failures & 0x20;
    return store;
}

}  // namespace

extern "C" {

int __real__Z12context_initPP9LocalCardPcm(LocalCard **card, char *err_msg, std::size_t err_len);
int __wrap__Z12context_initPP9LocalCardPcm(LocalCard **card, char *err_msg, std::size_t err_len) {
    const int rc = __real__Z12context_initPP9LocalCardPcm(card, err_msg, err_len);
    if (rc == 0) card_in_use = *card;
    return rc;
}

int __real__Z14context_deinitPP9LocalCardPcm(LocalCard **card, char *err_msg, std::size_t err_len);
int __wrap__Z14context_deinitPP9LocalCardPcm(LocalCard **card, char *err_msg, std::size_t err_len) {
    card_in_use = nullptr;
    return __real__Z14context_deinitPP9LocalCardPcm(card, err_msg, err_len);
}

[[noreturn]] void __real_exit(int status);
[[noreturn]] void __wrap_exit(int status) {
    if (running) come_back(status);
    __real_exit(status);
}

[[noreturn]] void __real__exit(int status);
[[noreturn]] void __wrap__exit(int status) {
    if (running) come_back(status);
    __real__exit(status);
}

}  // extern "C"

/// The store's answers, and the arguments, each ended by a NUL.
void run_input(std::string_view bytes) {
    Input input{bytes};
    Store store = make_store(input);
    std::vector<std::string> arguments;
    while (!input.empty() && arguments.size() < most_arguments) arguments.emplace_back(input.up_to('\0'));
    const Options options = options_of(arguments);
    // What an upgrade does is another target's.
    store.card_fails = store.card_fails || options.words.command == "upgrade";
    prepare_card(store);
    const Outcome want = expected(options, store);
    Captured out(stdout);
    Captured err(stderr);
    run_tool(arguments);
    const std::string_view err_text = err.end();
    require_equal(out.end(), want.out, "standard output");
    require_equal(err_text, want.err, "standard error");
    require_equal(exit_status, want.status, "the exit status");
    require(changes_made() == want.changes, "what is set in the closed libraries");
    require(fake_platform().calls_of("brd_local_card_group_id_get").empty() != want.reaches_card,
            "whether the card is touched");
}
