#include "model.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <list>
#include <utility>
#include <vector>

namespace properties {
namespace {

// ---- the card between its lives

struct Firmware {
    Version running;
    Version programmed;
    std::optional<Version> falls_back;
    unsigned attempts = 0;
};

struct World {
    std::vector<Firmware> regions;  ///< in the card's order
    std::vector<std::pair<unsigned, unsigned>> leds;
    int auto_upgrade = 0;
    int mode = 0;
    std::optional<std::string> marker;
    unsigned boot = 1;
    bool reset_requested = false;
};

World world_of(const Card &card) {
    World world;
    for (const Fpd &fpd : card.fpds) {
        for (const Region &region : fpd.regions) {
            world.regions.push_back({region.running, region.programmed, std::nullopt, 0});
        }
    }
    for (const Led &led : card.leds) world.leds.emplace_back(led.state, led.color);
    world.auto_upgrade = card.auto_upgrade;
    world.mode = card.upgrade_mode;
    return world;
}

void reload(World &world) {
    for (Firmware &firmware : world.regions) {
        firmware.programmed = firmware.falls_back.value_or(firmware.programmed);
        firmware.falls_back.reset();
        firmware.running = firmware.programmed;
        firmware.attempts = 0;
    }
    ++world.boot;
    world.reset_requested = false;
}

// ---- versions

Version plain(const Version &version) {
    return {0, version.major, version.minor, version.debug};
}

bool is_older(const Version &one, const Version &other) {
    return std::array{one.major, one.minor, one.debug} < std::array{other.major, other.minor, other.debug};
}

bool is_compact(const Version &version) {
    return version.major <= 255 && version.minor <= 65535 && version.debug <= 255;
}

std::string whole_text(const Version &version) {
    return std::to_string(version.major) + "." + std::to_string(version.minor) + "." + std::to_string(version.debug);
}

/// As the tool shows it: ten characters.
std::string shown(const Version &version) {
    if (version.kind >= 255) return "Unknown";
    const std::string text =
        version.kind == 253 ? std::to_string(version.major) + "." + std::to_string(version.minor) : whole_text(version);
    return text.substr(0, 10);
}

std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(width, text.size()), ' ');
    return text;
}

// ---- one run of the tool

/// The run ends before it did what it was asked for.
struct Ended {
    int status;
    std::string err;
};

struct Record {
    std::size_t region = 0;  ///< its place among all regions of the card
    const Fpd *fpd = nullptr;
    const Region *described = nullptr;
    const Image *image = nullptr;
    std::string name;
    unsigned state = 4;
    unsigned seq = 0;
    Record *dependency = nullptr;
    Version running;
    Version programmed;
};

enum State : unsigned {
    capability_received = 4,
    info_failed = 5,
    info_received = 6,
    description_failed = 7,
    described = 8,
    refused = 9,
    dependency_failed = 10,
    available = 11,
    required = 12,
    not_needed = 13,
    queued = 14,
    worker_created = 15,
    started = 16,
    progressing = 17,
    failed = 18,
    done = 19,
};

/// The stages by their numbers.
constexpr unsigned needs_unlocked = 0;
constexpr unsigned unlocks_golden = 1;
constexpr unsigned manufacturing = 2;
constexpr std::array<unsigned, 6> type_of_stage = {1, 2, 1, 0, 3, 4};
constexpr std::array stage_names = {"'Required a Golden Unlocked Primary firmware'",
                                    "'firmware can unlock Golden'",
                                    "'Manufacturing firmware'",
                                    "'Regular firmware'",
                                    "'Dummy Minor verion firmware'",
                                    "'Dummy Major verion firmware'"};

class Run {
  public:
    Run(const Card &card, World &world, Prediction &out) : card_(card), world_(world), out_(out) {}

    int command() {
        try {
            return obey();
        } catch (const Ended &end) {
            err(end.err);
            happened("runs that end early");
            return end.status & 255;
        }
    }
    /// Of the plan, as far as it came.
    const std::string &marker() const { return marker_; }

  private:
    // Saying what happens.
    void happened(const std::string &what, std::uint64_t count = 1) { out_.happenings[what] += count; }
    void say(const std::string &about, const std::string &line) { out_.facts[about].push_back(line); }
    void out(const std::string &text) { append("stdout", text); }
    void err(const std::string &text) { append("stderr", text); }
    void append(const std::string &about, const std::string &text) {
        std::vector<std::string> &lines = out_.facts[about];
        if (lines.empty()) lines.emplace_back();
        lines.front() += text;
    }
    void decide(const std::string &tag) {
        say("decisions", tag);
        happened("decision " + tag);
    }
    void nameless(unsigned from, unsigned to) { say("transitions ", std::to_string(from) + ">" + std::to_string(to)); }
    void become(Record &record, unsigned state) {
        say("transitions " + record.name, std::to_string(record.state) + ">" + std::to_string(state));
        record.state = state;
    }

    /// The code with which this call fails, when it does. Counts the call.
    std::optional<int> fault(const std::string &call) {
        const unsigned nth = ++calls_[call];
        for (std::size_t index = 0; index < card_.faults.size(); ++index) {
            const CallFault &fault = card_.faults[index];
            if (fault.call != call || fault.nth.value_or(nth) != nth || fault.boot.value_or(world_.boot) != world_.boot)
                continue;
            if (in_parallel_ && fault.nth) out_.undecided_faults.insert(index);
            happened("failing calls");
            return static_cast<int>(fault.code);
        }
        return std::nullopt;
    }
    std::string reason(const std::string &call) const {
        CallFault fault;
        fault.call = call;
        return fault_text(fault);
    }

    // The commands.
    int obey();
    int get_mode();
    int set_mode(int mode);
    int set_config(int value);
    int on_the_card();

    // Planning.
    void start_context();
    std::optional<std::size_t> status_led();
    void plan();
    void plan_manufacturing();
    void build(unsigned stage, const std::string &wrap = "");
    void load(unsigned stage);
    void load_region(unsigned stage, const Fpd &fpd, std::size_t index, std::size_t place);
    bool is_skipped(unsigned stage, unsigned capabilities);
    bool read_info(Record &record);
    void evaluate(Record &record, unsigned type);
    void construct(unsigned stage);
    bool first_pass(unsigned stage, Record &record);
    bool resolve(Record &record, bool &waits);
    void refuse_circles();
    bool may_be_upgraded(unsigned stage, Record &record, const std::string &tag);
    void put_into_queue(Record &record, unsigned from_state, const std::string &tag);
    void add_to_marker(const Record &record);
    void clean();
    Record *find(const std::string &name);

    // Upgrading.
    void upgrade();
    bool is_marked() const;
    void led_on();
    void led_off();
    bool shell_works(unsigned nth);
    void event(const std::string &about, const std::string &kind, const std::string &text, unsigned nth = 0);
    void flash(const Record &record, const std::string &text);
    void run_queue(std::vector<Record *> &queue, bool is_first);
    void upgrade_fpd(Record &record, bool is_first_call);
    enum class Attempt { Good, Bad, Silent };
    Attempt attempt(Record &record, const Trouble *&trouble);
    unsigned reports_to(const Record &record, int end);
    void program(const Record &record, bool sticks);
    void finish(Record &record);
    void give_up_on_silence(Record &record, const Trouble &trouble);
    void activate();

    const Card &card_;
    World &world_;
    Prediction &out_;
    std::map<std::string, unsigned> calls_;
    bool in_parallel_ = false;
    std::list<Record> records_;      ///< owns them
    std::list<Record *> unplanned_;  ///< the queue of all FPDs
    std::array<std::vector<Record *>, 16> queues_;
    unsigned planned_ = 0;
    std::string marker_;  ///< of the plan
    std::size_t marker_capacity_ = 0;
    std::optional<std::size_t> led_;  ///< place of the status LED among the card's
    std::pair<unsigned, unsigned> saved_look_;
    bool led_is_on_ = false;
};

// ---- commands

std::string config_name(int value) {
    return value == 1 ? "'ENABLED'" : value == 0 ? "'DISABLED'" : "'Unknown'";
}

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

// ---- planning

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

const std::string interface_failed = "Local Card Auto FPD Upgrade Interface Init failed err_msg ";

void Run::plan() {
    if (fault("brd_intf_fpd_upgrade_cookie_get_upgrade_mode")) {
        throw Ended{255, interface_failed + "Failed to get FPD Upgrade Mode, error " +
                             reason("brd_intf_fpd_upgrade_cookie_get_upgrade_mode") + "\n"};
    }
    happened("plans in mode " + mode_name(world_.mode));
    switch (world_.mode) {
        case 0:
            return build(3);
        case 1:
            return plan_manufacturing();
        case 2:
            return build(4);
        case 3:
            return build(5);
        default:
            throw Ended{255, interface_failed + "Unknown FPD Upgrade mode " + std::to_string(world_.mode) + "\n"};
    }
}

void Run::plan_manufacturing() {
    const auto check = [](unsigned stage) {
        return std::string("FPD Upgrade stage ") + stage_names[stage] + " check failed to build fpd upgrade, error ";
    };
    build(needs_unlocked, check(needs_unlocked));
    if (planned_ == 0) {
        happened("manufacturing: nothing needs an unlocked Golden");
        return build(needs_unlocked);
    }
    clean();
    build(unlocks_golden, check(unlocks_golden));
    if (planned_ > 0) {
        happened("manufacturing: Golden is unlocked");
        return;
    }
    clean();
    happened("manufacturing: nothing unlocks Golden");
    build(manufacturing);
}

void Run::build(unsigned stage, const std::string &wrap) {
    try {
        load(stage);
        construct(stage);
    } catch (const Ended &end) {
        throw Ended{255, interface_failed + wrap + end.err + "\n"};
    }
}

void Run::load(unsigned stage) {
    const std::string failing = "Initializing FPDs failed err_msg ";
    if (fault("brd_group_fpd_num_fpds_get")) {
        throw Ended{255, failing + "Failed to get No. of FPDs for group id " + std::to_string(group)};
    }
    if (card_.fpds.empty()) return happened("loads without an FPD");
    if (fault("brd_group_fpd_obj_id_list_get")) throw Ended{255, failing + "Failed to get FPD object ids"};
    std::size_t place = 0;
    for (const Fpd &fpd : card_.fpds) {
        if (!fault("brd_fpd_num_regions_get")) {
            for (std::size_t index = 0; index < fpd.regions.size(); ++index) {
                load_region(stage, fpd, index, place + index);
            }
        }
        place += fpd.regions.size();
    }
}

void Run::load_region(unsigned stage, const Fpd &fpd, std::size_t index, std::size_t place) {
    nameless(0, 1);
    nameless(1, 2);
    if (fault("brd_fpd_num_regions_get") || fault("brd_fpd_regions_get")) {
        nameless(2, 3);
        return decide("InitFpdGetNameFail");
    }
    const Region &region = fpd.regions[index];
    const std::string name = region.name.substr(0, 63);
    if (std::any_of(unplanned_.begin(), unplanned_.end(), [&](const Record *known) { return known->name == name; })) {
        return decide("InitFpdAddQFail");
    }
    Record &record = records_.emplace_back();
    record.region = place;
    record.fpd = &fpd;
    record.described = &region;
    record.name = name;
    unplanned_.push_back(&record);
    const auto bits = fault("get_fpd_capability_info");
    record.state = 2;
    become(record, capability_received);
    if (is_skipped(stage, bits ? static_cast<unsigned>(*bits) : region.capabilities)) return;
    if (!read_info(record)) {
        decide("InitFpdInfoGetFail");
        return become(record, info_failed);
    }
    become(record, info_received);
    evaluate(record, type_of_stage[stage]);
}

bool Run::is_skipped(unsigned stage, unsigned capabilities) {
    const bool is_set[] = {(capabilities & 0x1) != 0, (capabilities & 0x8) != 0, (capabilities & 0x1000) != 0,
                           (capabilities & 0x800) != 0};
    const char *reason = is_set[0]                               ? "AutoFpdUpgNotSupported"
                         : !card_.backend && !is_set[1]          ? "AutoFpdUpgNotBootUp"
                         : stage == needs_unlocked && !is_set[2] ? "NotAUpgdReqGoldenUnlockPrimary"
                         : stage == unlocks_golden && !is_set[3] ? "NotACanUnlockGolden"
                                                                 : nullptr;
    if (reason != nullptr) decide(std::string("InitFpdSkip") + reason);
    return reason != nullptr;
}

bool Run::read_info(Record &record) {
    if (fault("brd_fpd_info_get")) return false;
    const Firmware &firmware = world_.regions[record.region];
    if (!is_compact(firmware.programmed) || !is_compact(firmware.running)) {
        happened("versions out of the compact range");
        return false;
    }
    record.programmed = firmware.programmed;
    record.running = firmware.running;
    return true;
}

void Run::evaluate(Record &record, unsigned type) {
    const auto code = fault("check_and_get_upgrade_image");
    const auto found = std::find_if(record.described->images.begin(), record.described->images.end(),
                                    [&](const Image &image) { return image.type == type; });
    const bool is_empty_answer = code && (*code & 255) == 0;
    if (!is_empty_answer && (code || found == record.described->images.end())) {
        decide("InitFpdDescFail");
        return become(record, description_failed);
    }
    if (fault("brd_intf_fpd_image_md5_validate") || is_empty_answer || found->wrong_md5) {
        decide("InitFpdMd5SumFailed");
        return become(record, description_failed);
    }
    record.image = &*found;
    if (found->version.kind != 0) happened("packaged versions of another kind");
    become(record, described);
}

Record *Run::find(const std::string &name) {
    const auto is_it = [&](const Record *record) { return record->name == name; };
    const auto found = std::find_if(unplanned_.begin(), unplanned_.end(), is_it);
    if (found != unplanned_.end()) return *found;
    for (const auto &queue : queues_) {
        const auto planned = std::find_if(queue.begin(), queue.end(), is_it);
        if (planned != queue.end()) return *planned;
    }
    return nullptr;
}

void Run::construct(unsigned stage) {
    std::size_t waits = 0;
    for (auto next = unplanned_.begin(); next != unplanned_.end();) {
        const auto here = next++;
        if (first_pass(stage, **here)) {
            waits = 0;
            if ((*here)->state == queued) unplanned_.erase(here);
            continue;
        }
        unplanned_.splice(unplanned_.end(), unplanned_, here);
        const auto waiting = std::count_if(unplanned_.begin(), unplanned_.end(),
                                           [](const Record *record) { return record->state == described; });
        if (++waits > static_cast<std::size_t>(waiting)) {
            refuse_circles();
            break;
        }
    }
    for (auto next = unplanned_.begin(); next != unplanned_.end();) {
        const auto here = next++;
        Record &record = **here;
        if (record.state != required || !may_be_upgraded(stage, record, "BuildQFpdDep")) continue;
        put_into_queue(record, required, "BuildFpdDepAddedSeqQueue");
        if (record.state == queued) unplanned_.erase(here);
    }
}

void Run::refuse_circles() {
    for (Record *record : unplanned_) {
        if (record->state != described) continue;
        decide("BuildQFpdCircularDepend");
        become(*record, dependency_failed);
    }
}

/// False: the record waits for another.
bool Run::first_pass(unsigned stage, Record &record) {
    if (record.state < described) {
        decide("BuildQFpdNotReady");
        return true;
    }
    const Image &image = *record.image;
    if (is_older(record.running, image.minimum)) {
        decide("BuildQRevNotSupportUpgrade");
        become(record, refused);
        return true;
    }
    record.seq = record.described->sequence;
    const bool differs = record.programmed != plain(image.version);
    if (!image.need_upgrade.value_or(differs)) {
        decide(differs ? "BuildQFpdUpgAvailable" : "BuildQFpdUpgNotNeeded");
        become(record, differs ? available : not_needed);
        return true;
    }
    bool waits = false;
    if (!image.depends_on.empty() && !resolve(record, waits)) return !waits;
    if (may_be_upgraded(stage, record, "BuildQFpd")) put_into_queue(record, described, "BuildFpdAddedSeqQueue");
    return true;
}

bool Run::resolve(Record &record, bool &waits) {
    const auto fail = [&](const char *tag) {
        decide(tag);
        become(record, dependency_failed);
        return false;
    };
    Record *dependency = find(record.image->depends_on);
    if (dependency == nullptr) return fail("BuildQFpdDependNotFound");
    record.dependency = dependency;
    if (dependency == &record) return fail("BuildQFpdCircularDepend");
    const unsigned state = dependency->state;
    if (state < described || state == refused || state == dependency_failed || state == failed) {
        return fail("BuildQDependFpdBad");
    }
    if (state == described) {
        waits = true;
        happened("FPDs that wait for another in the plan");
        return false;
    }
    if (state == available) {
        decide("BuildQDepFpdUpgRequired");
        become(*dependency, required);
    }
    happened("dependencies resolved");
    if (record.seq <= dependency->seq) record.seq = dependency->seq + 1;
    return true;
}

bool Run::may_be_upgraded(unsigned stage, Record &record, const std::string &tag) {
    const unsigned type = record.described->upgrade_type;
    if (type == 1) {
        decide(tag + "Upgradeable");
        return true;
    }
    if (type == 5 && stage <= manufacturing) {
        decide(tag + "MfgUpgradeable");
        return true;
    }
    decide(tag + (type == 5 ? "MfgOnlyUpgradeable" : "CantUpgraded"));
    become(record, refused);
    return false;
}

void Run::put_into_queue(Record &record, unsigned from_state, const std::string &tag) {
    if (record.state != from_state) return;
    if (record.seq >= queues_.size()) {
        decide("BuildQFpdSeqOutOfRange");
        return become(record, refused);
    }
    queues_[record.seq].push_back(&record);
    ++planned_;
    become(record, queued);
    say("plan", record.name + " " + std::to_string(record.seq));
    happened("decision " + tag);
    add_to_marker(record);
}

void Run::add_to_marker(const Record &record) {
    const std::string line =
        "FPD: " + padded(record.name, 16) + " | Version: " + padded(shown(record.image->version), 12) + "\n";
    if (marker_capacity_ == 0) {
        marker_capacity_ = 96;
    } else if (marker_capacity_ - marker_.size() < 49) {
        marker_capacity_ += 48;
    }
    marker_ += line;
    if (marker_.size() < marker_capacity_) return;
    happened("markers without room");
    throw Ended{255, "Constructing FPD Upgrade queue failed err_msg Failed to add FPD " + record.name +
                         " into Upgrade Marker, error Out of buffer to add FPD info for " + record.name};
}

void Run::clean() {
    unplanned_.clear();
    for (auto &queue : queues_) queue.clear();
    records_.clear();
    planned_ = 0;
    marker_.clear();
    marker_capacity_ = 0;
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
    const bool fails = trouble->kind == Trouble::Kind::Fail;
    say(upgrades, fails ? std::to_string(trouble->code) : "cancelled");
    return fails ? Attempt::Bad : Attempt::Silent;
}

bool needs_reload(unsigned activation) {
    return activation == 1 || (activation >= 3 && activation <= 6);
}

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

// ---- the lives of a card

/// The marker file before the first run, made from the marker of that run's plan.
std::optional<std::string> marker_before(MarkerBefore kind, const std::string &marker) {
    switch (kind) {
        case MarkerBefore::Same:
            return marker;
        case MarkerBefore::SameAndMore:
            return marker + std::string(1, '\0') + "more";
        case MarkerBefore::Other:
            return marker.empty() ? "FPD: Other            | Version: 1.0.0       \n"
                                  : marker.substr(0, marker.size() - 1);
        case MarkerBefore::Garbage:
            return "100% garbage\n\n" + marker;
        case MarkerBefore::Empty:
            return "";
        case MarkerBefore::None:
            break;
    }
    return std::nullopt;
}

std::string marker_of_first_plan(Card card) {
    card.command = "check_upgrade";
    World world = world_of(card);
    Prediction unused;
    Run run(card, world, unused);
    run.command();
    return run.marker();
}

/// Exit status of the one run, or of the booting of a card.
int live(const Card &card, World &world, Prediction &out) {
    for (unsigned life = 1;; ++life) {
        const int status = Run(card, world, out).command();
        out.seconds += 5;
        if (!card.lives) return status;
        if (!world.reset_requested) return status == 0 ? 0 : 1;
        if (life == max_boots) return 3;
        ++out.happenings["boots after a reload"];
        reload(world);
    }
}

void describe_the_end(const World &world, Prediction &out) {
    for (const Firmware &firmware : world.regions) {
        out.facts["versions"].push_back(whole_text(firmware.running) + " " + whole_text(firmware.programmed));
    }
    for (const auto &[state, color] : world.leds) {
        out.facts["leds"].push_back(std::to_string(state) + " " + std::to_string(color));
    }
    out.facts["settings"].push_back(std::to_string(world.auto_upgrade) + " " + std::to_string(world.mode));
    if (world.marker) out.facts["marker"].push_back(*world.marker);
}

}  // namespace

Prediction predict(const Card &card) {
    World world = world_of(card);
    Prediction out;
    out.marker_before = marker_before(card.marker, marker_of_first_plan(card));
    if (out.marker_before) ++out.happenings["marker files before the first run"];
    world.marker = out.marker_before;
    const int status = live(card, world, out);
    out.facts["status"].push_back(std::to_string(status));
    ++out.happenings[card.lives ? "cards that are booted until they are up" : "cards that run once"];
    describe_the_end(world, out);
    return out;
}

}  // namespace properties
