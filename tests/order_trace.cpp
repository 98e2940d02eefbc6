#include "order_trace.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <regex>
#include <stdexcept>
#include <utility>

#include "card_records.h"
#include "files.h"

namespace fs = std::filesystem;

namespace card_tests {
namespace {

const std::string main_thread = "main thread";
const std::string mount_thread = "mount thread";

// ---- reading

std::string replaced(const std::string &text, const char *pattern, const char *by) {
    return std::regex_replace(text, std::regex(pattern), by);
}

/// Gives each address a name of its own, in the order in which they turn up.
class AddressNames {
  public:
    std::string named(const std::string &message) {
        static const std::regex after_its_word("(head|tail|queue) (0x[0-9a-f]+)");
        std::smatch found;
        if (!std::regex_search(message, found, after_its_word)) return message;
        const std::size_t number = names_.emplace(found[2], names_.size() + 1).first->second;
        return found.prefix().str() + found[1].str() + " <queue " + std::to_string(number) + ">" + found.suffix().str();
    }

  private:
    std::map<std::string, std::size_t> names_;
};

std::string without_times_and_ids(std::string message) {
    message = replaced(message, "^(FPD .* transitioning state from '.*' to '.*' at )[0-9]+$", "$1<seconds>");
    message = replaced(message, "since [0-9]+ time now", "since <microseconds> time now");
    return replaced(message, "^Worker MQ id [0-9]+$", "Worker MQ id <descriptor>");
}

std::string on_one_line(const std::string &text) {
    return replaced(text, "\n", "\\n");
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return text;
}

/// Which thread a step was taken by. The log tells it of its own lines; of calls and scripts it follows from what they
/// are for.
class Threads {
  public:
    std::string of(const LogRecord &record) {
        if (record.thread == record.process) return main_thread;
        std::string &name = names_[record.thread];
        if (name.empty()) name = name_for_first(record);
        return name;
    }
    std::string of_call(const std::string &call) const {
        if (call.find("check-flash start") != std::string::npos) return mount_thread;
        if (!call.starts_with("brd_fpd_upgrade ")) return main_thread;
        for (const auto &[region, attempts] : attempts_) {
            const std::string image = "file=\"" + lower(region);
            const std::size_t at = call.find(image);
            const std::size_t end = at + image.size();
            // A region has one upgrade at a time.
            if (at != std::string::npos && (call[end] == '.' || call[end] == '-')) return worker(region, attempts);
        }
        throw std::runtime_error("a call of no worker: " + call);
    }
    static std::string of_script(const std::string &script) {
        return script.starts_with("/usr/sbin/check-flash 'start'") ? mount_thread : main_thread;
    }

  private:
    static std::string worker(const std::string &region, int attempt) {
        return "worker " + std::to_string(attempt) + " of " + region;
    }
    std::string name_for_first(const LogRecord &record) {
        static const std::string worker_says = "Started Worker thread for FPD ";
        if (record.tag == "ObflMountThreadHdlr") return mount_thread;
        if (!record.message.starts_with(worker_says)) throw std::runtime_error("a strange thread: " + record.message);
        const std::string region = record.message.substr(worker_says.size());
        return worker(region, ++attempts_[region]);
    }

    std::map<int, std::string> names_;
    std::map<std::string, int> attempts_;
};

/// The lines of the file, those of one message together; the diagnostic log's apart, in a file that can be read as one.
std::vector<std::string> split(const fs::path &file, const fs::path &log_alone) {
    std::vector<std::string> lines;
    std::string log;
    bool open = false;  // a message of the log goes on in the next line
    for (const std::string &line : lines_of(read_file(file))) {
        if (!open) lines.push_back(line);
        if (!open && !line.starts_with('[')) continue;
        log += line + "\n";
        open = !line.ends_with(']');
    }
    write_file(log_alone, log);
    return lines;
}

std::string log_text(const LogRecord &record, AddressNames &addresses) {
    const std::string message = addresses.named(without_times_and_ids(on_one_line(record.message)));
    return "[" + record.component + "] [" + record.level + "] [" + record.tag + "] [" + record.file + "] [" + message +
           "]";
}

Step step_of(const std::string &line, const Threads &threads) {
    static const std::regex event("[-0-9]+ [0-9:]+ [A-Za-z0-9+-]+ (\\[Bootup FPD\\] .*)");
    std::smatch found;
    if (std::regex_match(line, found, event)) return {main_thread, "", found[1]};
    if (line.starts_with('/')) return {Threads::of_script(line), "", line};
    return {threads.of_call(line), "", line};
}

// ---- the promised order

bool begins_progress(const Step &step) {
    return step.text.find(".sh '-e' 'progress' ") != std::string::npos;
}

bool begins_handling(const Step &step) {
    return step.tag == "FpdUpgResponse";
}

bool creates_worker(const Step &step) {
    return step.text.find("to 'FPD worker created for Upgrade' at ") != std::string::npos;
}

/// Whether the main loop turns to something new.
bool begins_something(const Step &step) {
    return begins_progress(step) || begins_handling(step) || creates_worker(step) ||
           step.tag.ends_with("MaxTransTimeOut") || step.tag == "StartFpdUpgWorkerDepFpdFail" ||
           step.tag == "AutoFpdUpgMainLoopDone";
}

using Steps = std::vector<Step>;

std::vector<Steps> parts_of(const Steps &steps) {
    std::vector<Steps> parts(1);
    for (const Step &step : steps) {
        if (begins_something(step)) parts.emplace_back();
        parts.back().push_back(step);
    }
    return parts;
}

std::string text_of(const Steps &steps) {
    std::string text;
    for (const Step &step : steps) text += step.text + "\n";
    return text;
}

bool is_progress(const Steps &part) {
    return !part.empty() && begins_progress(part.front());
}

bool is_handling(const Steps &part) {
    return !part.empty() && begins_handling(part.front());
}

void leave_first_progress(std::vector<Steps> &parts) {
    const auto first = std::find_if(parts.begin(), parts.end(), is_progress);
    if (first == parts.end()) return;
    for (auto part = first + 1; part != parts.end(); ++part) {
        if (is_progress(*part) && text_of(*part) != text_of(*first)) {
            throw std::runtime_error("not a progress event alone: " + text_of(*part));
        }
    }
    parts.erase(std::remove_if(first + 1, parts.end(), is_progress), parts.end());
}

/// "FPD IoFpga" of "[...] [FPD IoFpga received response state ...]".
std::string fpd_handled(const Steps &part) {
    const std::string &text = part.front().text;
    const std::size_t from = text.rfind('[') + 1;
    return text.substr(from, text.find(" received response") - from);
}

/// What is handled between two decisions of the main loop, FPD by FPD.
void sort_handling(std::vector<Steps> &parts) {
    const auto by_fpd = [](const Steps &a, const Steps &b) { return fpd_handled(a) < fpd_handled(b); };
    for (auto begin = parts.begin(); begin != parts.end();) {
        begin = std::find_if(begin, parts.end(), is_handling);
        const auto end = std::find_if_not(begin, parts.end(), is_handling);
        std::stable_sort(begin, end, by_fpd);
        begin = end;
    }
}

// ---- causes

/// Positions in the trace.
using Places = std::vector<std::size_t>;

template <typename Is>
Places places_of(const Steps &trace, Is is_it) {
    Places places;
    for (std::size_t i = 0; i < trace.size(); ++i) {
        if (is_it(trace[i])) places.push_back(i);
    }
    return places;
}

/// The n-th effect comes after the n-th cause.
void check_causes(const Steps &trace, const Places &causes, const Places &effects, std::vector<std::string> &broken) {
    for (std::size_t i = 0; i < effects.size(); ++i) {
        if (i >= causes.size()) {
            broken.push_back("without a cause: " + trace[effects[i]].text);
        } else if (effects[i] < causes[i]) {
            broken.push_back(trace[effects[i]].text + "\ncame before\n" + trace[causes[i]].text);
        }
    }
}

/// What a worker logs before it sends the report that main handles by this step.
std::regex before_report(const Step &handling) {
    static const std::regex parts(".*\\[FPD (.*) received response state ('.*') progress ([0-9]+)\\]");
    std::smatch found;
    if (!std::regex_match(handling.text, found, parts)) throw std::runtime_error("not a report: " + handling.text);
    const std::string fpd = found[1];
    if (found[2] == "'FPD Upgrade Started'") return std::regex("worker [0-9]+ of " + fpd + ": .*Worker MQ id.*");
    if (found[2] == "'FPD Upgrade Progressing'") {
        return std::regex("worker [0-9]+ of " + fpd + ": .*progressing percent " + found[3].str() + "\\]");
    }
    return std::regex("worker [0-9]+ of " + fpd + ": .*Upgrade state " + found[2].str() + "\\]");
}

void check_reports(const Steps &trace, std::vector<std::string> &broken) {
    std::map<std::string, Places> handlings;
    for (const std::size_t place : places_of(trace, begins_handling)) handlings[trace[place].text].push_back(place);
    for (const auto &[text, handled] : handlings) {
        const std::regex sending = before_report(trace[handled.front()]);
        const Places sent = places_of(
            trace, [&](const Step &step) { return std::regex_match(step.thread + ": " + step.text, sending); });
        check_causes(trace, sent, handled, broken);
    }
}

/// The first step of every thread of that kind, in their order.
Places first_steps(const Steps &trace, const std::string &thread) {
    std::vector<std::string> seen;
    return places_of(trace, [&](const Step &step) {
        const bool is_first =
            step.thread.starts_with(thread) && std::find(seen.begin(), seen.end(), step.thread) == seen.end();
        if (is_first) seen.push_back(step.thread);
        return is_first;
    });
}

/// A thread does nothing before main does what it does last before it creates it.
void check_beginnings(const Steps &trace, std::vector<std::string> &broken) {
    Places before_worker;
    std::size_t last_of_main = 0;
    for (std::size_t i = 0; i < trace.size(); ++i) {
        if (trace[i].thread != main_thread) continue;
        if (creates_worker(trace[i])) before_worker.push_back(last_of_main);
        last_of_main = i;
    }
    check_causes(trace, before_worker, first_steps(trace, "worker "), broken);
    const Places not_mounted = places_of(trace, [](const Step &step) { return step.tag == "ObflMountPointNotExist"; });
    check_causes(trace, not_mounted, first_steps(trace, mount_thread), broken);
}

/// Main finds the flash mounted when the mount thread is through, and a worker ends when it is cancelled.
void check_ends(const Steps &trace, std::vector<std::string> &broken) {
    const Places mounted =
        places_of(trace, [](const Step &step) { return step.thread == mount_thread && step.tag == "ObflOperCmd"; });
    Places found = places_of(trace, [](const Step &step) { return step.tag == "ObflMountPointExist"; });
    found.resize(std::min(found.size(), mounted.size()));
    check_causes(trace, mounted, found, broken);
    const Places given_up = places_of(trace, [](const Step &step) { return step.tag.ends_with("MaxTransTimeOut"); });
    const Places ended = places_of(trace, [](const Step &step) { return step.text.ends_with("-> cancelled"); });
    check_causes(trace, given_up, ended, broken);
}

}  // namespace

std::vector<Step> read_trace(const fs::path &file) {
    const fs::path log_alone = file.string() + ".log";
    const std::vector<std::string> lines = split(file, log_alone);
    const std::vector<LogRecord> log = read_log(log_alone);
    auto record = log.begin();
    AddressNames addresses;
    Threads threads;
    std::vector<Step> trace;
    for (const std::string &line : lines) {
        if (line.starts_with('[')) {
            const std::string thread = threads.of(*record);
            trace.push_back({thread, record->tag, log_text(*record, addresses)});
            ++record;
        } else {
            trace.push_back(step_of(line, threads));
        }
    }
    return trace;
}

std::vector<Step> promised_order(const std::vector<Step> &trace) {
    Steps of_main;
    Steps ordered;
    for (const Step &step : trace) (step.thread == main_thread ? of_main : ordered).push_back(step);
    std::vector<Steps> parts = parts_of(of_main);
    leave_first_progress(parts);
    sort_handling(parts);
    for (const Steps &part : parts) ordered.insert(ordered.end(), part.begin(), part.end());
    return ordered;
}

std::string threads_text(const std::vector<Step> &trace) {
    std::map<std::string, std::string> threads;
    for (const Step &step : trace) threads[step.thread] += step.text + "\n";
    std::string text;
    for (const auto &[thread, steps] : threads) text += "== " + thread + "\n" + steps;
    return text;
}

std::vector<std::string> broken_causes(const std::vector<Step> &trace) {
    std::vector<std::string> broken;
    check_beginnings(trace, broken);
    check_reports(trace, broken);
    check_ends(trace, broken);
    return broken;
}

}  // namespace card_tests
