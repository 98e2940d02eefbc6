#include "live_view.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "card_state.h"
#include "file_text.h"
#include "life.h"
#include "printable.h"
#include "show.h"
#include "text_table.h"

namespace cardsim {
namespace {

using fpd_log::Outcome;

constexpr std::chrono::milliseconds redraw_period{100};
constexpr std::size_t name_columns = 16;
constexpr std::size_t most_of_the_log = std::size_t{4} << 20;  // at a time, so that the watchdog is looked at as well

// ---- text in columns

/// The text in exactly so many columns.
std::string in_columns(const std::string &text, std::size_t columns) {
    std::string result;
    std::size_t taken = 0;
    for (const char byte : text) {
        const bool begins = (static_cast<unsigned char>(byte) & 0xc0U) != 0x80;
        if (begins && taken == columns) break;
        taken += begins ? 1 : 0;
        result += byte;
    }
    return result + std::string(columns - taken, ' ');
}

std::string in_columns_at_most(const std::string &text, std::size_t columns) {
    const std::string line = in_columns(text, columns);
    return line.substr(0, line.find_last_not_of(' ') + 1);
}

std::string whole_seconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.0f s", seconds);
    return text;
}

std::string at_the_right(const std::string &text, std::size_t columns) {
    const std::size_t taken = std::min(columns_in(text), columns);
    return std::string(columns - taken, ' ') + in_columns_at_most(text, columns);
}

std::string bar(const RegionMoment &region, std::size_t columns) {
    if (region.phase != RegionPhase::running && region.phase != RegionPhase::good) return std::string(columns + 2, ' ');
    const auto percent = static_cast<std::size_t>(std::clamp(region.progress, 0, 100));
    const std::size_t full = columns * percent / 100;
    return "[" + std::string(full, '#') + std::string(columns - full, '.') + "]";
}

Look look_of(RegionPhase phase) {
    switch (phase) {
        case RegionPhase::running:
            return Look::running;
        case RegionPhase::bad:
            return Look::bad;
        case RegionPhase::good:
            return Look::good;
        case RegionPhase::waiting:
        case RegionPhase::idle:
            break;
    }
    return Look::plain;
}

// ---- lines

constexpr std::size_t state_columns = 14;
constexpr std::size_t version_columns = 19;
constexpr std::size_t bar_columns = 10;
constexpr std::size_t time_columns = 8;

std::string head_line() {
    return in_columns("REGION", name_columns) + " Q  " + in_columns("STATE", state_columns) + " " +
           in_columns("VERSIONS", version_columns) + " " + in_columns("PROGRESS", bar_columns + 2) + " " +
           at_the_right("TIME", time_columns);
}

std::string region_line(const RegionMoment &region) {
    const std::string queue = region.queue ? std::to_string(*region.queue) : "";
    return in_columns(region.name, name_columns) + " " + in_columns(queue, 2) + " " +
           in_columns(region.state, state_columns) + " " + in_columns(region.versions, version_columns) + " " +
           bar(region, bar_columns) + " " +
           at_the_right(region.seconds ? whole_seconds(*region.seconds) : "", time_columns);
}

/// Two of them stand in a line of 80 columns.
constexpr std::size_t half_columns = 39;
std::string half_line(const RegionMoment &region) {
    const std::string time = region.seconds ? whole_seconds(*region.seconds) : "";
    return in_columns(region.name, name_columns) + " " + bar(region, bar_columns) + " " +
           at_the_right(std::to_string(region.progress) + "%", 4) + at_the_right(time, 5);
}

std::vector<ScreenLine> card_lines(const CardMoment &moment) {
    std::string now = moment.led.empty() ? "" : "LED " + moment.led;
    if (moment.watchdog_age) {
        now += (now.empty() ? "" : ", ") + std::string("watchdog punched ") + whole_seconds(*moment.watchdog_age) +
               " ago, limit " + whole_seconds(moment.watchdog_limit);
    }
    return {{printable(moment.pid) + " in slot " + std::to_string(moment.slot) + ", boot " +
                 std::to_string(moment.boot) + ": " + moment.began + ", card's time " + whole_seconds(moment.seconds),
             Look::head},
            {now, Look::plain},
            {moment.event.empty() ? "" : "last event: " + printable(moment.event), Look::plain}};
}

std::size_t count_of(const std::vector<RegionMoment> &regions, RegionPhase phase) {
    return static_cast<std::size_t>(std::count_if(regions.begin(), regions.end(),
                                                  [&](const RegionMoment &region) { return region.phase == phase; }));
}

/// "40 regions: 12 run, 20 wait, 5 upgraded, 1 went wrong, 2 idle"
std::string sum_line(const CardMoment &moment, std::size_t hidden) {
    constexpr std::array<std::pair<RegionPhase, const char *>, 5> words = {{{RegionPhase::running, "run"},
                                                                            {RegionPhase::waiting, "wait"},
                                                                            {RegionPhase::good, "upgraded"},
                                                                            {RegionPhase::bad, "went wrong"},
                                                                            {RegionPhase::idle, "not upgraded"}}};
    std::string text;
    for (const auto &[phase, word] : words) {
        const std::size_t count = count_of(moment.regions, phase);
        if (count > 0) text += (text.empty() ? ": " : ", ") + std::to_string(count) + " " + word;
    }
    return std::to_string(moment.regions.size()) + " regions" + text +
           (hidden == 0 ? "" : "; " + std::to_string(hidden) + " not shown");
}

/// What is worth a line comes first; among equals the description's order stays.
std::vector<RegionMoment> by_interest(std::vector<RegionMoment> regions) {
    std::stable_sort(regions.begin(), regions.end(),
                     [](const RegionMoment &one, const RegionMoment &other) { return one.phase < other.phase; });
    return regions;
}

void add_region_lines(std::vector<ScreenLine> &lines, const std::vector<RegionMoment> &regions, std::size_t room) {
    lines.push_back({head_line(), Look::head});
    for (std::size_t at = 0; at < regions.size() && at < room; ++at) {
        lines.push_back({region_line(regions[at]), look_of(regions[at].phase)});
    }
}

/// Regions that run, two in a line where there is room for two.
std::size_t add_half_lines(std::vector<ScreenLine> &lines, const std::vector<RegionMoment> &regions, std::size_t room,
                           std::size_t columns) {
    const std::size_t in_a_line = columns > 2 * half_columns ? 2 : 1;
    std::size_t at = 0;
    for (std::size_t line = 0; line < room && at < regions.size(); ++line) {
        std::string text = half_line(regions[at++]);
        if (in_a_line == 2 && at < regions.size()) text += "  " + half_line(regions[at++]);
        lines.push_back({text, Look::plain});
    }
    return at;
}

}  // namespace

std::vector<ScreenLine> view_lines(const CardMoment &moment, std::size_t rows, std::size_t columns) {
    std::vector<ScreenLine> lines = card_lines(moment);
    const std::size_t taken = lines.size() + 1;                        // with the sum
    const std::size_t room = rows > taken + 1 ? rows - taken - 1 : 0;  // below the heading
    const std::size_t count = moment.regions.size();
    std::size_t shown = std::min(count, room);
    if (count <= room) {
        add_region_lines(lines, moment.regions, room);
    } else if (count_of(moment.regions, RegionPhase::running) <= room) {
        add_region_lines(lines, by_interest(moment.regions), room);
    } else {
        shown = add_half_lines(lines, by_interest(moment.regions), room + 1, columns);
    }
    lines.push_back({sum_line(moment, count - shown), Look::head});
    for (ScreenLine &line : lines) line.text = in_columns_at_most(line.text, columns);
    if (lines.size() > rows)
        lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(lines.size() - rows));
    return lines;
}

namespace {

struct StateWord {
    const char *state;  ///< of the tool
    const char *word;
    RegionPhase phase;
};
constexpr std::array state_words = {StateWord{"FPD Queued for Upgrade", "queued", RegionPhase::waiting},
                                    StateWord{"FPD worker created for Upgrade", "starting", RegionPhase::running},
                                    StateWord{"FPD Upgrade Started", "started", RegionPhase::running},
                                    StateWord{"FPD Upgrade Progressing", "upgrading", RegionPhase::running},
                                    StateWord{"FPD Upgrade Done", "upgraded", RegionPhase::good},
                                    StateWord{"FPD Upgrade Failed", "failed", RegionPhase::bad}};

/// The words where the state decides nothing: the outcome's.
StateWord word_of_outcome(Outcome outcome) {
    switch (outcome) {
        case Outcome::failed:
        case Outcome::given_up:
        case Outcome::refused:
            return {"", fpd_log::outcome_text(outcome), RegionPhase::bad};
        case Outcome::planned:
            return {"", fpd_log::outcome_text(outcome), RegionPhase::waiting};
        case Outcome::upgraded:
        case Outcome::upgraded_at_second_attempt:
            return {"", "upgraded", RegionPhase::good};
        case Outcome::not_considered:
        case Outcome::current:
            return {"", fpd_log::outcome_text(outcome), RegionPhase::idle};
        case Outcome::unfinished:
            break;
    }
    return {"", "", RegionPhase::idle};
}

StateWord word_of(const fpd_log::Region &region) {
    const bool is_over = region.outcome == Outcome::given_up || region.outcome == Outcome::failed;
    const auto *const found = std::find_if(state_words.begin(), state_words.end(),
                                           [&](const StateWord &word) { return region.state == word.state; });
    return found == state_words.end() || is_over ? word_of_outcome(region.outcome) : *found;
}

const fpd_log::Region *region_named(const fpd_log::Run *run, const std::string &name) {
    if (run == nullptr) return nullptr;
    const auto found = std::find_if(run->regions.begin(), run->regions.end(),
                                    [&](const fpd_log::Region &region) { return region.name == name; });
    return found == run->regions.end() ? nullptr : &*found;
}

fpd_log::Time wall_clock() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return fpd_log::Time{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

/// The last that happened to the card; a punched watchdog has a place of its own.
std::string last_event(const fpd_log::Run *run) {
    if (run == nullptr) return {};
    const auto found = std::find_if(run->events.rbegin(), run->events.rend(), [](const fpd_log::Event &event) {
        return event.kind != fpd_log::EventKind::watchdog_punch;
    });
    if (found == run->events.rend()) return {};
    std::string text = fpd_log::event_key(found->kind);
    std::replace(text.begin(), text.end(), '_', ' ');
    return found->text.empty() ? text : text + ": " + found->text;
}

std::string led_of(const StateDirectory &directory, const CardDescription &card) {
    try {
        const CardState state = load_state(directory, card);
        return state.leds.empty() ? std::string() : led_text(state.leds.front());
    } catch (const std::exception &) {
        return {};  // the boot itself will say what is wrong
    }
}

}  // namespace

RegionMoment region_moment(const fpd_log::Region &region, fpd_log::Time now, uint32_t speed) {
    const StateWord word = word_of(region);
    RegionMoment moment;
    moment.name = printable(region.name);
    moment.phase = word.phase;
    moment.state = word.word;
    if (region.retries > 0 && word.phase == RegionPhase::running) moment.state += ", 2nd";
    moment.queue = region.queue;
    moment.versions = printable(region.running);
    if (region.queue) moment.versions += " > " + printable(region.packaged);
    if (region.attempts.empty()) return moment;
    const fpd_log::Attempt &attempt = region.attempts.back();
    moment.progress = word.phase == RegionPhase::good ? 100 : attempt.progress;
    const fpd_log::Time end = attempt.end != 0 ? attempt.end : now;
    if (attempt.begin != 0) moment.seconds = static_cast<double>(end - attempt.begin) * 1e-6 * speed;
    return moment;
}

LiveView::LiveView(const CardDescription &card, const StateDirectory &state, uint32_t speed,
                   std::unique_ptr<TerminalScreen> screen)
    : card_(card), state_(state), speed_(speed), screen_(std::move(screen)) {}

void LiveView::begin_boot(uint32_t number, const std::string &why) {
    boot_ = number;
    began_ = why;
    begin_ = Clock::now();
    drawn_ = {};
    last_run_.reset();
    reader_ = std::make_unique<fpd_log::RunReader>([this](fpd_log::Run &&run) { last_run_ = std::move(run); });
    reader_->begin_source("fpd.log");
    log_read_ = log_size(state_);
}

void LiveView::look(std::optional<Clock::duration> watchdog_age) {
    if (Clock::now() - drawn_ < redraw_period) return;
    drawn_ = Clock::now();
    follow_log();
    screen_->measure();
    screen_->show(view_lines(moment(watchdog_age), screen_->rows(), screen_->columns()));
}

void LiveView::follow_log() {
    try {
        if (state_.size(diagnostic_log) <= log_read_) return;
        const Descriptor file = state_.open(diagnostic_log, O_RDONLY);
        std::string text(most_of_the_log, '\0');
        const ssize_t count = pread(file.get(), text.data(), text.size(), static_cast<off_t>(log_read_));
        if (count <= 0) return;
        log_read_ += static_cast<std::uintmax_t>(count);
        reader_->push(std::string_view(text).substr(0, static_cast<std::size_t>(count)));
    } catch (const std::exception &) {
        // A view without news; the boot itself will say what is wrong with the log.
    }
}

CardMoment LiveView::moment(std::optional<Clock::duration> watchdog_age) const {
    const auto cards_seconds = [this](Clock::duration time) {
        return std::chrono::duration<double>(time).count() * speed_;
    };
    const fpd_log::Run *run = reader_->open_run();
    if (run == nullptr && last_run_) run = &*last_run_;
    CardMoment moment;
    moment.pid = card_.pid;
    moment.slot = card_.slot;
    moment.boot = boot_;
    moment.began = began_;
    moment.seconds = cards_seconds(Clock::now() - begin_);
    moment.led = led_of(state_, card_);
    if (watchdog_age) moment.watchdog_age = cards_seconds(*watchdog_age);
    if (card_.watchdog) moment.watchdog_limit = card_.watchdog->timeout;
    moment.event = last_event(run);
    moment.regions = region_moments(run);
    return moment;
}

std::vector<RegionMoment> LiveView::region_moments(const fpd_log::Run *run) const {
    const fpd_log::Time now = wall_clock();
    std::vector<RegionMoment> moments;
    for (const FpdDescription &fpd : card_.fpds) {
        for (const RegionDescription &region : fpd.regions) {
            if (const fpd_log::Region *told = region_named(run, tools_name(region.name))) {
                moments.push_back(region_moment(*told, now, speed_));
            } else {
                moments.emplace_back();
                moments.back().name = printable(region.name);
            }
        }
    }
    return moments;
}

}  // namespace cardsim
