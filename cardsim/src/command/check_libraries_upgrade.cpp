/// The upgrade of a region, as a worker of the tool makes it, and upgrades that have to be refused.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>

#include "check_libraries_calls.h"

extern "C" uint32_t bootup_fpd_time_div;

namespace cardsim {
namespace {

using Clock = std::chrono::steady_clock;

// The tool's limits, before the divisor that a library may have set: to the first report of progress, and between two.
constexpr unsigned start_limit = 60'000;         // ms
constexpr unsigned progressing_limit = 180'000;  // ms

/// The last region that has the name, and its object.
struct Target {
    uint32_t fpd = 0;
    const Region *region = nullptr;
};

Target find_target(const Card &card, const std::string &name) {
    for (const FpdObject &fpd : card.fpds) {
        for (const Region &region : fpd.regions) {
            if (region.name == name) return {fpd.id, &region};
        }
    }
    return {};
}

/// What an upgrade reported. Written on whichever thread reports.
struct Progress {
    explicit Progress(const Reporter &told) : reporter(told) {}

    const Reporter &reporter;
    const std::thread::id worker = std::this_thread::get_id();
    std::mutex lock;  // guards what follows
    unsigned count = 0;
    int first = 0;
    int last = 0;
    bool elsewhere = false;     // on another thread
    bool out_of_range = false;  // not 0 to 100
    bool backwards = false;
};

void allow(const Reporter &reporter, unsigned limit) {
    const unsigned divisor = bootup_fpd_time_div != 0 ? bootup_fpd_time_div : 1;
    reporter.send({.kind = Kind::limit, .begun = {}, .outcome = {}, .text = std::to_string(limit / divisor + 1)});
}

void take_report(void *context, int percent) {
    Progress &progress = *static_cast<Progress *>(context);
    const std::lock_guard guard(progress.lock);
    progress.elsewhere = progress.elsewhere || std::this_thread::get_id() != progress.worker;
    progress.out_of_range = progress.out_of_range || percent < 0 || percent > 100;
    progress.backwards = progress.backwards || (progress.count > 0 && percent < progress.last);
    if (progress.count++ == 0) progress.first = percent;
    progress.last = percent;
    allow(progress.reporter, progressing_limit);
}

std::string told(const Progress &progress, Clock::duration time) {
    char text[96];
    const double seconds = std::chrono::duration<double>(time).count();
    if (progress.count == 0) {
        std::snprintf(text, sizeof text, "%.1f s, no report", seconds);
    } else {
        std::snprintf(text, sizeof text, "%.1f s, %u reports from %d to %d", seconds, progress.count, progress.first,
                      progress.last);
    }
    return text;
}

Outcome judge_progress(const Progress &progress, const std::string &result) {
    if (progress.elsewhere) return {Verdict::fault, result, "reported on another thread: it may outlive the call"};
    if (progress.count == 0) return {Verdict::note, result, "without a report the limit of its start counts"};
    if (progress.out_of_range) return {Verdict::note, result, "reports that are no percentages"};
    if (progress.backwards) return {Verdict::note, result, "reports that go backwards"};
    return {Verdict::ok, result, ""};
}

void fill(BrdFpdUpgradeRequest &request, const Region &region, const std::string &image, Progress &progress) {
    request.region = region.index;
    request.context = &progress;
    request.progress = take_report;
    std::snprintf(request.directory, sizeof request.directory, "%s", package_path);
    std::snprintf(request.file_name, sizeof request.file_name, "%s", image.c_str());
}

/// On a thread of its own, as the tool's workers are. Returns whether it was programmed.
bool program(Reporter &reporter, const Card &card, const Target &target, const std::string &image) {
    bool is_programmed = false;
    std::thread worker([&] {
        call<decltype(brd_fpd_upgrade)>(
            reporter, "brd_fpd_upgrade", target.region->name + ", " + image, [&](auto &upgrade, Records &records) {
                auto *const request = records.make<BrdFpdUpgradeRequest>("request");
                char *const reason = records.make<char>("err_msg", reason_size);
                auto *const progress = new Progress(reporter);  // never deleted: a late report may come
                fill(*request, *target.region, image, *progress);
                allow(reporter, start_limit);
                const Clock::time_point begun = Clock::now();
                const int rc = upgrade(card.group, target.fpd, request, reason, reason_size);
                const std::lock_guard guard(progress->lock);
                is_programmed = rc == 0;
                if (rc != 0) return failed(rc, Verdict::fault, "tried once more, then given up", reason);
                return judge_progress(*progress, fine(told(*progress, Clock::now() - begun)).result);
            });
    });
    worker.join();
    return is_programmed;
}

void look_at_result(Reporter &reporter, const Card &card, const Target &target, const FpdVersion &packaged) {
    call<decltype(brd_fpd_info_get)>(
        reporter, "brd_fpd_info_get", target.region->name + ", after it", [&](auto &get, Records &records) {
            auto *const info = records.make<BrdFpdInfo>("info");
            char *const reason = records.make<char>("err_msg", reason_size);
            target.region->name.copy(info->name, sizeof info->name - 1);
            const int rc = get(card.group, target.fpd, target.region->index, info, reason, reason_size);
            if (rc != 0) return failed(rc, Verdict::note, "logged", reason);
            const std::string result = fine("programmed " + version_text(info->programmed_major, info->programmed_minor,
                                                                         info->programmed_debug))
                                           .result;
            const bool is_new = info->programmed_major == packaged.major && info->programmed_minor == packaged.minor;
            return Outcome{is_new ? Verdict::ok : Verdict::note, result,
                           is_new ? "" : "not the packaged one: it is planned again at the next run"};
        });
}

}  // namespace

void upgrade_region(Reporter &reporter, const Card &card, const std::string &region) {
    const Target target = find_target(card, region);
    FpdDesc description{};
    if (target.region == nullptr || !target.region->has_info) return;
    if (!look_at_image(reporter, card, *target.region, description)) {
        reporter.call({.call = "brd_fpd_upgrade", .arguments = region}, [](Records &) {
            return Outcome{Verdict::fault, "not tried", "no image for it"};
        });
        return;
    }
    const std::string image = text_in(description.image, sizeof description.image);
    if (program(reporter, card, target, image)) {
        look_at_result(reporter, card, target, description.packaged_version);
    }
}

bool make_wrong_upgrade(Reporter &reporter, const Card &card, const std::string &region, unsigned number) {
    if (number > 0) return false;
    const Target target = find_target(card, region);
    if (target.region == nullptr) return false;
    const Begun begun{.call = "brd_fpd_upgrade",
                      .arguments = region + ", no such image",
                      .when_it_dies = Verdict::fault,
                      .may_abort = true};
    call<decltype(brd_fpd_upgrade)>(reporter, begun, [&](auto &upgrade, Records &records) {
        auto *const request = records.make<BrdFpdUpgradeRequest>("request");
        char *const reason = records.make<char>("err_msg", reason_size);
        auto *const progress = new Progress(reporter);  // as above
        fill(*request, *target.region, "check-libraries-has-no-such-image", *progress);
        const int rc = upgrade(card.group, target.fpd, request, reason, reason_size);
        if (rc != 0) return Outcome{Verdict::ok, "refused: " + std::to_string(rc), ""};
        return Outcome{Verdict::fault, "0", "nothing was programmed, and it is told as upgraded"};
    });
    return true;
}

}  // namespace cardsim
