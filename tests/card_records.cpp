#include "card_records.h"

#include <toml++/toml.h>
#include <algorithm>
#include <iterator>
#include <stdexcept>

#include "files.h"
#include "text_match.h"

namespace fs = std::filesystem;

namespace card_tests {
namespace {

/// A line of the log, its message as far as it stands in the line.
const std::string log_line =
    R"(\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\.(0|[1-9][0-9]{0,5}) [A-Za-z0-9+-]+\] )"
    R"(\[([0-9]+):([0-9]+)\] \[(FPD|EVENTS|BRD|PLATFORM|LED)\] \[(ERROR|INFO|DEBUG)\] )"
    R"(\[([A-Za-z0-9]+)\] \[([a-z_]+):([1-9][0-9]*)\] \[(.*))";

LogRecord log_record(const std::string &line) {
    const std::vector<std::string> parts = match(log_line, line);
    if (parts.empty()) throw std::runtime_error("not a line of the diagnostic log: " + line);
    return {parts[4],           parts[5], parts[6], parts[7], std::stoi(parts[8]), parts[9], std::stoi(parts[2]),
            std::stoi(parts[3])};
}

std::string version_of(const toml::node_view<toml::node> &node) {
    const toml::array &parts = *node.as_array();
    std::string text;
    for (const toml::node &part : parts) {
        text += (text.empty() ? "" : ".") + std::to_string(part.value<int64_t>().value());
    }
    return text;
}

template <typename T>
const T &found(const std::vector<std::pair<std::string, T>> &list, const std::string &name) {
    const auto at = std::find_if(list.begin(), list.end(), [&](const auto &entry) { return entry.first == name; });
    if (at == list.end()) throw std::runtime_error("the card has no region " + name);
    return at->second;
}

}  // namespace

std::vector<LogRecord> read_log(const fs::path &file) {
    std::vector<LogRecord> log;
    bool open = false;  // a message goes on in the next line
    for (const std::string &line : lines_of(read_file(file))) {
        if (open) {
            log.back().message += "\n" + line;
        } else {
            log.push_back(log_record(line));
        }
        std::string &message = log.back().message;
        open = message.empty() || message.back() != ']';
        if (!open) message.pop_back();
    }
    if (open) throw std::runtime_error("the diagnostic log ends in the midst of a line: " + log.back().message);
    return log;
}

std::vector<LogRecord> with_tag(const std::vector<LogRecord> &log, const std::string &tag) {
    std::vector<LogRecord> some;
    std::copy_if(log.begin(), log.end(), std::back_inserter(some),
                 [&](const LogRecord &record) { return record.tag == tag; });
    return some;
}

std::vector<LogRecord> with_level(const std::vector<LogRecord> &log, const std::string &level) {
    std::vector<LogRecord> some;
    std::copy_if(log.begin(), log.end(), std::back_inserter(some),
                 [&](const LogRecord &record) { return record.level == level; });
    return some;
}

std::vector<std::string> texts(const std::vector<LogRecord> &log) {
    std::vector<std::string> lines;
    for (const LogRecord &record : log) {
        lines.push_back("[" + record.component + "] [" + record.level + "] [" + record.tag + "] " + record.message);
    }
    return lines;
}

std::vector<std::string> messages(const std::vector<LogRecord> &log) {
    std::vector<std::string> lines;
    for (const LogRecord &record : log) lines.push_back(record.message);
    return lines;
}

std::vector<CallRecord> read_calls(const fs::path &file) {
    std::vector<CallRecord> calls;
    for (const std::string &line : lines_of(read_file(file))) {
        const std::size_t arrow = line.rfind(" -> ");
        const std::size_t end = arrow == std::string::npos ? line.rfind(" begin") : arrow;
        if (end == std::string::npos) throw std::runtime_error("not the record of a call: " + line);
        const std::size_t name = std::min(line.find(' '), end);
        calls.push_back(
            {line.substr(0, name), name == end ? "" : line.substr(name + 1, end - name - 1), line.substr(end + 1)});
    }
    return calls;
}

std::vector<CallRecord> of_function(const std::vector<CallRecord> &calls, const std::string &function) {
    std::vector<CallRecord> some;
    std::copy_if(calls.begin(), calls.end(), std::back_inserter(some),
                 [&](const CallRecord &call) { return call.function == function; });
    return some;
}

std::vector<std::string> texts(const std::vector<CallRecord> &calls) {
    std::vector<std::string> lines;
    for (const CallRecord &call : calls) lines.push_back(call.text());
    return lines;
}

RegionState CardState::region(const std::string &name) const {
    return found(regions, name);
}

LedLook CardState::led(int64_t id) const {
    for (const auto &[known, look] : leds) {
        if (known == id) return look;
    }
    throw std::runtime_error("the card has no LED " + std::to_string(id));
}

CardState read_state(const fs::path &file) {
    toml::table table = toml::parse_file(file.string());
    CardState state;
    state.boot = table["boot"].value<int64_t>().value();
    state.auto_upgrade = table["auto_upgrade"].value<int64_t>().value();
    state.upgrade_mode = table["upgrade_mode"].value<int64_t>().value();
    for (toml::node &node : *table["region"].as_array()) {
        toml::node_view<toml::node> region(node);
        state.regions.push_back({region["name"].value<std::string>().value(),
                                 {version_of(region["running"]), version_of(region["programmed"])}});
    }
    for (toml::node &node : *table["led"].as_array()) {
        toml::node_view<toml::node> led(node);
        state.leds.push_back({led["id"].value<int64_t>().value(),
                              {led["state"].value<int64_t>().value(), led["color"].value<int64_t>().value()}});
    }
    return state;
}

}  // namespace card_tests
