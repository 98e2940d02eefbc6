#include "reading.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "log_file.h"
#include "run_reader.h"

namespace fpd_report {
namespace {

using fpd_log::FlashEvent;
using fpd_log::Run;

constexpr std::size_t reader_threads = 2;
constexpr std::size_t flash_events_kept = 100'000, longest_flash_line = 65'536;
constexpr fpd_log::Time second = 1'000'000;

/// What the threads of a fleet share.
struct FleetWork {
    explicit FleetWork(const std::vector<Card> &all) : cards(all) {}

    const std::vector<Card> &cards;
    std::atomic<std::size_t> next = 0;

    std::mutex mutex;  // of what follows
    std::condition_variable one_is_done;
    std::size_t done = 0;
    Fleet fleet;
    std::vector<std::string> errors;
};

std::string why_no_run(const Card &card, const std::vector<std::string> &errors) {
    if (!errors.empty()) return errors.front();
    return card.logs.empty() ? "no file is named *.log" : "no line of its logs is one of the tool";
}

void read_card(const Card &card, FleetWork *work) {
    std::optional<Run> last;
    std::uint64_t runs = 0;
    std::vector<std::string> errors;
    const auto take = [&](Run &&run) {
        ++runs;
        const bool is_later = !last || run.begin >= last->begin || run.source == last->source;
        if (!last || (is_later && tells_more(*last, run))) last = std::move(run);
    };
    for (const Log &log : card.logs) read_log(log, take, &errors);
    const std::lock_guard lock(work->mutex);
    work->fleet.add_card(card.name, last ? &*last : nullptr, runs, why_no_run(card, errors));
    work->errors.insert(work->errors.end(), errors.begin(), errors.end());
    ++work->done;
    work->one_is_done.notify_one();
}

void read_cards(FleetWork *work) {
    for (std::size_t at = work->next++; at < work->cards.size(); at = work->next++) read_card(work->cards[at], work);
}

void draw_progress(std::size_t done, std::size_t all) {
    constexpr std::size_t bar_width = 40;
    const std::size_t filled = done * bar_width / all;
    const std::string bar = std::string(filled, '#') + std::string(bar_width - filled, '-');
    std::fprintf(stderr, "\r[%s] %zu of %zu cards", bar.c_str(), done, all);
    std::fflush(stderr);
}

void clear_progress() {
    std::fprintf(stderr, "\r\033[K");
}

void show_progress_until_done(FleetWork *work) {
    constexpr std::chrono::milliseconds period{100};
    const std::size_t all = work->cards.size();
    std::unique_lock lock(work->mutex);
    while (!work->one_is_done.wait_for(lock, period, [work, all] { return work->done == all; })) {
        draw_progress(work->done, all);
    }
    clear_progress();
}

}  // namespace

void read_log(const Log &log, const std::function<void(Run &&)> &take, std::vector<std::string> *errors) {
    fpd_log::RunReader reader(take);
    reader.begin_source(log.name);
    for (const std::string &file : log.files) {
        std::string error;
        const auto push = [&reader](std::string_view text) { reader.push(text); };
        if (fpd_log::read_log_file(file, push, &error) != 0) errors->push_back(error);
    }
    reader.finish();
}

bool tells_more(const Run &before, const Run &run) {
    const auto looked = [](const Run &one) { return !one.regions.empty() || !one.failure.empty(); };
    return looked(run) || !looked(before);
}

Fleet read_fleet(const std::vector<Card> &cards, bool show_progress, std::vector<std::string> *errors) {
    FleetWork work(cards);
    {
        std::vector<std::jthread> threads;
        for (std::size_t count = 0; count < reader_threads; ++count) threads.emplace_back(read_cards, &work);
        if (show_progress && !cards.empty()) show_progress_until_done(&work);
    }
    std::sort(work.errors.begin(), work.errors.end());
    errors->insert(errors->end(), work.errors.begin(), work.errors.end());
    return std::move(work.fleet);
}

std::vector<FlashEvent> read_flash_log(const std::string &path, std::vector<std::string> *errors) {
    std::vector<FlashEvent> events;
    std::string line;
    const auto take_line = [&] {
        const auto event = fpd_log::parse_flash_line(line);
        if (event && events.size() < flash_events_kept) events.push_back(*event);
        line.clear();
    };
    const auto take = [&](std::string_view text) {
        for (const char letter : text) {
            if (letter == '\n') {
                take_line();
            } else if (line.size() < longest_flash_line) {
                line += letter;
            }
        }
    };
    std::string error;
    if (fpd_log::read_log_file(path, take, &error) != 0) errors->push_back(error);
    take_line();
    return events;
}

std::vector<FlashEvent> events_of_run(const std::vector<FlashEvent> &events, const Run &run) {
    std::vector<FlashEvent> result;
    const fpd_log::Time begin = run.begin - run.begin % second, end = run.end;
    std::copy_if(events.begin(), events.end(), std::back_inserter(result),
                 [begin, end](const FlashEvent &event) { return event.time >= begin && event.time <= end; });
    return result;
}

}  // namespace fpd_report
