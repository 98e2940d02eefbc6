#include "toml_reader.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <string_view>
#include <utility>

#include "file_text.h"
#include "printable.h"

namespace cardsim {

namespace {

std::string type_name(const toml::node &node) {
    switch (node.type()) {
        case toml::node_type::table:
            return "a table";
        case toml::node_type::array:
            return "an array";
        case toml::node_type::string:
            return "a text";
        case toml::node_type::integer:
            return "a whole number";
        case toml::node_type::floating_point:
            return "a number";
        case toml::node_type::boolean:
            return "true or false";
        default:
            return "a date or a time";
    }
}

bool is_control_character(char byte) {
    const auto value = static_cast<unsigned char>(byte);
    return value < 0x20 || value == 0x7f;
}

[[noreturn]] void fail_in(const std::string &path, uint32_t line, const std::string &reason) {
    throw Error(printable(path + ":" + std::to_string(line) + ": " + reason));
}

void require_plain_file(const Descriptor &file, const std::filesystem::path &path) {
    struct stat status = {};
    if (fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode)) return;
    const char *const what = S_ISDIR(status.st_mode) ? "Is a directory" : "not a plain file";
    throw Error(printable(path.string() + ": cannot be read: " + what));
}

/// Where the string that begins at `at` ends, as the parser sees it; after one that it refuses it reads no further.
size_t end_of_string(std::string_view text, size_t at) {
    const char quote = text[at];
    const bool is_long = text.substr(at, 3) == std::string(3, quote);
    const std::string end(is_long ? 3 : 1, quote);
    for (at += end.size(); at < text.size(); ++at) {
        if (quote == '"' && text[at] == '\\') {
            ++at;
        } else if (text.substr(at, end.size()) == end) {
            at += end.size();
            // Two more quotes may belong to the text of a long string.
            for (int more = 0; is_long && more < 2 && at < text.size() && text[at] == quote; ++more) {
                ++at;
            }
            return at;
        } else if (!is_long && text[at] == '\n') {
            return at;
        }
    }
    return text.size();
}

/// Throws Error where tables and arrays, each dot of a key counted as one, nest deeper than anything here needs.
void check_nesting(std::string_view text, const std::string &path) {
    constexpr size_t most = 32;
    std::vector<size_t> outer;  // depths in front of the brackets that are open
    size_t depth = 0;
    uint32_t line = 1;
    for (size_t at = 0; at < text.size();) {
        const char byte = text[at];
        if (byte == '"' || byte == '\'') {
            const size_t end = end_of_string(text, at);
            line += static_cast<uint32_t>(std::count(&text[at], &text[0] + end, '\n'));
            at = end;
            continue;
        }
        if (byte == '#') {
            at = std::min(text.find('\n', at), text.size());
            continue;
        }
        if (byte == '.') {
            ++depth;
        } else if (byte == '[' || byte == '{') {
            outer.push_back(depth++);
        } else if ((byte == ']' || byte == '}') && !outer.empty()) {
            depth = outer.back();
            outer.pop_back();
        } else if (byte == ',') {
            depth = outer.empty() ? 0 : outer.back() + 1;
        } else if (byte == '\n') {
            ++line;
            depth = outer.empty() ? 0 : depth;
        }
        if (depth > most) {
            fail_in(path, line, "nested deeper than " + std::to_string(most) + " levels");
        }
        ++at;
    }
}

}  // namespace

uint32_t line_of(const toml::node &node) {
    return static_cast<uint32_t>(node.source().begin.line);
}

toml::table parse_toml(const Descriptor &file, const std::filesystem::path &path, size_t most) {
    require_plain_file(file, path);
    const std::string text = read_text(file, path, most);
    check_nesting(text, path.string());
    try {
        return toml::parse(text, path.string());
    } catch (const toml::parse_error &error) {
        fail_at(error.source(), std::string(error.description()));
    }
}

void fail_at(const toml::source_region &place, const std::string &reason) {
    fail_in(place.path == nullptr ? "" : *place.path, static_cast<uint32_t>(place.begin.line), reason);
}

TableReader::TableReader(const toml::table &table, std::string where) : table_(table), where_(std::move(where)) {}

const toml::node *TableReader::node(const char *key) {
    asked_.emplace(key);
    return table_.get(key);
}

std::optional<int64_t> TableReader::whole(const char *key, int64_t least, int64_t most) {
    const toml::node *found = node(key);
    if (found == nullptr) {
        return std::nullopt;
    }
    const auto *number = found->as_integer();
    if (number == nullptr) {
        fail(key, "expected a whole number, found " + type_name(*found));
    }
    if (number->get() < least || number->get() > most) {
        fail(key, "expected a whole number from " + std::to_string(least) + " to " + std::to_string(most) + ", found " +
                      std::to_string(number->get()));
    }
    return number->get();
}

std::optional<double> TableReader::seconds(const char *key) {
    // A month: more is a slip of the pen, and it keeps sums of times far from the clock's range.
    constexpr double most = 31.0 * 24 * 3600;
    const toml::node *found = node(key);
    if (found == nullptr) {
        return std::nullopt;
    }
    if (!found->is_number()) {
        fail(key, "expected a number of seconds, found " + type_name(*found));
    }
    const double value = found->value<double>().value_or(most + 1);  // none: a number that no double holds
    if (!std::isfinite(value) || value < 0 || value > most) {
        fail(key, "expected seconds from 0 to 2678400");
    }
    return value;
}

std::optional<bool> TableReader::flag(const char *key) {
    const toml::node *found = node(key);
    if (found == nullptr) {
        return std::nullopt;
    }
    if (!found->is_boolean()) {
        fail(key, "expected true or false, found " + type_name(*found));
    }
    return found->as_boolean()->get();
}

std::optional<std::string> TableReader::text(const char *key) {
    const toml::node *found = node(key);
    if (found == nullptr) {
        return std::nullopt;
    }
    if (!found->is_string()) {
        fail(key, "expected a text, found " + type_name(*found));
    }
    return found->as_string()->get();
}

std::optional<std::string> TableReader::line(const char *key, size_t most) {
    std::optional<std::string> value = text(key);
    if (value && value->size() > most) {
        fail(key, "longer than " + std::to_string(most) + " characters");
    }
    if (value && std::any_of(value->begin(), value->end(), is_control_character)) {
        fail(key, "holds a control character");
    }
    return value;
}

const toml::table *TableReader::table(const char *key) {
    const toml::node *found = node(key);
    if (found != nullptr && !found->is_table()) {
        fail(key, "expected a table, found " + type_name(*found));
    }
    return found == nullptr ? nullptr : found->as_table();
}

std::vector<const toml::table *> TableReader::tables(const char *key) {
    const toml::node *found = node(key);
    if (found == nullptr) {
        return {};
    }
    if (!found->is_array()) {
        fail(key, "expected tables, each with a heading of its own in double brackets, found " + type_name(*found));
    }
    std::vector<const toml::table *> result;
    for (const toml::node &element : *found->as_array()) {
        if (!element.is_table()) {
            fail_at(element.source(), where_ + ": " + key + ": expected a table, found " + type_name(element));
        }
        result.push_back(element.as_table());
    }
    return result;
}

void TableReader::finish() const {
    const toml::key *unknown = nullptr;
    for (const auto &[key, value] : table_) {
        const bool is_first = unknown == nullptr || key.source().begin.line < unknown->source().begin.line;
        if (!asked_.contains(key.str()) && is_first) {
            unknown = &key;
        }
    }
    if (unknown != nullptr) {
        fail_at(unknown->source(), where_ + ": unknown key '" + std::string(unknown->str()) + "'");
    }
}

void TableReader::fail(const char *key, const std::string &reason) const {
    const toml::node *found = table_.get(key);
    fail_at((found == nullptr ? static_cast<const toml::node &>(table_) : *found).source(),
            where_ + ": " + key + ": " + reason);
}

void TableReader::fail(const std::string &reason) const {
    fail_at(table_.source(), where_ + " " + reason);
}

}  // namespace cardsim
