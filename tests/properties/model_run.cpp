#include "model_run.h"

#include <strings.h>

#include <algorithm>

namespace properties {

std::string shown(const Version &version) {
    return version.kind >= 255 ? "Unknown" : version_text(version).substr(0, 10);
}

Version plain(const Version &version) {
    return {0, version.major, version.minor, version.debug};
}

std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(width, text.size()), ' ');
    return text;
}

// ---- commands

namespace {

std::string config_name(int value) {
    return value == 1 ? "'ENABLED'" : value == 0 ? "'DISABLED'" : "'Unknown'";
}

}  // namespace

std::string mode_name(int mode) {
    constexpr std::array names = {"'Regular'", "'Manufacturing'", "'Dummy Minor Version'", "'Dummy Major Version'"};
    return mode >= 0 && mode < 4 ? names[static_cast<std::size_t>(mode)] : "'Unknown'";
}

int Run::obey() {
    happened("runs of " + card_.command);
    happened(card_.backend ? "back-end runs" : "boot-time runs");
    if (!card_.backend) {
        fault("brd_sb_attribute_flag_set");
        say("flags", "1");
    }
    if (fault("brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config")) {
        throw Ended{255, "Getting Auto FPD Upgrade configuration is failed, " +
                             reason("brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config") + "\n"};
    }
    if (card_.command == "get_config") {
        out("Auto FPD Upgrade Config is " + config_name(world_.auto_upgrade) + "\n");
        return 0;
    }
    if (card_.command == "set_config=enable") return set_config(1);
    if (card_.command == "set_config=disable") return set_config(0);
    if (card_.command == "get_upgrade_mode") return get_mode();
    if (card_.command == "set_upgrade_mode=mfg") return set_mode(1);
    if (world_.auto_upgrade == 0) {
        out("Auto FPD Upgrade is Disabled\n");
        happened("runs with auto-upgrade disabled");
        return 0;
    }
    return on_the_card();
}

int Run::set_config(int value) {
    if (fault("brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config")) {
        throw Ended{255, "Setting Auto FPD Upgrade configuration is failed, " +
                             reason("brd_intf_fpd_upgrade_cookie_set_auto_upgrade_config") + "\n"};
    }
    out("Auto FPD Upgrade Config updated from " + config_name(world_.auto_upgrade) + " to " + config_name(value) +
        "\n");
    world_.auto_upgrade = value;
    return 0;
}

int Run::get_mode() {
    if (const auto code = fault("brd_intf_fpd_upgrade_cookie_get_upgrade_mode")) {
        throw Ended{
            *code, "Getting FPD Upgrade Mode failed, " + reason("brd_intf_fpd_upgrade_cookie_get_upgrade_mode") + "\n"};
    }
    if (card_.command == "get_upgrade_mode") out("FPD Upgrade Mode: " + mode_name(world_.mode) + "\n");
    return 0;
}

int Run::set_mode(int mode) {
    get_mode();
    if (const auto code = fault("brd_intf_fpd_upgrade_cookie_set_upgrade_mode")) {
        throw Ended{*code, "Setting FPD Upgrade Mode is failed, " +
                               reason("brd_intf_fpd_upgrade_cookie_set_upgrade_mode") + "\n"};
    }
    out("FPD Upgrade Mode updated to " + mode_name(world_.mode) + "\n");
    world_.mode = mode;
    return 0;
}

int Run::on_the_card() {
    start_context();
    plan();
    happened("planned FPDs", planned_);
    if (planned_ > 0) happened("plans");
    if (planned_ == 0) happened("empty plans");
    if (card_.command == "check_upgrade") {
        if (planned_ > 0) out("FPD available that need to be upgraded\n");
        return planned_ > 0 ? 1 : 0;
    }
    if (card_.command == "list_upgrade") {
        if (planned_ > 0) out("FPD name         Available Version\n");
        for (const auto &queue : queues_) {
            for (const Record *record : queue) {
                out(padded(record->name, 16) + " " + shown(record->image->version) + "\n");
            }
        }
        return 0;
    }
    upgrade();
    out("Auto FPD Upgrade done\n");
    return 0;
}

// ---- the card's context

void Run::start_context() {
    const auto end = [](const std::string &text) {
        return Ended{255, "Local Card Auto FPD Upgrade Context Init failed err_msg " + text + "\n"};
    };
    const auto registered = fault("brd_fru_hw_data_init");
    const bool is_registered = !registered || *registered == 0x10000408;
    if (!is_registered || fault("brd_fru_hw_init")) throw end("BRD init failed rc -38");
    if (const auto code = fault("brd_local_card_group_id_get")) {
        throw end("Local Card BRD group get get failed " + std::to_string(*code));
    }
    if (card_.hw_major > 255) throw end("Local Card Failed to make fpd_version for HW major 0x12c minor ox2");
    fault("brd_group_led_init");
    led_ = status_led();
    if (!led_) throw end("Local Card BRD group get get failed 0");
}

std::optional<std::size_t> Run::status_led() {
    if (fault("brd_group_led_num_leds_get") || fault("brd_group_led_obj_id_list_get")) return std::nullopt;
    for (std::size_t place = 0; place < card_.leds.size(); ++place) {
        const Led &led = card_.leds[place];
        if (fault("brd_led_type_get")) return std::nullopt;
        if (led.type != 1) continue;
        if (fault("brd_led_name_get")) return std::nullopt;
        if (strcasecmp(led.name.c_str(), "Status") != 0) continue;
        return led.id == 0 ? std::nullopt : std::optional(place);
    }
    return std::nullopt;
}

// ---- upgrading

bool Run::is_marked() const {
    if (!world_.marker || world_.marker->empty()) return false;
    return world_.marker->substr(0, world_.marker->find('\0')) == marker_;
}

void Run::upgrade() {
    if (planned_ == 0) {
        world_.marker.reset();
        return;
    }
    if (is_marked()) return happened("runs that the marker skips");
    world_.marker.reset();
    happened("upgrade runs");
    event("card", "started", "Auto FPD Upgrade Operation Started", 1);
    led_on();
    bool is_first = true;
    for (auto &queue : queues_) {
        if (!queue.empty()) run_queue(queue, std::exchange(is_first, false));
    }
    say("ends of the loop", "1");
    if (shell_works(0)) out_.facts["watchdog"] = {"punched"};
    event("card", "ended", "Auto FPD Upgrade Operation Ended");
    led_off();
    out_.seconds += card_.mount_time + 10;
    if (!card_.backend) activate();
}

void Run::led_on() {
    saved_look_ = {0, 0};
    const auto [state, color] = world_.leds[*led_];
    if (!fault("brd_led_current_color_get") && !fault("brd_led_current_state_get")) {
        saved_look_ = {state <= 3 ? state : 0, color <= 5 ? color : 0};
    }
    led_is_on_ = !fault("brd_led_state_and_color_set");
    if (led_is_on_) world_.leds[*led_] = {3, 2};
}

void Run::led_off() {
    if (led_is_on_ && !fault("brd_led_state_and_color_set")) world_.leds[*led_] = saved_look_;
}

/// Whether the tool's n-th shell command is run; 0: one of the later ones, which fail together or not at all.
bool Run::shell_works(unsigned nth) {
    return std::none_of(card_.faults.begin(), card_.faults.end(), [&](const CallFault &fault) {
        return fault.call == "exec_shell_command" && fault.boot.value_or(world_.boot) == world_.boot &&
               fault.nth.value_or(nth) == nth;
    });
}

void Run::event(const std::string &about, const std::string &kind, const std::string &text, unsigned nth) {
    if (shell_works(nth)) say("events " + about, kind + ": " + text);
}

void Run::flash(const Record &record, const std::string &text) {
    const bool is_kept = card_.flash_mounted || !card_.mount_fails;
    const bool is_on_flash = is_kept && shell_works(0);
    say((is_on_flash ? "flash " : "temporary log ") + record.name, "FPD '" + record.name + "' " + text);
}

void Run::run_queue(std::vector<Record *> &queue, bool is_first) {
    happened("sequence queues run");
    if (queue.size() > 1) happened("sequence queues of several FPDs");
    in_parallel_ = queue.size() > 1;
    double longest = 0;
    for (Record *record : queue) {
        const double before = out_.seconds;
        upgrade_fpd(*record, is_first && record == queue.front());
        longest = std::max(longest, out_.seconds - before);
        out_.seconds = before;
        out_.seconds += record->state == refused ? 7 : 0;
    }
    out_.seconds += longest + 7;
    in_parallel_ = false;
}

void Run::upgrade_fpd(Record &record, bool is_first_call) {
    if (record.dependency != nullptr && record.dependency->state != not_needed && record.dependency->state != done) {
        happened("FPDs refused for what they depend on");
        return become(record, refused);
    }
    for (const bool is_retry : {false, true}) {
        become(record, worker_created);
        event(record.name, "warning",
              std::string("Auto FPD Upgrade ") + (is_retry ? "retrying" : "started") + " for '" + record.name + "'",
              is_first_call && !is_retry ? 2 : 0);
        flash(record, std::string(is_retry ? "Retry" : "Start") + " upgrading to version " +
                          shown(record.image->version) + " Run version " + shown(record.running) +
                          " Programmed version " + shown(record.programmed));
        become(record, started);
        flash(record, "Started to upgrade version " + shown(record.image->version));
        out_.seconds += record.described->duration + 14;
        const Trouble *trouble = nullptr;
        const Attempt end = attempt(record, trouble);
        happened(is_retry ? "retries" : "first attempts");
        if (end == Attempt::Good) return finish(record);
        if (end == Attempt::Silent) {
            give_up_on_silence(record, *trouble);
        } else {
            happened("failures");
            event(record.name, "error", "Auto FPD Upgrade failed for '" + record.name + "'");
            flash(record, "Failed to upgrade version " + shown(record.image->version));
        }
        become(record, !is_retry ? queued : end == Attempt::Silent ? refused : failed);
    }
    happened("FPDs given up");
}

unsigned Run::reports_to(const Record &record, int end) {
    const unsigned reports = record.described->reports;
    unsigned count = end >= 0 && reports > 0 ? 1 : 0;
    for (unsigned step = 1; step <= reports; ++step) {
        if (static_cast<int>(step * 100 / reports) < end) ++count;
    }
    return count;
}

Run::Attempt Run::attempt(Record &record, const Trouble *&trouble) {
    const std::string upgrades = "upgrades " + record.name;
    say(upgrades, "begin");
    if (const auto code = fault("brd_fpd_upgrade")) {
        say(upgrades, std::to_string(*code));
        return Attempt::Bad;
    }
    const unsigned number = ++world_.regions[record.region].attempts;
    bool sticks = true;
    for (const Trouble &possible : record.described->troubles) {
        if (possible.attempt.value_or(number) != number) continue;
        if (possible.kind == Trouble::Kind::DoesNotStick) {
            sticks = false;
        } else if (trouble == nullptr) {
            trouble = &possible;
        }
    }
    const unsigned reports = reports_to(record, trouble == nullptr ? 100 : trouble->at);
    for (unsigned report = 0; report < reports; ++report) become(record, progressing);
    if (trouble == nullptr) {
        program(record, sticks);
        say(upgrades, "0");
        return Attempt::Good;
    }
    if (trouble->kind == Trouble::Kind::Hang) return Attempt::Silent;
    say(upgrades, std::to_string(trouble->code));
    return Attempt::Bad;
}

namespace {

bool needs_reload(unsigned activation) {
    return activation == 1 || (activation >= 3 && activation <= 6);
}

}  // namespace

void Run::program(const Record &record, bool sticks) {
    Firmware &firmware = world_.regions[record.region];
    const Version earlier = firmware.falls_back.value_or(firmware.programmed);
    firmware.falls_back = sticks ? std::nullopt : std::optional(earlier);
    firmware.programmed = plain(record.image->version);
    if (!needs_reload(record.described->activation)) firmware.running = firmware.programmed;
    if (!sticks) happened("firmware that does not stick");
}

void Run::finish(Record &record) {
    become(record, done);
    happened("upgraded FPDs");
    event(record.name, "warning", "Auto FPD Upgrade completed for '" + record.name + "'");
    read_info(record);
    flash(record, "Upgraded to version " + shown(record.programmed));
}

void Run::give_up_on_silence(Record &record, const Trouble &trouble) {
    const bool reported = record.state == progressing;
    const std::string percent = std::to_string(std::max(trouble.at, 0));
    const std::string progress = reported ? "progressing " + percent : "started";
    ++out_.time_outs[reported ? "ChkFpdUpgProgressingMaxTransTimeOut" : "ChkFpdUpgStartedMaxTransTimeOut"];
    happened(reported ? "hangs half-way" : "hangs at the start");
    out_.seconds += reported ? 180 : 60;
    event(record.name, "error",
          "Auto FPD Upgrade worker " + std::string(reported ? "stuck " + progress : "started stuck") +
              " forever and killing for '" + record.name + "'");
    flash(record, "Canceling the upgrade to version " + shown(record.image->version) + " since " +
                      (reported ? "no progress made after " + percent + "% " : "worked not started ") +
                      "within stipulated time");
}

void Run::activate() {
    unsigned reload_type = 0;
    for (const Record &record : records_) {
        if (record.state != done) continue;
        const unsigned kind = record.described->activation;
        const unsigned asks_for = kind == 5 ? 1 : needs_reload(kind) ? 2 : 0;
        reload_type = std::max(reload_type, asks_for);
    }
    if (reload_type == 0) return happened("upgrades that need no reload");
    world_.marker = marker_;
    if (!shell_works(0)) return;
    say("scripts", "/usr/sbin/grub-reboot 'KALDOR-latest'");
    if (card_.grub_status != 0) return happened("failing grub-reboot");
    fault("brd_sb_attribute_flag_set");
    say("flags", "2");
    say("scripts", std::string("/usr/local/etc/reset_board.sh ") + (reload_type == 2 ? "'-a' " : "") +
                       "'-r' 'Auto FPD Upgrade activation' '-b' '36'");
    world_.reset_requested = card_.reset_status == 0;
    happened(reload_type == 2 ? "reloads with -a" : "reloads");
}

}  // namespace properties
