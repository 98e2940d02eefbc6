#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "card_place.h"
#include "check_libraries.h"
#include "compare.h"
#include "file_text.h"
#include "plan.h"
#include "power.h"
#include "printable.h"
#include "show.h"
#include "template.h"
#include "text_table.h"

namespace {

constexpr int broken_card = 2;
constexpr int no_power = 125;  // as other commands that run a command for somebody

struct Options {
    std::filesystem::path card;
    std::filesystem::path state;
    std::filesystem::path new_directory;
    cardsim::Power power;
    uint32_t max_boots = 5;
    bool strict = false;
    bool json = false;
    bool no_table = false;
    bool plain = false;
    bool rehearse = false;
    std::filesystem::path compared[2];
    std::vector<std::string> command;
    cardsim::LibraryCheck libraries;
    int (*run)(const Options &) = nullptr;  ///< the chosen command: its exit status
};

/// A command that is what `run` does when it is chosen.
CLI::App &add_command(CLI::App &app, Options &options, const char *name, const char *description,
                      int (*run)(const Options &)) {
    CLI::App *command = app.add_subcommand(name, description);
    command->callback([&options, run] { options.run = run; });
    return *command;
}

void add_card(CLI::App &command, Options &options) {
    command.add_option("CARD", options.card, "directory with a card.toml, or a .toml file")->required();
    command
        .add_option("--state", options.state, "directory of the card's state (default: state/ beside its description)")
        ->type_name("DIR");
}

void add_speed(CLI::App &command, cardsim::Power &power) {
    command.add_option("--speed", power.speed, "divides the times of the card and of the upgrade tool")
        ->check(CLI::Range(uint32_t{1}, cardsim::max_speed))
        ->type_name("N");
}

void add_power(CLI::App &command, cardsim::Power &power) {
    add_speed(command, power);
    command
        .add_option("--env", power.environment,
                    "sets a variable on the card, or hands on that of the caller; repeatable")
        ->check(
            [](const std::string &given) { return std::string(given.find('=') == 0 ? "no name before the '='" : ""); })
        ->allow_extra_args(false)
        ->type_name("NAME[=VALUE]");
    command.add_flag("--network", power.host_network, "gives the card the host's network and its /run");
}

/// Writes an answer to standard output, after what was printed before. Throws Error: whoever asked must not take a lost
/// answer for an empty one.
void answer(const std::string &text) {
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
        throw cardsim::system_error("standard output: cannot be written", errno);
    }
}

int show(const Options &options) {
    const cardsim::CardPlace place = cardsim::find_card(options.card, options.state);
    const cardsim::CardState state = cardsim::has_state(place)
                                         ? cardsim::load_state(cardsim::StateDirectory(place.state), place.description)
                                         : cardsim::initial_state(place.description);
    answer(cardsim::card_table(place.description, state, cardsim::columns_of(STDOUT_FILENO)));
    return 0;
}

/// Keeps standard output for a document: what else is written there meanwhile, by the card as well, goes to standard
/// error.
class StandardOutputKept {
  public:
    StandardOutputKept() : document_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
        std::fflush(stdout);
        if (!document_.is_open() || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
            throw cardsim::system_error("standard output", errno);
        }
    }
    void write(const std::string &document) const { cardsim::write_all(document_, "standard output", document); }

  private:
    cardsim::Descriptor document_;
};

int boot(const Options &options) {
    const cardsim::CardPlace place = cardsim::find_card(options.card, options.state);
    std::optional<StandardOutputKept> output;
    if (options.json) output.emplace();
    cardsim::Power power = options.power;
    power.live = !options.plain && !options.json;
    cardsim::Life life = cardsim::boot_card(place, power, options.max_boots);
    const bool is_left_due = options.strict && life.status == cardsim::boot_is_up && cardsim::is_anything_due(life);
    if (is_left_due) life.status = cardsim::boot_left_due;
    if (!options.no_table) {
        answer(cardsim::life_text(life, cardsim::columns_of(STDOUT_FILENO)));
    } else {
        answer(is_left_due ? cardsim::verdict(life) + "\n" : "");
    }
    if (output) output->write(cardsim::life_json(life));
    return life.status;
}

int plan(const Options &options) {
    const cardsim::CardPlace place = cardsim::find_card(options.card, options.state);
    const cardsim::Plan plan = cardsim::plan_boot(place, options.power, options.rehearse);
    const std::string text =
        options.json ? cardsim::plan_json(plan) : cardsim::plan_text(plan, cardsim::columns_of(STDOUT_FILENO));
    answer(text);
    const bool is_interrupted = plan.status > 128 && plan.status <= 128 + SIGRTMAX;
    return plan.status == 0 ? 0 : is_interrupted ? plan.status : 1;
}

/// Tells what went wrong: about a card that names its file by itself, about the rest after this program's name.
int complain(const std::exception &reason) {
    const auto *const error = dynamic_cast<const cardsim::Error *>(&reason);
    const bool is_card_broken = error != nullptr && error->code == 0;
    std::fflush(stdout);
    std::fprintf(stderr, "%s%s\n", is_card_broken ? "" : "cardsim: ", cardsim::printable(reason.what()).c_str());
    return is_card_broken ? broken_card : no_power;
}

int compare(const Options &options) {
    try {
        const std::string text =
            cardsim::differences(options.compared[0], options.compared[1], cardsim::columns_of(STDOUT_FILENO));
        answer(text);
        return text.empty() ? 0 : 1;
    } catch (const std::exception &reason) {
        complain(reason);
        return broken_card;
    }
}

int exec(const Options &options) {
    return cardsim::exec_on_card(cardsim::find_card(options.card, options.state), options.power, options.command);
}

int power_on(const Options &options) {
    cardsim::power_on_machine(cardsim::find_card(options.card, options.state), options.power.speed);
    return 0;
}

int make_card(const Options &options) {
    cardsim::make_card(options.new_directory);
    return 0;
}

int check_libraries(const Options &options) {
    const int status = cardsim::check_libraries(options.libraries);
    answer("");  // the tables are printed
    return status;
}

void add_boot(CLI::App &app, Options &options) {
    CLI::App &command =
        add_command(app, options, "boot", "power the card on, reload it as often as it asks for it", boot);
    add_card(command, options);
    add_power(command, options.power);
    command.add_option("--max-boots", options.max_boots, "give up after so many boots")
        ->check(CLI::Range(uint32_t{1}, UINT32_MAX))
        ->type_name("N")
        ->capture_default_str();
    command.add_flag("--strict", options.strict,
                     "end with status 5 when the card is up and does not run all that is packaged for it");
    command.add_flag("--json", options.json,
                     "the account of the boots as a document on standard output, the rest on error");
    command.add_flag("--plain", options.plain, "lines instead of the live view, on a terminal as well");
    command.add_flag("--no-table", options.no_table, "no account of the boots for people at the end");
}

void add_plan(CLI::App &app, Options &options) {
    CLI::App &command =
        add_command(app, options, "plan", "what the next boot would upgrade, in which order, and why not", plan);
    add_card(command, options);
    add_power(command, options.power);
    command.add_flag("--json", options.json, "the plan as a document");
    command.add_flag("--rehearse", options.rehearse, "boot a copy, and tell what went wrong there");
}

void add_compare(CLI::App &app, Options &options) {
    CLI::App &command =
        add_command(app, options, "compare", "what differs between two cards' states after their runs", compare);
    command.add_option("STATE", options.compared[0], "a state directory")->required();
    command.add_option("OTHER", options.compared[1], "another one")->required();
}

void add_exec(CLI::App &app, Options &options) {
    CLI::App &command =
        add_command(app, options, "exec", "run a command on the card: cardsim exec CARD -- COMMAND...", exec);
    add_card(command, options);
    add_power(command, options.power);
    command.add_option("COMMAND", options.command, "the command and its arguments")->required();
}

void add_power_on(CLI::App &app, Options &options) {
    CLI::App &command =
        add_command(app, options, "power-on", "power on a card that this machine plays without a sandbox", power_on);
    add_card(command, options);
    add_speed(command, options.power);
}

void add_check_libraries(CLI::App &app, Options &options) {
    CLI::App &command = add_command(app, options, "check-libraries",
                                    "call every function of closed libraries, on a powered card", check_libraries);
    cardsim::LibraryCheck &check = options.libraries;
    command.add_option("LIB", check.libraries, "shared libraries, in the order in which the loader searches them");
    command.add_option("--upgrade", check.upgrade, "really program the region of this name")->type_name("REGION");
    command.add_option("--group", check.groups, "what the card's group id may be; repeatable")
        ->allow_extra_args(false)
        ->type_name("N");
    command.add_option("--limit", check.limit, "seconds that one call may take")
        ->check(CLI::Range(0.001, 86400.0))
        ->type_name("SECONDS")
        ->capture_default_str();
    command.add_option("--inside", check.inside)->group("");  // of the processes that this command starts
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"A simulated line card: boots it, runs commands on it, shows it."};
    app.require_subcommand(1);
    app.set_version_flag("--version", "cardsim " CARDSIM_VERSION);
    Options options;
    add_boot(app, options);
    add_plan(app, options);
    add_compare(app, options);
    add_exec(app, options);
    add_power_on(app, options);
    add_card(add_command(app, options, "show", "show the card's regions, their versions and its LEDs", show), options);
    add_command(app, options, "new", "make the directory of a new card from a template", make_card)
        .add_option("DIR", options.new_directory, "absent or empty")
        ->required();
    add_check_libraries(app, options);
    CLI11_PARSE(app, argc, argv);
    try {
        return options.run(options);
    } catch (const std::exception &reason) {
        return complain(reason);
    }
}
