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
};

void add_card(CLI::App &command, Options &options) {
    command.add_option("CARD", options.card, "directory with a card.toml, or a .toml file")->required();
    command
        .add_option("--state", options.state, "directory of the card's state (default: state/ beside its description)")
        ->type_name("DIR");
}

void add_speed(CLI::App &command, cardsim::Power &power) {
    command.add_option("--speed", power.speed, "divides the times of the card and of the upgrade tool")
        ->check(CLI::Range(uint32_t{1}, UINT32_MAX))
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

CLI::App *add_check_libraries(CLI::App &app, cardsim::LibraryCheck &check) {
    CLI::App *command =
        app.add_subcommand("check-libraries", "call every function of closed libraries, on a powered card");
    command->add_option("LIB", check.libraries, "shared libraries, in the order in which the loader searches them");
    command->add_option("--upgrade", check.upgrade, "really program the region of this name")->type_name("REGION");
    command->add_option("--group", check.groups, "what the card's group id may be; repeatable")
        ->allow_extra_args(false)
        ->type_name("N");
    command->add_option("--limit", check.limit, "seconds that one call may take")
        ->check(CLI::Range(0.001, 86400.0))
        ->type_name("SECONDS")
        ->capture_default_str();
    command->add_option("--inside", check.inside)->group("");  // of the processes that this command starts
    return command;
}

void show(const Options &options) {
    const cardsim::CardPlace place = cardsim::find_card(options.card, options.state);
    const cardsim::CardState state = cardsim::has_state(place)
                                         ? cardsim::load_state(cardsim::StateDirectory(place.state), place.description)
                                         : cardsim::initial_state(place.description);
    std::fputs(cardsim::card_table(place.description, state, cardsim::columns_of(STDOUT_FILENO)).c_str(), stdout);
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
        std::fputs(cardsim::life_text(life, cardsim::columns_of(STDOUT_FILENO)).c_str(), stdout);
    }
    if (output) output->write(cardsim::life_json(life));
    return life.status;
}

int plan(const Options &options) {
    const cardsim::CardPlace place = cardsim::find_card(options.card, options.state);
    const cardsim::Plan plan = cardsim::plan_boot(place, options.power, options.rehearse);
    const std::string text =
        options.json ? cardsim::plan_json(plan) : cardsim::plan_text(plan, cardsim::columns_of(STDOUT_FILENO));
    std::fputs(text.c_str(), stdout);
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
        std::fputs(text.c_str(), stdout);
        return text.empty() ? 0 : 1;
    } catch (const std::exception &reason) {
        complain(reason);
        return broken_card;
    }
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"A simulated line card: boots it, runs commands on it, shows it."};
    app.require_subcommand(1);
    app.set_version_flag("--version", "cardsim " CARDSIM_VERSION);
    Options options;

    CLI::App *boot = app.add_subcommand("boot", "power the card on, reload it as often as it asks for it");
    add_card(*boot, options);
    add_power(*boot, options.power);
    boot->add_option("--max-boots", options.max_boots, "give up after so many boots")
        ->check(CLI::Range(uint32_t{1}, UINT32_MAX))
        ->type_name("N")
        ->capture_default_str();
    boot->add_flag("--strict", options.strict,
                   "end with status 5 when the card is up and does not run all that is packaged for it");
    boot->add_flag("--json", options.json,
                   "the account of the boots as a document on standard output, the rest on error");
    boot->add_flag("--plain", options.plain, "lines instead of the live view, on a terminal as well");
    boot->add_flag("--no-table", options.no_table, "no account of the boots for people at the end");

    CLI::App *plan_command =
        app.add_subcommand("plan", "what the next boot would upgrade, in which order, and why not");
    add_card(*plan_command, options);
    add_power(*plan_command, options.power);
    plan_command->add_flag("--json", options.json, "the plan as a document");
    plan_command->add_flag("--rehearse", options.rehearse, "boot a copy, and tell what went wrong there");

    CLI::App *compare_command =
        app.add_subcommand("compare", "what differs between two cards' states after their runs");
    compare_command->add_option("A", options.compared[0], "a state directory")->required();
    compare_command->add_option("B", options.compared[1], "another one")->required();

    CLI::App *exec = app.add_subcommand("exec", "run a command on the card: cardsim exec CARD -- COMMAND...");
    add_card(*exec, options);
    add_power(*exec, options.power);
    exec->add_option("COMMAND", options.command, "the command and its arguments")->required();

    CLI::App *power_on = app.add_subcommand("power-on", "power on a card that this machine plays without a sandbox");
    add_card(*power_on, options);
    add_speed(*power_on, options.power);

    CLI::App *show_command = app.add_subcommand("show", "show the card's regions, their versions and its LEDs");
    add_card(*show_command, options);

    CLI::App *new_command = app.add_subcommand("new", "make the directory of a new card from a template");
    new_command->add_option("DIR", options.new_directory, "absent or empty")->required();

    CLI::App *check_libraries = add_check_libraries(app, options.libraries);

    CLI11_PARSE(app, argc, argv);

    try {
        if (boot->parsed()) return ::boot(options);
        if (plan_command->parsed()) return plan(options);
        if (compare_command->parsed()) return compare(options);
        if (exec->parsed()) {
            const cardsim::CardPlace place = cardsim::find_card(options.card, options.state);
            return cardsim::exec_on_card(place, options.power, options.command);
        }
        if (power_on->parsed()) {
            cardsim::power_on_machine(cardsim::find_card(options.card, options.state), options.power.speed);
        }
        if (show_command->parsed()) show(options);
        if (check_libraries->parsed()) return cardsim::check_libraries(options.libraries);
        if (new_command->parsed()) cardsim::make_card(options.new_directory);
        return 0;
    } catch (const std::exception &reason) {
        return complain(reason);
    }
}
