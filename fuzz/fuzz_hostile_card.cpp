/// A whole run, planning to release, on closed libraries, workers and a system that do what the input says. After each
/// step the card's queues and records are as they have to be, and the run comes to its end.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <set>
#include <vector>

#include "brd_intf_auto_fpd_obfl.h"
#include "brd_intf_auto_fpd_upgrade_handler.h"
#include "brd_intf_auto_fpd_upgrade_init.h"
#include "brd_intf_auto_fpd_upgrade_led.h"
#include "brd_intf_auto_fpd_upgrade_marker.h"
#include "brd_intf_auto_fpd_upgrade_worker.h"
#include "fake_system.h"
#include "hostile_libraries.h"
#include "worker_msg.h"

namespace {

constexpr const char *marker_path = "/misc/scratch/bootup_fpd_marker.txt";
constexpr std::size_t most_records = 4096;  // far more than the libraries tell of

/// What is known of the run from its planning on.
struct Run {
    LocalCard *card = nullptr;
    RunLevel level = RunLevel::boot;
    int mode = 0;
    bool planned = false;             // the records are those of the run
    std::set<const Fpd *> records;    // all of them
    std::set<const Fpd *> scheduled;  // those that were to be upgraded
};
Run run;

bool one_of(FpdState state, std::initializer_list<FpdState> states) {
    return std::find(states.begin(), states.end(), state) != states.end();
}

bool ends_within(const char *text, std::size_t size) {
    return std::memchr(text, '\0', size) != nullptr;
}

// One record ------------------------------------------------------------------------------------------------------

void check_texts(const Fpd &fpd) {
    require(ends_within(fpd.info.name, sizeof fpd.info.name), "a name without an end");
    require(ends_within(fpd.desc.dependency, sizeof fpd.desc.dependency), "a dependency without an end");
    require(ends_within(fpd.desc.image, sizeof fpd.desc.image), "an image without an end");
    require(ends_within(fpd.desc.md5, sizeof fpd.desc.md5), "a checksum without an end");
    for (const auto &text : {fpd.programmed_text, fpd.running_text, fpd.packaged_text})
        require(ends_within(text, fpd_version_text_size), "a version's text without an end");
}

/// In sequence queue `index`, which is the lowest that is not empty if `supervised`.
void check_scheduled(const Fpd &fpd, unsigned index, bool supervised) {
    require_equal(fpd.seq, index, "the number of a record's queue");
    require(one_of(fpd.state, {FpdState::queued_for_upgrade, FpdState::worker_created, FpdState::upgrade_started,
                               FpdState::upgrade_progressing}),
            "the state of a record that is to be upgraded");
    const bool waits = fpd.state == FpdState::queued_for_upgrade;
    require(waits == (fpd.worker == nullptr), "a worker exactly while it is upgraded");
    require(!fpd.worker || fpd.worker->fpd == &fpd, "the worker of another record");
    require(fpd.retries <= 1, "more than one retry");
    require(supervised || (waits && fpd.retries == 0), "an upgrade before its turn");
}

/// In fpd_queue.
void check_unscheduled(const Fpd &fpd) {
    require(!fpd.worker, "a worker of a record that is not to be upgraded");
    require(!one_of(fpd.state, {FpdState::queued_for_upgrade, FpdState::worker_created, FpdState::upgrade_started,
                                FpdState::upgrade_progressing}),
            "the state of a record that is not to be upgraded");
    require(!run.scheduled.contains(&fpd) ||
                one_of(fpd.state, {FpdState::upgrade_done, FpdState::upgrade_failed, FpdState::cant_be_upgraded}),
            "the state in which an upgrade ended");
}

/// What it depends on comes before it, is not to be upgraded, or was.
void check_dependency(const Fpd &fpd, const std::vector<const Fpd *> &scheduled) {
    if (!fpd.dependency) return;
    require(run.records.contains(fpd.dependency), "a dependency that is no record");
    const bool comes = std::find(scheduled.begin(), scheduled.end(), fpd.dependency) != scheduled.end();
    require(!comes || fpd.dependency->seq < fpd.seq, "a dependency that does not come first");
}

/// A record that was just planned has what it takes.
void check_plan(const Fpd &fpd) {
    require((fpd.capabilities & FPD_CAPABILITY_NO_AUTO_UPGRADE) == 0, "planned against its capabilities");
    require(run.level == RunLevel::backend || (fpd.capabilities & FPD_CAPABILITY_BOOTUP_AUTO_UPGRADE) != 0,
            "planned at boot against its capabilities");
    require(fpd.desc.status != FPD_DESC_STATUS_REV_NOT_SUPPORTED, "planned although it is too old");
    const bool by_manufacturer = run.mode == static_cast<int>(UpgradeMode::manufacturing);
    require(fpd.info.upgrade_type == 1 || (by_manufacturer && fpd.info.upgrade_type == 5), "planned against its type");
}

// The card --------------------------------------------------------------------------------------------------------

struct Found {
    std::vector<const Fpd *> scheduled;
    std::set<const Fpd *> all;
};

/// Takes the records of a queue, each of which must be in no other.
void take_queue(const Fpd *queue, Found &found, std::vector<const Fpd *> &taken) {
    for (const Fpd *fpd = queue; fpd; fpd = fpd->next) {
        require(found.all.insert(fpd).second, "a record in two places");
        require(found.all.size() <= most_records, "a queue without an end");
        check_texts(*fpd);
        taken.push_back(fpd);
    }
}

void check_names(const std::set<const Fpd *> &records) {
    std::set<std::string_view> names;
    for (const Fpd *const fpd : records) require(names.insert(fpd->info.name).second, "two records of one name");
}

void check_card() {
    Found found;
    bool supervised = true;
    for (unsigned index = 0; index < seq_queue_count; ++index) {
        const std::size_t before = found.scheduled.size();
        take_queue(run.card->queues.seq_queues[index], found, found.scheduled);
        for (std::size_t i = before; i < found.scheduled.size(); ++i)
            check_scheduled(*found.scheduled[i], index, supervised);
        supervised = supervised && found.scheduled.size() == before;
    }
    std::vector<const Fpd *> others;
    take_queue(run.card->queues.fpd_queue, found, others);
    if (run.planned)
        require(found.all == run.records, "a record that came or went");
    else
        run.records = found.all;
    for (const Fpd *const fpd : others) check_unscheduled(*fpd);
    for (const Fpd *const fpd : found.scheduled) check_dependency(*fpd, found.scheduled);
    check_names(found.all);
    require_equal(run.card->planned_count, static_cast<std::int64_t>(found.scheduled.size()),
                  "the count of planned records");
}

std::size_t marker_length(const std::set<const Fpd *> &records) {
    std::size_t length = 0;
    for (const Fpd *const fpd : records)
        length += std::strlen("FPD:  | Version: \n") + std::max<std::size_t>(16, std::strlen(fpd->info.name)) +
                  std::max<std::size_t>(12, std::strlen(fpd->packaged_text));
    return length;
}

/// After the planning, whatever its result.
void take_plan() {
    check_card();
    run.planned = true;
    for (const Fpd *const queue : run.card->queues.seq_queues)
        for (const Fpd *fpd = queue; fpd; fpd = fpd->next) run.scheduled.insert(fpd);
    for (const Fpd *const fpd : run.scheduled) check_plan(*fpd);
    require_equal(static_cast<std::int64_t>(upg_marker().length),
                  static_cast<std::int64_t>(marker_length(run.scheduled)), "the length of the plan's marker");
}

/// Runs whenever the tool waits or receives.
void check_step() {
    if (!run.card) return;
    check_card();
    // Each record may be started twice, and a pass may stop at each that leaves its queue. The flash has six minutes.
    const std::size_t upgrade_waits = 4 * (seq_queue_count + run.records.size()) + 16;
    const std::size_t flash_waits = 360'000'000 / std::max(main_loop_sleep(), 100'000U) + 2;
    require(fake_system::waits_behind_the_input() <= upgrade_waits + flash_waits, "a run without an end");
}

// The run ---------------------------------------------------------------------------------------------------------

std::size_t error_size(Input &input) {
    constexpr std::array<std::size_t, 4> sizes = {256, 512, 16, 1};
    return sizes[input.below(sizes.size())];
}

/// No marker of an earlier run, that of another plan, or of this one.
void leave_marker(Input &input) {
    const unsigned kind = input.byte();
    unlink(marker_path);
    if (kind >= 0xf0 && upg_marker().text)
        write_file(marker_path, upg_marker().text);
    else if (kind >= 0xe0)
        write_file(marker_path, "FPD: another\n");
}

void upgrade(Input &input) {
    leave_marker(input);
    run_fpd_upgrade(*run.card, run.level);
    check_card();
}

void plan_and_upgrade(Input &input) {
    ErrorBuffer error(error_size(input));
    const int rc = interface_init(run.level, *run.card, error.bytes.get(), error.size);
    error.text();
    take_plan();
    if (rc == 0 && input.byte() < 0xf0) upgrade(input);
}

void release_card(Input &input) {
    ErrorBuffer error(error_size(input));
    LocalCard *card = run.card;
    run = {};  // from here on there is nothing to check
    require_equal(interface_deinit(*card, error.bytes.get(), error.size), 0, "the release of the card");
    release_retired_workers(*card);
    error.text();
    require(!card->retired_workers, "a worker that is not released");
    const unsigned hanging_threads = card->hanging_threads;
    require_equal(context_deinit(&card, error.bytes.get(), error.size), 0, "the release of the context");
    require_equal(fake_system::end(), hanging_threads, "the count of hanging threads");
}

/// What the process keeps from one run to the next.
void forget_process_state() {
    answer_in_good_faith();
    upg_marker_release();
    obfl_flash_release();
    char ignored[256];
    upg_led_notify(3, 1, UpgLedRequest::upgrade_ended, ignored, sizeof ignored);
    unlink("/var/log/fpd_obfl_log.txt");
    unlink("/mnt/obfl/fpd_local_log_1.txt");
}

void prepare_process() {
    static const bool prepared = [] {
        write_file("/dev/kd_bootstrap",
                   "PD_CARD_TYPE=12544\nHW_MAJOR_VERSION=1\nHW_MINOR_VERSION=0\nPD_SLOT_NUM=2\nMY_CARD_PID=CARD-36H\n");
        return true;
    }();
    require(prepared, "a card");
}

}  // namespace

/// The run's kind, and after it what each call is answered, in the order of the calls.
void run_input(std::string_view bytes) {
    constexpr std::array<std::uint32_t, 4> divisors = {1, 0, 7, UINT32_MAX};
    constexpr std::array modes = {0, 1, 1, 2, 3, -1, 4, 0};
    prepare_process();
    Input input{bytes};
    run = {};
    run.level = input.flag() ? RunLevel::backend : RunLevel::boot;
    run.mode = modes[input.below(modes.size())];
    bootup_fpd_time_div = divisors[input.below(divisors.size())];
    answer_from(input, run.mode);
    fake_system::begin(input, check_step);
    ErrorBuffer error(error_size(input));
    LocalCard *card = nullptr;
    const int rc = context_init(&card, error.bytes.get(), error.size);
    error.text();
    require((rc == 0) == (card != nullptr), "a card exactly when its context could be made");
    if (card) {
        run.card = card;
        fake_system::use_card(card);
        plan_and_upgrade(input);
        release_card(input);
    } else {
        fake_system::end();
    }
    forget_process_state();
}
