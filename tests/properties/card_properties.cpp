/// Runs the real tool on cards made up at random and compares what comes of each with what the model says.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "check.h"
#include "files.h"
#include "happenings.h"
#include "model.h"
#include "observation.h"
#include "shrink.h"
#include "subprocess.h"

namespace fs = std::filesystem;

namespace {

using properties::Card;
using properties::Verdict;
using Clock = std::chrono::steady_clock;

constexpr uint64_t enough_cards = 1000;  // that all has to happen that can
constexpr unsigned shrinking_tries = 250;
/// Every card at work has a message queue, and the system lends one user 40 of that size.
constexpr unsigned most_jobs = 32;
constexpr std::size_t shown_mismatches = 6;
constexpr std::size_t most_shrunk_cards = 5;

/// Set by a signal: the cards at work are the last ones, and the workshop is cleared as always.
volatile std::sig_atomic_t stopped_by = 0;

extern "C" void note_signal(int number) {
    stopped_by = number;
}

struct Options {
    uint64_t cards = 1000;
    uint64_t seed = 1;
    unsigned jobs = 24;
    unsigned speed = 20;
    std::optional<uint64_t> replay;
    fs::path keep;
};

struct Totals {
    uint64_t done = 0;
    uint64_t voids = 0;
    std::vector<uint64_t> failed_seeds;
    properties::Happenings happenings;
    std::mutex lock;
};

/// Where the cards at work go: thousands of small files come and go, in memory where there is such a place.
fs::path workshop_place() {
    return fs::is_directory("/dev/shm") ? "/dev/shm" : fs::temp_directory_path();
}

double seconds_since(Clock::time_point begun) {
    return std::chrono::duration<double>(Clock::now() - begun).count();
}

// ---- what is told on the way

/// A display that stands still on a terminal; elsewhere a line every so often.
class Progress {
  public:
    explicit Progress(uint64_t cards) : cards_(cards) {}
    void show(const Totals &totals) {
        const bool is_last = totals.done == cards_;
        if (!is_last && seconds_since(shown_) < (terminal_ ? 0.2 : 30)) return;
        shown_ = Clock::now();
        const double rate = static_cast<double>(totals.done) / std::max(seconds_since(begun_), 0.001);
        std::fprintf(stderr, "%s%" PRIu64 "/%" PRIu64 " cards, %zu mismatches, %.1f cards/s, %.0f s left%s",
                     terminal_ ? "\r" : "", totals.done, cards_, totals.failed_seeds.size(), rate,
                     static_cast<double>(cards_ - totals.done) / std::max(rate, 0.001),
                     terminal_ && !is_last ? "\033[K" : "\n");
    }
    double seconds() const { return seconds_since(begun_); }

  private:
    uint64_t cards_;
    bool terminal_ = isatty(STDERR_FILENO) != 0;
    Clock::time_point begun_ = Clock::now();
    Clock::time_point shown_ = Clock::now();
};

void print_mismatches(const std::vector<std::string> &mismatches) {
    for (std::size_t at = 0; at < std::min(mismatches.size(), shown_mismatches); ++at) {
        std::printf("    %s\n", mismatches[at].c_str());
    }
    if (mismatches.size() > shown_mismatches) std::printf("    and %zu more\n", mismatches.size() - shown_mismatches);
}

/// Leaves the card in a directory of its own, with what is to be known of it at the head of its description.
void keep_small_card(const Options &options, uint64_t seed, const Card &card, const Verdict &verdict) {
    const fs::path parent = options.keep.empty() ? fs::temp_directory_path() : options.keep;
    const fs::path place = fs::absolute(parent) / ("card-" + std::to_string(seed));
    fs::remove_all(place);
    fs::create_directories(place);
    std::string text = "# Made smaller from the random card of seed " + std::to_string(seed) + ".\n";
    for (const std::string &mismatch : verdict.mismatches) text += "# " + mismatch + "\n";
    const std::string replay = properties::replay_command(card, options.speed, place);
    text += "#\n# " + replay + "\n\n" + properties::card_toml(card, properties::predict(card).marker_before);
    card_tests::write_file(place / "card.toml", text);
    std::printf("seed %" PRIu64 ", made smaller: %s\n", seed, (place / "card.toml").c_str());
    print_mismatches(verdict.mismatches);
    std::printf("    see it by %s\n    the whole card by card_properties --replay %" PRIu64 "\n", replay.c_str(), seed);
}

/// Runs a card that failed once more, and makes it smaller.
void explain(const Options &options, uint64_t seed, const fs::path &place, std::mutex &printing) {
    const Card card = properties::settled(properties::random_card(seed));
    Verdict smallest = properties::check(card, options.speed, place);
    if (smallest.mismatches.empty()) {
        std::printf("seed %" PRIu64 ": not seen again\n", seed);
        return;
    }
    const auto fails = [&](const Card &candidate) {
        if (stopped_by != 0 || properties::settled(candidate) != candidate) return false;
        const Verdict found = properties::check(candidate, options.speed, place);
        if (!found.mismatches.empty()) smallest = found;
        return !found.mismatches.empty();
    };
    const Card small = properties::shrunk(card, fails, shrinking_tries);
    const std::lock_guard guard(printing);
    keep_small_card(options, seed, small, smallest);
}

// ---- the cards

void run_card(const Options &options, uint64_t seed, const fs::path &place, Totals &totals, Progress &progress) {
    const Card card = properties::settled(properties::random_card(seed));
    const Verdict verdict = properties::check(card, options.speed, place);
    const std::lock_guard guard(totals.lock);
    ++totals.done;
    totals.voids += verdict.voids;
    for (const auto &[what, count] : verdict.happenings) totals.happenings[what] += count;
    if (!verdict.mismatches.empty()) {
        totals.failed_seeds.push_back(seed);
        std::printf("seed %" PRIu64 ":\n", seed);
        print_mismatches(verdict.mismatches);
        std::fflush(stdout);
    }
    progress.show(totals);
}

void run_all(const Options &options, const fs::path &workshop, Totals &totals, Progress &progress) {
    std::atomic<uint64_t> next = 0;
    std::vector<std::jthread> workers;
    for (unsigned job = 0; job < options.jobs; ++job) {
        workers.emplace_back([&, place = workshop / std::to_string(job)] {
            for (uint64_t at = next++; at < options.cards && stopped_by == 0; at = next++) {
                run_card(options, options.seed + at, place, totals, progress);
            }
        });
    }
}

void print_totals(const Options &options, const Totals &totals, double seconds) {
    for (const auto &[what, count] : totals.happenings) std::printf("%10" PRIu64 "  %s\n", count, what.c_str());
    std::printf("%10" PRIu64 "  runs void for the machine's sake, and repeated\n", totals.voids);
    std::printf("seeds %" PRIu64 " to %" PRIu64 ": %" PRIu64 " cards, %zu mismatches, %.0f s, speed %u, %u jobs\n",
                options.seed, options.seed + options.cards - 1, totals.done, totals.failed_seeds.size(), seconds,
                options.speed, options.jobs);
}

/// Whether everything happened that so many cards must show.
bool is_complete(const Options &options, const Totals &totals) {
    if (options.cards < enough_cards) return true;
    const std::vector<std::string> never = properties::missing(totals.happenings);
    for (const std::string &what : never) std::printf("never happened: %s\n", what.c_str());
    return never.empty();
}

/// The first ones, all at the same time.
void explain_failures(const Options &options, Totals &totals, const fs::path &workshop) {
    std::sort(totals.failed_seeds.begin(), totals.failed_seeds.end());
    std::vector<std::jthread> workers;
    for (std::size_t at = 0; at < std::min(totals.failed_seeds.size(), most_shrunk_cards); ++at) {
        workers.emplace_back([&, at] {
            explain(options, totals.failed_seeds[at], workshop / ("again-" + std::to_string(at)), totals.lock);
        });
    }
}

void add_options(CLI::App &app, Options &options) {
    app.add_option("--cards", options.cards, "how many")->capture_default_str();
    app.add_option("--seed", options.seed, "of the first card; each has its own, one more than the last")
        ->capture_default_str();
    app.add_option("--jobs", options.jobs, "cards at work at a time; most of the time they wait")
        ->check(CLI::Range(1U, most_jobs))
        ->capture_default_str();
    app.add_option("--speed", options.speed, "of the cards' time")
        ->check(CLI::Range(properties::slowest_speed, 1000U))
        ->capture_default_str();
    app.add_option("--replay", options.replay, "one card: run it, and make it smaller if it fails");
    app.add_option("--keep", options.keep, "where the cards that failed are left (default: the temporary directory)");
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"Runs the tool on random cards and compares what comes of them with a model."};
    Options options;
    add_options(app, options);
    CLI11_PARSE(app, argc, argv);
    if (options.replay) {
        options.seed = *options.replay;
        options.cards = 1;
    }
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) std::signal(number, note_signal);
    try {
        card_tests::set_sanitizer_options();
        const card_tests::TemporaryDirectory workshop("card-properties", workshop_place());
        Totals totals;
        Progress progress(options.cards);
        run_all(options, workshop.path(), totals, progress);
        print_totals(options, totals, progress.seconds());
        if (stopped_by != 0) {
            std::fprintf(stderr, "card_properties: stopped by signal %d\n", static_cast<int>(stopped_by));
            return 128 + stopped_by;
        }
        const bool complete = is_complete(options, totals);
        std::fflush(stdout);
        explain_failures(options, totals, workshop.path());
        return complete && totals.failed_seeds.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception &reason) {
        std::fprintf(stderr, "card_properties: %s\n", reason.what());
        return EXIT_FAILURE;
    }
}
