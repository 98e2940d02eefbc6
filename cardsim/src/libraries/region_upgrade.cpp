#include "region_upgrade.h"

#include <time.h>

#include <cerrno>
#include <cmath>

#include "file_text.h"

namespace cardsim {

namespace {

/// Keeps a region to one upgrade at a time.
class RegionClaim {
  public:
    RegionClaim(const Call &call, uint32_t fpd, uint8_t index) : card_(call.card), region_(fpd, index) {
        bool is_free = false;
        {
            const std::lock_guard guard(card_.lock);
            is_free = card_.upgrading.insert(region_).second;
        }
        require(call, is_free, formatted("two upgrades of FPD %u region %d at once", fpd, index));
    }
    ~RegionClaim() { give_up(); }
    RegionClaim(const RegionClaim &) = delete;
    RegionClaim &operator=(const RegionClaim &) = delete;

    void give_up() {
        const std::lock_guard guard(card_.lock);
        if (held_) {
            card_.upgrading.erase(region_);
        }
        held_ = false;
    }

  private:
    Card &card_;
    std::pair<uint32_t, uint8_t> region_;
    bool held_ = true;
};

/// What the faults of a region leave of one attempt.
struct AttemptPlan {
    double seconds = 0;                  ///< to 100 percent, before the card's speed
    const RegionFault *stops = nullptr;  ///< a Fail or a Hang
    const RegionFault *slows = nullptr;  ///< what made `seconds`
    const RegionFault *does_not_stick = nullptr;
};

AttemptPlan plan_attempt(const RegionDescription &region, uint32_t attempt) {
    AttemptPlan plan;
    plan.seconds = region.duration;
    for (const RegionFault &fault : region.faults) {
        if (fault.attempt.value_or(attempt) != attempt) {
            continue;
        }
        if (fault.kind == RegionFaultKind::Slow) {
            plan.seconds = fault.every * region.reports;
            plan.slows = &fault;
        } else if (fault.kind == RegionFaultKind::DoesNotStick) {
            plan.does_not_stick = &fault;
        } else if (plan.stops == nullptr) {
            plan.stops = &fault;
        }
    }
    return plan;
}

/// Nothing is recorded for a null fault.
void reached(const Call &call, const RegionUpgrade &upgrade, const RegionFault *fault) {
    if (fault == nullptr) return;
    const auto place = static_cast<size_t>(fault - upgrade.region.faults.data());
    record_fault(call, region_fault_name(upgrade.fpd, upgrade.request.region, place));
}

uint32_t count_attempt(const Call &call, const RegionUpgrade &upgrade) {
    uint32_t attempt = 0;
    change_state(
        call, [&](CardState &state) { attempt = ++find_region(state, upgrade.fpd, upgrade.request.region)->attempts; });
    return attempt;
}

timespec now() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time;
}

timespec later(timespec time, double seconds) {
    const double whole = std::floor(seconds);
    time.tv_sec += static_cast<time_t>(whole);
    time.tv_nsec += static_cast<long>((seconds - whole) * 1e9);
    time.tv_sec += time.tv_nsec / 1000000000;
    time.tv_nsec %= 1000000000;
    return time;
}

/// A cancellation point unless cancellation is disabled.
void sleep_until(const timespec &time) {
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) == EINTR) {
    }
}

/// An attempt on its way; its times count from its start, so that a slow receiver of reports does not delay it.
struct Progress {
    const Call &call;
    const BrdFpdUpgradeRequest &request;
    double seconds;  ///< from 0 to 100 percent
    timespec start = now();

    void wait_for(double fraction) const {
        const CancellationGuard cancellable(call.uncancelled.earlier());
        sleep_until(later(start, seconds * fraction));
    }
    void report(int percent) const {
        const CancellationGuard cancellable(call.uncancelled.earlier());
        request.progress(request.context, percent);
    }
};

/// Goes on to `end` percent and reports every step on the way, the end too unless the region never reports.
void advance_reporting(const Progress &progress, uint32_t reports, int end) {
    for (uint32_t step = 1; step <= reports; ++step) {
        const int percent = static_cast<int>(step * 100 / reports);
        if (percent < end) {
            progress.wait_for(static_cast<double>(step) / reports);
            progress.report(percent);
        }
    }
    progress.wait_for(end / 100.0);
    if (reports > 0) {
        progress.report(end);
    }
}

[[noreturn]] void hang_for_good(const Call &call) {
    const CancellationGuard cancellable(call.uncancelled.earlier());
    while (true) {
        sleep_until(later(now(), 3600));
    }
}

/// A hang that pthread_cancel cannot end: whoever gave up on it may try the region again while it sleeps, and its late
/// end is reported to a caller that may not wait for it any more.
void hang_and_wake(const RegionFault &fault, const Call &call, RegionClaim &claim, const Progress &progress) {
    claim.give_up();
    sleep_until(later(now(), fault.hang_time / call.card.speed));
    progress.request.progress(progress.request.context, 100);
}

bool needs_reload(uint8_t activation) {
    return activation == 1 || (activation >= 3 && activation <= 6);
}

void program(const Call &call, const RegionUpgrade &upgrade, bool sticks) {
    change_state(call, [&](CardState &state) {
        RegionState &region = *find_region(state, upgrade.fpd, upgrade.request.region);
        const FirmwareVersion earlier = region.falls_back.value_or(region.programmed);
        region.falls_back = sticks ? std::nullopt : std::optional(earlier);
        region.programmed = firmware_version(upgrade.image.version);
        if (!needs_reload(upgrade.region.activation)) {
            region.running = region.programmed;
        }
    });
}

}  // namespace

void upgrade_region(const Call &call, const RegionUpgrade &upgrade) {
    RegionClaim claim(call, upgrade.fpd, upgrade.request.region);
    const AttemptPlan plan = plan_attempt(upgrade.region, count_attempt(call, upgrade));
    const auto file = std::filesystem::path(upgrade.request.directory) / upgrade.request.file_name;
    read_pieces(open_to_read(file), file, [](std::string_view) {});
    const Progress progress{call, upgrade.request, plan.seconds / call.card.speed};
    reached(call, upgrade, plan.slows);
    const int end = plan.stops == nullptr ? 100 : plan.stops->at;
    if (end >= 0) {
        advance_reporting(progress, upgrade.region.reports, end);
    }
    reached(call, upgrade, plan.stops);
    if (plan.stops != nullptr && plan.stops->kind == RegionFaultKind::Fail) {
        throw Error(plan.stops->text, plan.stops->code);
    }
    if (plan.stops != nullptr && plan.stops->cancellable) {
        hang_for_good(call);
    }
    if (plan.stops != nullptr) {
        hang_and_wake(*plan.stops, call, claim, progress);
    }
    reached(call, upgrade, plan.does_not_stick);
    program(call, upgrade, plan.does_not_stick == nullptr);
}

}  // namespace cardsim
