#include "svg_timeline.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <optional>
#include <string_view>

#include "shown_text.h"
#include "verdict.h"

namespace fpd_report {
namespace {

using fpd_log::Attempt;
using fpd_log::AttemptEnd;
using fpd_log::Event;
using fpd_log::EventKind;
using fpd_log::Outcome;
using fpd_log::Region;
using fpd_log::Run;
using fpd_log::Time;

// In pixels.
constexpr double width = 1200, margin = 20, row_height = 20, bar_height = 12, text_rise = 14;
constexpr double track_left = 200, track_right = 900, result_left = 915;
constexpr double event_mark = 16;  // square
// In columns of text.
constexpr std::size_t name_columns = 24, result_columns = 40, line_columns = 165;

constexpr std::size_t rows_of_a_run = 200;

constexpr std::string_view style = R"(
text { font: 12px system-ui, "Segoe UI", Roboto, "DejaVu Sans", sans-serif; fill: #1b1f24 }
.head { font-weight: 700; font-size: 14px } .lane { font-weight: 600 } .quiet, .lane { fill: #59626d }
.axis { font-size: 11px; fill: #59626d; text-anchor: middle }
.sign { font-size: 11px; font-weight: 700; text-anchor: middle }
.back { fill: #ffffff; stroke: #d4d9df } .grid { stroke: #e6e9ed } .rule { stroke: #d4d9df }
.mark { fill: #ffffff; stroke: #59626d }
.wait { stroke: #59626d; stroke-width: 1.5; stroke-dasharray: 2 2 }
.reload { stroke: #59626d; stroke-width: 2; stroke-dasharray: 5 4 }
.stripe { stroke: #ffffff; stroke-opacity: .5; stroke-width: 2 }
.upgraded { fill: #1a7f5a } .second { fill: #2678b8 } .failed { fill: #c2410c } .stuck { fill: #9c2f7e }
.not_started { fill: #a86400 }
.unfinished { fill: none; stroke: #5b6470; stroke-width: 1.5; stroke-dasharray: 4 3 }
@media (prefers-color-scheme: dark) {
text { fill: #e7eaee } .quiet, .lane, .axis { fill: #a2adb9 }
.back { fill: #1d2126; stroke: #3a424c } .grid { stroke: #2b3138 } .rule { stroke: #3a424c }
.mark { fill: #1d2126; stroke: #a2adb9 }
.wait, .reload { stroke: #a2adb9 } .stripe { stroke: #000000 }
.upgraded { fill: #35b585 } .second { fill: #58a9e6 } .failed { fill: #f2773f } .stuck { fill: #e07cc4 }
.not_started { fill: #e0a03c }
.unfinished { stroke: #97a2ae }
}
)";

// What tells the bars apart without colour.
constexpr std::string_view patterns = R"svg(<defs>
<pattern id="p-second" width="9" height="9" patternUnits="userSpaceOnUse" patternTransform="rotate(45)">
<path class="stripe" d="M0 0V9"/></pattern>
<pattern id="p-failed" width="7" height="7" patternUnits="userSpaceOnUse" patternTransform="rotate(45)">
<path class="stripe" d="M0 0V7M0 0H7"/></pattern>
<pattern id="p-stuck" width="7" height="7" patternUnits="userSpaceOnUse"><path class="stripe" d="M3 0V7"/></pattern>
<pattern id="p-not_started" width="5" height="5" patternUnits="userSpaceOnUse">
<path class="stripe" d="M0 2H5"/></pattern>
</defs>
)svg";

struct EventSign {
    EventKind kind;
    const char *lane;
    const char *sign;
};

// In the order of their lanes.
constexpr auto event_signs = std::to_array<EventSign>({
    {EventKind::stage, "Run", "S"},
    {EventKind::marker_skip, "Run", "M"},
    {EventKind::run_start, "Run", "▶"},
    {EventKind::event_failed, "Run", "!"},
    {EventKind::run_end, "Run", "■"},
    {EventKind::activation, "Run", "R"},
    {EventKind::activation_failed, "Run", "!"},
    {EventKind::led, "LED", "L"},
    {EventKind::watchdog_punch, "Watchdog", "W"},
    {EventKind::watchdog_punch_failed, "Watchdog", "!"},
    {EventKind::flash_mounted, "Flash", "F"},
    {EventKind::flash_failed, "Flash", "!"},
    {EventKind::flash_released, "Flash", "F"},
});

struct Span {
    Time begin = 0, end = 0;
};

/// The picture as far as it is drawn: `y` is where the next line begins.
struct Picture {
    std::string text;
    double y = margin;
};

/// UTF-8 without control characters as the content of an XML element.
std::string xml_escaped(std::string_view text) {
    std::string result;
    for (const char c : text) {
        switch (c) {
            case '<':
                result += "&lt;";
                break;
            case '>':
                result += "&gt;";
                break;
            case '&':
                result += "&amp;";
                break;
            default:
                result += c;
        }
    }
    // Two characters that UTF-8 has and XML has not.
    for (const std::string_view noncharacter : {"\xef\xbf\xbe", "\xef\xbf\xbf"})
        for (std::size_t at = 0; (at = result.find(noncharacter, at)) != std::string::npos;)
            result.replace(at, noncharacter.size(), "\xef\xbf\xbd");
    return result;
}

/// Text of a log on one line.
std::string xml_text(std::string_view text) {
    return xml_escaped(shown(text));
}

/// Pixels: one decimal place, whatever the locale.
std::string pixels(double value) {
    const auto tenths = static_cast<long long>(value * 10 + 0.5);
    return std::to_string(tenths / 10) + (tenths % 10 == 0 ? "" : "." + std::to_string(tenths % 10));
}

std::string attribute(const char *name, double value) {
    return std::string(" ") + name + "=\"" + pixels(value) + "\"";
}

void add_text(Picture &picture, double x, double y, const char *style_class, std::string_view text,
              std::size_t columns = line_columns) {
    picture.text += "<text class=\"" + std::string(style_class) + "\"" + attribute("x", x) + attribute("y", y) + ">";
    picture.text += xml_escaped(fitted(shown(text), columns));
    picture.text += "</text>\n";
}

void add_line(Picture &picture, const char *style_class, double x1, double y1, double x2, double y2) {
    picture.text += "<line class=\"" + std::string(style_class) + "\"" + attribute("x1", x1) + attribute("y1", y1) +
                    attribute("x2", x2) + attribute("y2", y2) + "/>\n";
}

void add_box(Picture &picture, const std::string &attributes, double x, double y, double box_width, double height) {
    picture.text += "<rect " + attributes + attribute("x", x) + attribute("y", y) + attribute("width", box_width) +
                    attribute("height", height) + " rx=\"2\"/>\n";
}

/// From the first to the last time that a run tells; nullopt: it tells none.
std::optional<Span> time_span(const Run &run) {
    Span span;
    const auto take = [&](Time time) {
        if (time == 0) return;
        span.begin = span.begin == 0 ? time : std::min(span.begin, time);
        span.end = span.end == 0 ? time : std::max(span.end, time);
    };
    take(run.begin);
    take(run.end);
    for (const Event &event : run.events) take(event.time);
    for (const Region &region : run.regions)
        for (const Attempt &attempt : region.attempts) {
            take(attempt.begin);
            take(attempt.end);
        }
    if (span.begin == span.end) return std::nullopt;
    return span;
}

double x_of(Time time, const Span &span) {
    const double part = static_cast<double>(time - span.begin) / static_cast<double>(span.end - span.begin);
    return track_left + std::clamp(part, 0.0, 1.0) * (track_right - track_left);
}

/// From being queued to the end of the last attempt, or of the wait.
Span bar_span(const Region &region, const Span &span) {
    const auto queued = std::find_if(region.transitions.begin(), region.transitions.end(), [](const auto &one) {
        return one.time != 0 && one.to.find("Queued") != std::string::npos;
    });
    Span bar{span.begin, 0};
    if (queued != region.transitions.end())
        bar.begin = queued->time;
    else if (!region.attempts.empty() && region.attempts.front().begin != 0)
        bar.begin = region.attempts.front().begin;
    const bool open = region.outcome == Outcome::unfinished || region.outcome == Outcome::planned ||
                      std::any_of(region.attempts.begin(), region.attempts.end(),
                                  [](const Attempt &attempt) { return attempt.end == 0; });
    if (open) return {bar.begin, span.end};
    bar.end = region.transitions.empty() ? bar.begin : std::max(bar.begin, region.transitions.back().time);
    for (const Attempt &attempt : region.attempts) bar.end = std::max(bar.end, attempt.end);
    return bar;
}

/// The class of an attempt, which is also the name of its pattern.
const char *attempt_class(const Attempt &attempt, const Region &region) {
    if (attempt.how != AttemptEnd::done) return attempt_end_key(attempt.how);
    return region.outcome == Outcome::upgraded_at_second_attempt ? "second" : "upgraded";
}

const char *attempt_sign(AttemptEnd how) {
    switch (how) {
        case AttemptEnd::failed:
            return "✗";
        case AttemptEnd::stuck:
            return "⊘";
        case AttemptEnd::not_started:
            return "!";
        case AttemptEnd::done:
        case AttemptEnd::unfinished:
            break;
    }
    return "";
}

const char *outcome_sign(Outcome outcome) {
    switch (outcome) {
        case Outcome::not_considered:
            return "–";
        case Outcome::current:
            return "=";
        case Outcome::planned:
            return "○";
        case Outcome::upgraded:
            return "✓";
        case Outcome::upgraded_at_second_attempt:
            return "↻";
        case Outcome::failed:
            return "✗";
        case Outcome::given_up:
            return "⊘";
        case Outcome::refused:
            return "!";
        case Outcome::unfinished:
            return "…";
    }
    return "?";
}

bool is_upgraded(const Region &region) {
    return region.outcome == Outcome::upgraded || region.outcome == Outcome::upgraded_at_second_attempt;
}

std::string result_text(const Region &region) {
    std::string text = std::string(outcome_sign(region.outcome)) + " ";
    if (!is_upgraded(region))
        return text + outcome_text(region.outcome) + (region.reason.empty() ? "" : ": " + region.reason);
    text += region.running + " → " + (region.packaged.empty() ? region.programmed : region.packaged);
    return region.outcome == Outcome::upgraded ? text : text + ", 2nd attempt";
}

/// "+850 ms", "+1.5 s", "+42 s", "+3 min", "+1 h 30 min".
std::string tick_text(Time time) {
    constexpr Time millisecond = 1'000, second = 1'000'000, minute = 60 * second, hour = 60 * minute;
    if (time == 0) return "0";
    if (time < millisecond) return "+" + std::to_string(time) + " µs";
    if (time < second) return "+" + std::to_string(time / millisecond) + " ms";
    std::string text = "+";
    if (time >= hour) text += std::to_string(time / hour) + " h ";
    if (time % hour >= minute) text += std::to_string(time % hour / minute) + " min ";
    if (time % minute >= second) text += std::to_string(time % minute / second) + " s ";
    text.pop_back();
    // Ticks closer than a second are a tenth apart, or more.
    if (const Time tenth = time % second / (100 * millisecond); tenth > 0)
        text.insert(text.size() - 2, "." + std::to_string(tenth));
    return text;
}

/// Between two ticks, so that there are at most eight of them after the first.
Time tick_step(Time length) {
    constexpr auto steps = std::to_array<Time>(
        {1'000,         2'000,         5'000,          10'000,         20'000,        50'000,      100'000,
         200'000,       500'000,       1'000'000,      2'000'000,      5'000'000,     10'000'000,  15'000'000,
         30'000'000,    60'000'000,    120'000'000,    300'000'000,    600'000'000,   900'000'000, 1'800'000'000,
         3'600'000'000, 7'200'000'000, 14'400'000'000, 43'200'000'000, 86'400'000'000});
    const auto *const found = std::find_if(steps.begin(), steps.end(), [&](Time step) { return length / step <= 8; });
    Time step = found == steps.end() ? steps.back() : *found;
    while (length / step > 8) step *= 2;
    return step;
}

/// The scale above the lanes.
void draw_axis(Picture &picture, const Span &span) {
    const Time step = tick_step(span.end - span.begin);
    for (Time time = 0; time <= span.end - span.begin; time += step)
        add_text(picture, x_of(span.begin + time, span), picture.y + text_rise, "axis", tick_text(time));
    picture.y += row_height;
}

/// Lines from the scale down through the lanes.
std::string grid(const Run &run, const Span &span, double top, double bottom) {
    Picture lines;
    const Time step = tick_step(span.end - span.begin);
    for (Time time = 0; time <= span.end - span.begin; time += step) {
        const double x = x_of(span.begin + time, span);
        add_line(lines, "grid", x, top, x, bottom);
    }
    for (const Event &event : run.events) {
        if (event.kind != EventKind::activation || event.time == 0) continue;
        const double x = x_of(event.time, span);
        add_line(lines, "reload", x, top, x, bottom);
    }
    return lines.text;
}

void draw_event(Picture &picture, const char *sign, const Event &event, double x) {
    picture.text += "<g><title>" +
                    xml_text(clock_text(event.time) + " " + fpd_log::event_key(event.kind) +
                             (event.text.empty() ? "" : " " + event.text)) +
                    "</title>";
    add_box(picture, "class=\"mark\"", x - event_mark / 2, picture.y + 2, event_mark, event_mark);
    add_text(picture, x, picture.y + text_rise, "sign", sign);
    picture.text += "</g>\n";
}

/// A line per kind of event. Marks that would cover each other move aside, as far as there is room.
void draw_events(Picture &picture, const Run &run, const Span &span) {
    for (const EventSign &first : event_signs) {
        if (&first != event_signs.data() && std::string_view((&first - 1)->lane) == first.lane) continue;
        double free_from = 0;
        for (const Event &event : run.events) {
            const auto *const sign = std::find_if(event_signs.begin(), event_signs.end(),
                                                  [&](const EventSign &one) { return one.kind == event.kind; });
            if (sign == event_signs.end() || std::string_view(sign->lane) != first.lane) continue;
            if (free_from == 0) add_text(picture, margin, picture.y + text_rise, "quiet", first.lane);
            const double x = std::min(std::max(x_of(event.time, span), free_from), width - margin);
            draw_event(picture, sign->sign, event, x);
            free_from = x + event_mark + 1;
        }
        if (free_from != 0) picture.y += row_height;
    }
}

void draw_attempt(Picture &picture, const Attempt &attempt, const Region &region, const Span &bar, const Span &span) {
    const double from = x_of(attempt.begin == 0 ? bar.begin : attempt.begin, span);
    const double to = std::max(from + 3, x_of(attempt.end == 0 ? bar.end : attempt.end, span));
    const double top = picture.y + (row_height - bar_height) / 2;
    const std::string name = attempt_class(attempt, region);
    add_box(picture, "class=\"" + name + "\"", from, top, to - from, bar_height);
    if (name != "upgraded" && name != "unfinished")
        add_box(picture, "fill=\"url(#p-" + name + ")\"", from, top, to - from, bar_height);
}

void draw_attempt_end(Picture &picture, const Attempt &attempt, const Span &span) {
    if (attempt.end == 0 || *attempt_sign(attempt.how) == '\0') return;
    const double x = x_of(attempt.end, span);
    picture.text +=
        "<circle class=\"mark\" r=\"7\"" + attribute("cx", x) + attribute("cy", picture.y + row_height / 2) + "/>\n";
    add_text(picture, x, picture.y + text_rise, "sign", attempt_sign(attempt.how));
}

void draw_row(Picture &picture, const Region &region, const std::optional<Span> &span) {
    picture.text += "<g class=\"bar\"><title>" +
                    xml_text(region.name + ": " + outcome_text(region.outcome) +
                             (region.reason.empty() ? "" : ", " + region.reason)) +
                    "</title>\n";
    add_text(picture, margin, picture.y + text_rise, "name", region.name, name_columns);
    if (span) {
        const Span bar = bar_span(region, *span);
        const double begin = x_of(bar.begin, *span);
        const bool worked = !region.attempts.empty();
        const Time waited = worked && region.attempts.front().begin != 0 ? region.attempts.front().begin : bar.begin;
        add_line(picture, "wait", begin, picture.y + row_height / 2, x_of(worked ? waited : bar.end, *span),
                 picture.y + row_height / 2);
        for (const Attempt &attempt : region.attempts) draw_attempt(picture, attempt, region, bar, *span);
        for (const Attempt &attempt : region.attempts) draw_attempt_end(picture, attempt, *span);
    }
    add_text(picture, result_left, picture.y + text_rise, "quiet", result_text(region), result_columns);
    picture.text += "</g>\n";
    picture.y += row_height;
}

std::string counted_regions(std::size_t count) {
    return std::to_string(count) + (count == 1 ? " region" : " regions");
}

void draw_queue(Picture &picture, int queue, std::vector<const Region *> regions, const std::optional<Span> &span,
                std::size_t &rows_left) {
    const auto begin = [](const Region *region) {
        return region->attempts.empty() ? 0 : region->attempts.front().begin;
    };
    std::stable_sort(regions.begin(), regions.end(), [&](const Region *a, const Region *b) {
        return begin(b) == 0 ? begin(a) != 0 : begin(a) != 0 && begin(a) < begin(b);
    });
    picture.text += "<g class=\"queue\">\n";
    add_line(picture, "rule", margin, picture.y + 2, width - margin, picture.y + 2);
    picture.y += 2;
    add_text(picture, margin, picture.y + text_rise, "lane",
             "Sequence queue " + std::to_string(queue) + ": " + counted_regions(regions.size()));
    picture.y += row_height;
    for (std::size_t i = 0; i < regions.size(); ++i) {
        if (rows_left == 0) {
            add_text(picture, margin, picture.y + text_rise, "quiet",
                     "and " + counted_regions(regions.size() - i) + " not drawn");
            picture.y += row_height;
            break;
        }
        --rows_left;
        draw_row(picture, *regions[i], span);
    }
    picture.text += "</g>\n";
}

/// Regions that were never queued have no time to draw: one line for each outcome, with the names of those not well.
void draw_others(Picture &picture, const std::vector<const Region *> &regions) {
    if (regions.empty()) return;
    add_line(picture, "rule", margin, picture.y + 2, width - margin, picture.y + 2);
    picture.y += 2;
    add_text(picture, margin, picture.y + text_rise, "lane", "Not queued: " + counted_regions(regions.size()));
    picture.y += row_height;
    std::map<std::size_t, std::vector<const Region *>> by_rank;
    for (const Region *region : regions) by_rank[outcome_rank(region->outcome)].push_back(region);
    for (const auto &[rank, alike] : by_rank) {
        const Outcome outcome = alike.front()->outcome;
        std::string text = std::string(outcome_sign(outcome)) + " " + std::to_string(alike.size()) + " " +
                           fpd_log::outcome_text(outcome);
        const char *separator = ": ";
        for (const Region *region : alike) {
            if (text.size() > line_columns) break;
            text += separator + region->name;
            separator = ", ";
        }
        add_text(picture, margin, picture.y + text_rise, "quiet", text);
        picture.y += row_height;
    }
}

void draw_run(Picture &picture, const Run &run) {
    picture.text += "<g class=\"run\">\n";
    add_text(picture, margin, picture.y + text_rise, "head", verdict(run), 140);
    picture.y += row_height + 4;

    std::map<int, std::vector<const Region *>> queues;
    std::vector<const Region *> others;
    for (const Region &region : run.regions) (region.queue ? queues[*region.queue] : others).push_back(&region);

    const std::optional<Span> span = time_span(run);
    const bool has_times = span && (!queues.empty() || !run.events.empty());
    if (has_times) draw_axis(picture, *span);
    const double top = picture.y;
    const std::size_t grid_at = picture.text.size();
    if (has_times) draw_events(picture, run, *span);
    std::size_t rows_left = rows_of_a_run;
    for (const auto &[queue, regions] : queues) draw_queue(picture, queue, regions, span, rows_left);
    if (has_times) picture.text.insert(grid_at, grid(run, *span, top, picture.y));
    draw_others(picture, others);
    picture.text += "</g>\n";
    picture.y += margin;
}

std::string description(const std::vector<Run> &runs) {
    std::string text;
    for (const Run &run : runs) {
        if (text.size() > 4096) return text + " ...";
        text += (text.empty() ? "" : " ") + verdict(run) + ".";
    }
    return text;
}

}  // namespace

std::string svg_timeline(const std::vector<Run> &runs) {
    Picture picture;
    for (const Run &run : runs) draw_run(picture, run);
    if (runs.empty()) {
        add_text(picture, margin, picture.y + text_rise, "head", "No runs");
        picture.y += row_height + margin;
    }
    const std::string size = attribute("width", width) + attribute("height", picture.y);
    std::string svg = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\"" + size +
                      " viewBox=\"0 0 " + pixels(width) + " " + pixels(picture.y) +
                      "\" role=\"img\" aria-labelledby=\"title description\">\n";
    svg += "<title id=\"title\">Timeline of FPD upgrades</title>\n<desc id=\"description\">" +
           xml_text(description(runs)) + "</desc>\n";
    svg += "<style>" + std::string(style) + "</style>\n" + std::string(patterns);
    svg += "<rect class=\"back\" x=\"0.5\" y=\"0.5\" rx=\"8\"" + attribute("width", width - 1) +
           attribute("height", picture.y - 1) + "/>\n";
    return svg + picture.text + "</svg>\n";
}

}  // namespace fpd_report
