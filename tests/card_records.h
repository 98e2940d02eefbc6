/// What a simulated card remembers of the tool that ran on it, as records.
#ifndef CARD_RECORDS_H
#define CARD_RECORDS_H

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace card_tests {

/// One line of the tool's diagnostic log.
struct LogRecord {
    std::string component;
    std::string level;
    std::string tag;
    std::string file;
    int line = 0;
    std::string message;  ///< may hold newlines
    int process = 0;
    int thread = 0;
};

/// Reads the log; throws std::runtime_error for a line that is not as it has to be.
std::vector<LogRecord> read_log(const std::filesystem::path &file);

/// Those of a tag, or of a level.
std::vector<LogRecord> with_tag(const std::vector<LogRecord> &log, const std::string &tag);
std::vector<LogRecord> with_level(const std::vector<LogRecord> &log, const std::string &level);

/// "[level] [tag] message" of each, to compare and to look at.
std::vector<std::string> texts(const std::vector<LogRecord> &log);

/// The messages alone.
std::vector<std::string> messages(const std::vector<LogRecord> &log);

/// One line of the card's record of calls.
struct CallRecord {
    std::string function;
    std::string arguments;
    std::string outcome;  ///< "begin", "-> 0", "-> cancelled"
    std::string text() const { return function + (arguments.empty() ? "" : " ") + arguments + " " + outcome; }
};
std::vector<CallRecord> read_calls(const std::filesystem::path &file);
std::vector<CallRecord> of_function(const std::vector<CallRecord> &calls, const std::string &function);
std::vector<std::string> texts(const std::vector<CallRecord> &calls);

/// The state that a card is left in.
struct RegionState {
    std::string running;
    std::string programmed;
    bool operator==(const RegionState &) const = default;
};
struct LedLook {
    int64_t state = -1;
    int64_t color = -1;
    bool operator==(const LedLook &) const = default;
};
struct CardState {
    int64_t boot = 0;
    int64_t auto_upgrade = -1;
    int64_t upgrade_mode = -1;
    std::vector<std::pair<std::string, RegionState>> regions;  ///< by name, in the card's order
    std::vector<std::pair<int64_t, LedLook>> leds;             ///< by object id

    RegionState region(const std::string &name) const;  ///< throws std::runtime_error when there is none
    LedLook led(int64_t id) const;
};
CardState read_state(const std::filesystem::path &file);

}  // namespace card_tests

#endif
