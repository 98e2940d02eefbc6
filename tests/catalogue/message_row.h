/// The rows of the message catalogue. What they say is the contract of the tool's texts, which others read by machine.
#ifndef MESSAGE_ROW_H
#define MESSAGE_ROW_H

#include <span>
#include <string_view>

namespace catalogue {

enum class Level { error, info, debug };

/// One line of the diagnostic log.
struct LogRow {
    Level level;
    std::string_view tag;
    std::string_view format;            // as printf takes it
    std::string_view unreachable = {};  // why no run writes it; empty: a test compares it whole
};

/// The lines that one module writes.
struct LogModuleRows {
    std::string_view component;
    std::string_view file;  // as the log shows it: the source file without its extension
    std::span<const LogRow> rows;
};

enum class Stream { out, err };

/// One text of the front end.
struct AnswerRow {
    Stream stream;
    std::string_view format;
    std::string_view unreachable = {};
};

constexpr std::string_view level_word(Level level) {
    switch (level) {
        case Level::error:
            return "ERROR";
        case Level::info:
            return "INFO";
        case Level::debug:
            return "DEBUG";
    }
    return "";
}

constexpr std::string_view stream_word(Stream stream) {
    return stream == Stream::out ? "stdout" : "stderr";
}

}  // namespace catalogue

#endif
