#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "card_place.h"
#include "power.h"
#include "printable.h"
#include "show.h"
#include "template.h"

namespace {

constexpr int broken_card = 2;
constexpr int no_power = 125;  // as other commands that run a command for somebody

struct Options {
    std::filesystem::path card;
    std::filesystem::path state;
    std::filesystem::path new_directory;
    cardsim::Power power;
    uint32_t max_boots = 5;
    std::vector<std::string> command;
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

void show(const Options &options) {
    const cardsim::CardPlace place = cardsim::find_card(options.card, options.state);
    const cardsim::CardState state = cardsim::has_state(place)
                                         ? cardsim::load_state(cardsim::StateDirectory(place.state), place.description)
                                         : cardsim::initial_state(place.description);
    std::fputs(cardsim::card_table(place.description, state).c_str(), stdout);
}

/// Tells what went wrong: about a card that names its file by itself, about the rest after this program's name.
int complain(const std::exception &reason) {
    const auto *const error = dynamic_cast<const cardsim::Error *>(&reason);
    const bool is_card_broken = error != nullptr && error->code == 0;
    std::fflush(stdout);
    std::fprintf(stderr, "%s%s\n", is_card_broken ? "" : "cardsim: ", cardsim::printable(reason.what()).c_str());
    return is_card_broken ? broken_card : no_power;
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

    CLI11_PARSE(app, argc, argv);

    try {
        if (boot->parsed()) {
            const cardsim::CardPlace place = cardsim::find_card(options.card, options.state);
            return cardsim::boot_card(place, options.power, options.max_boots);
        }
        if (exec->parsed()) {
            const cardsim::CardPlace place = cardsim::find_card(options.card, options.state);
            return cardsim::exec_on_card(place, options.power, options.command);
        }
        if (power_on->parsed()) {
            cardsim::power_on_machine(cardsim::find_card(options.card, options.state), options.power.speed);
        }
        if (show_command->parsed()) show(options);
        if (new_command->parsed()) cardsim::make_card(options.new_directory);
        return 0;
    } catch (const std::exception &reason) {
        return complain(reason);
    }
}
