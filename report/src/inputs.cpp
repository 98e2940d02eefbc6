#include "inputs.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <string_view>

#include "log_file.h"

namespace fs = std::filesystem;

namespace fpd_report {
namespace {

using Paths = std::vector<std::string>;

/// One log per rotated set, in the order of their first files.
std::vector<Log> logs_of(const Paths &paths) {
    std::vector<Log> logs;
    std::map<std::string, std::size_t> places;
    for (const std::string &path : paths) {
        const std::string name = fpd_log::log_of(path);
        const auto [place, is_new] = places.try_emplace(name, logs.size());
        if (is_new) logs.push_back({name, {}});
        logs[place->second].files.push_back(path);
    }
    for (Log &log : logs) fpd_log::sort_rotated(&log.files);
    return logs;
}

bool is_hidden(const fs::path &path) {
    return path.filename().native().starts_with('.');
}

bool is_file(const fs::directory_entry &entry) {
    std::error_code ignored;
    return entry.is_regular_file(ignored) && !is_hidden(entry.path());
}

/// Not through links: a directory is visited once.
bool is_subdirectory(const fs::directory_entry &entry) {
    std::error_code ignored;
    return entry.is_directory(ignored) && !entry.is_symlink(ignored) && !is_hidden(entry.path());
}

std::vector<fs::directory_entry> sorted_entries(const fs::path &directory, std::vector<std::string> *errors) {
    std::vector<fs::directory_entry> entries;
    std::error_code error;
    for (fs::directory_iterator at(directory, error), end; !error && at != end; at.increment(error)) {
        entries.push_back(*at);
    }
    if (error) errors->push_back(directory.string() + ": " + error.message());
    std::sort(entries.begin(), entries.end());
    return entries;
}

constexpr int deepest = 16;

/// The files named *.log in a card's directory and below, rotated ones included.
void find_logs_below(const fs::path &directory, int depth, Paths *paths, std::vector<std::string> *errors) {
    for (const fs::directory_entry &entry : sorted_entries(directory, errors)) {
        const std::string path = entry.path().string();
        if (is_subdirectory(entry) && depth < deepest) {
            find_logs_below(entry.path(), depth + 1, paths, errors);
        } else if (is_file(entry) && fpd_log::log_of(path).ends_with(".log")) {
            paths->push_back(path);
        }
    }
}

/// The name of what a path below the directory belongs to, without the directory.
std::string name_below(const fs::path &directory, const std::string &path) {
    return fs::path(path).lexically_relative(directory).string();
}

/// The report itself, of an earlier time, in the directory that it is about.
bool is_output(const fs::directory_entry &entry, const std::string &output) {
    std::error_code ignored;
    return !output.empty() && fs::equivalent(entry.path(), output, ignored);
}

void add_directory(const std::string &argument, bool among_others, const std::string &output, Inputs *inputs) {
    const fs::path directory(argument);
    const std::string prefix = among_others ? (directory / "").string() : "";
    Paths files;
    for (const fs::directory_entry &entry : sorted_entries(directory, &inputs->errors)) {
        if (is_subdirectory(entry)) {
            Paths paths;
            find_logs_below(entry.path(), 0, &paths, &inputs->errors);
            inputs->cards.push_back({prefix + entry.path().filename().string(), logs_of(paths)});
        } else if (is_file(entry) && !is_output(entry, output)) {
            files.push_back(entry.path().string());
        }
    }
    for (Log &log : logs_of(files)) {
        const std::string name = prefix + name_below(directory, log.name);
        inputs->cards.push_back({name, {std::move(log)}});
    }
    inputs->has_directory = true;
}

/// A file that is named twice, or named and in a directory, is read once.
void drop_repeated(std::vector<Card> *cards) {
    std::set<std::string> files, names;
    std::erase_if(*cards, [&](Card &card) {
        const bool has_logs = !card.logs.empty();
        for (Log &log : card.logs) {
            std::erase_if(log.files, [&](const std::string &file) { return !files.insert(file).second; });
        }
        std::erase_if(card.logs, [](const Log &log) { return log.files.empty(); });
        const bool is_new = names.insert(card.name).second;
        return card.logs.empty() && (has_logs || !is_new);
    });
}

}  // namespace

Inputs find_inputs(const std::vector<std::string> &arguments, const std::string &output) {
    Inputs inputs;
    Paths files;
    for (const std::string &argument : arguments) {
        std::error_code ignored;
        if (argument != "-" && fs::is_directory(argument, ignored)) {
            add_directory(argument, arguments.size() > 1, output, &inputs);
        } else {
            files.push_back(argument);
        }
    }
    for (Log &log : logs_of(files)) {
        if (log.name == "-") log = {"standard input", {fpd_log::standard_input}};
        const std::string name = log.name;
        inputs.cards.push_back({name, {std::move(log)}});
    }
    drop_repeated(&inputs.cards);
    return inputs;
}

}  // namespace fpd_report
