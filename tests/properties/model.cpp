#include "model.h"

#include "model_run.h"

namespace properties {
namespace {

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
        out.facts["versions"].push_back(version_text(firmware.running) + " " + version_text(firmware.programmed));
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
