#include "model_run.h"

#include <algorithm>

namespace properties {
namespace {

/// The stages by their numbers.
constexpr unsigned needs_unlocked = 0;
constexpr unsigned unlocks_golden = 1;
constexpr unsigned manufacturing = 2;
constexpr std::array<unsigned, 6> type_of_stage = {1, 2, 1, 0, 3, 4};

bool is_older(const Version &one, const Version &other) {
    return std::array{one.major, one.minor, one.debug} < std::array{other.major, other.minor, other.debug};
}

bool is_compact(const Version &version) {
    return version.major <= 255 && version.minor <= 65535 && version.debug <= 255;
}

}  // namespace

const std::string interface_failed = "Local Card Auto FPD Upgrade Interface Init failed err_msg ";

void Run::plan() {
    if (fault("brd_intf_fpd_upgrade_cookie_get_upgrade_mode")) {
        throw Ended{255, interface_failed + reason("brd_intf_fpd_upgrade_cookie_get_upgrade_mode") + "\n"};
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
    build(needs_unlocked);
    if (planned_ == 0) {
        happened("manufacturing: nothing needs an unlocked Golden");
        return build(needs_unlocked);
    }
    clean();
    build(unlocks_golden);
    if (planned_ > 0) {
        happened("manufacturing: Golden is unlocked");
        return;
    }
    clean();
    happened("manufacturing: nothing unlocks Golden");
    build(manufacturing);
}

void Run::build(unsigned stage) {
    try {
        load(stage);
        construct(stage);
    } catch (const Ended &end) {
        throw Ended{255, interface_failed + end.err + "\n"};
    }
}

void Run::load(unsigned stage) {
    if (fault("brd_group_fpd_num_fpds_get")) {
        throw Ended{255, "Failed to get No. of FPDs for group id " + std::to_string(group)};
    }
    if (card_.fpds.empty()) return happened("loads without an FPD");
    if (fault("brd_group_fpd_obj_id_list_get")) throw Ended{255, "Failed to get FPD object ids"};
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
    throw Ended{255, "Out of buffer to add FPD info for " + record.name};
}

void Run::clean() {
    unplanned_.clear();
    for (auto &queue : queues_) queue.clear();
    records_.clear();
    planned_ = 0;
    marker_.clear();
    marker_capacity_ = 0;
}

}  // namespace properties
