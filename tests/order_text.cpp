#include "order_text.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "files.h"

namespace fs = std::filesystem;

namespace card_tests {
namespace {

using Lines = std::vector<std::string>;
using Files = std::vector<fs::path>;

bool is_compared(const std::string &line) {
    return !line.empty() && !line.starts_with('#');
}

// ---- includes

struct Replacement {
    std::string by;
    std::string of;
    bool used = false;
};

/// "include NAME", "include NAME with A for B, C for D".
struct Include {
    fs::path file;
    std::vector<Replacement> replacements;
};

constexpr std::string_view include_word = "include ";

/// The text up to `separator`, which goes with it; all of the text when there is none.
std::string take_until(std::string &text, std::string_view separator) {
    const std::size_t at = text.find(separator);
    const std::string taken = text.substr(0, at);
    text.erase(0, at == std::string::npos ? at : at + separator.size());
    return taken;
}

Include include_of(const std::string &line, const fs::path &directory) {
    std::string rest = line.substr(include_word.size());
    Include include{directory / take_until(rest, " with "), {}};
    while (!rest.empty()) {
        std::string replacement = take_until(rest, ", ");
        const std::string by = take_until(replacement, " for ");
        if (by.empty() || replacement.empty()) throw std::runtime_error("not A for B: " + line);
        include.replacements.push_back({by, replacement});
    }
    return include;
}

/// All at once: nothing that was put in is replaced again.
std::string replaced(const std::string &line, std::vector<Replacement> &replacements) {
    std::string text;
    for (std::size_t at = 0; at < line.size();) {
        const auto here = std::find_if(replacements.begin(), replacements.end(), [&](const Replacement &replacement) {
            return line.compare(at, replacement.of.size(), replacement.of) == 0;
        });
        if (here == replacements.end()) {
            text += line[at++];
            continue;
        }
        text += here->by;
        at += here->of.size();
        here->used = true;
    }
    return text;
}

/// The lines of a file, those of what it includes among them; `within` are the files that include it.
Lines expanded(const fs::path &file, const Files &within);

Lines lines_for(const std::string &line, const Files &within) {
    if (!line.starts_with(include_word)) return {line};
    Include include = include_of(line, within.back().parent_path());
    Lines lines = expanded(include.file, within);
    for (std::string &included : lines) included = replaced(included, include.replacements);
    for (const Replacement &replacement : include.replacements) {
        if (!replacement.used) throw std::runtime_error("nothing to replace: " + replacement.of + ": " + line);
    }
    return lines;
}

Lines expanded(const fs::path &file, const Files &within) {
    if (!fs::exists(file)) throw std::runtime_error("no such file: " + file.string());
    if (std::find(within.begin(), within.end(), file) != within.end()) {
        throw std::runtime_error("includes itself: " + file.string());
    }
    Files and_this = within;
    and_this.push_back(file);
    Lines lines;
    for (const std::string &line : lines_of(read_file(file))) {
        const Lines more = lines_for(line, and_this);
        lines.insert(lines.end(), more.begin(), more.end());
    }
    return lines;
}

// ---- what of a file still holds

constexpr std::size_t nowhere = std::string::npos;

/// For each old line its place among the new ones, or nowhere: the longest sequence that both have.
std::vector<std::size_t> places_among(const Lines &old_lines, const Lines &new_lines) {
    std::vector<std::vector<std::size_t>> length(old_lines.size() + 1, std::vector<std::size_t>(new_lines.size() + 1));
    for (std::size_t i = old_lines.size(); i-- > 0;) {
        for (std::size_t j = new_lines.size(); j-- > 0;) {
            length[i][j] =
                old_lines[i] == new_lines[j] ? length[i + 1][j + 1] + 1 : std::max(length[i + 1][j], length[i][j + 1]);
        }
    }
    std::vector<std::size_t> places(old_lines.size(), nowhere);
    for (std::size_t i = 0, j = 0; i < old_lines.size() && j < new_lines.size();) {
        if (old_lines[i] == new_lines[j]) {
            places[i++] = j++;
        } else {
            ++(length[i + 1][j] >= length[i][j + 1] ? i : j);
        }
    }
    return places;
}

/// Writes the file anew, entry by entry.
class Update {
  public:
    Update(const Lines &old_lines, Lines new_lines)
        : new_lines_(std::move(new_lines)), places_(places_among(old_lines, new_lines_)) {}

    void add(const OrderEntry &entry) {
        const auto compared =
            static_cast<std::size_t>(std::count_if(entry.lines.begin(), entry.lines.end(), is_compared));
        if (compared > 0 && holds(compared)) {
            write_new(places_[old_]);
            text_ += entry.source + "\n";
            old_ += compared;
            new_ += compared;
            return;
        }
        for (const std::string &line : entry.lines) is_compared(line) ? add_compared() : add_comment(line);
    }
    std::string text() {
        write_new(new_lines_.size());
        return text_;
    }

  private:
    /// Whether so many of the next old lines stand together among the new ones.
    bool holds(std::size_t count) const {
        for (std::size_t i = old_; i < old_ + count; ++i) {
            if (places_[i] == nowhere || places_[i] != places_[old_] + (i - old_)) return false;
        }
        return true;
    }
    void add_comment(const std::string &line) {
        // What is new comes after the line before it, but in place of a line that is gone.
        if (old_ < places_.size() && places_[old_] != nowhere) write_new(places_[old_]);
        text_ += line + "\n";
    }
    void add_compared() {
        const std::size_t place = places_[old_++];
        write_new(place == nowhere ? next_place() : place + 1);
    }
    /// Where the next old line that holds stands.
    std::size_t next_place() const {
        const auto next = std::find_if(places_.begin() + static_cast<std::ptrdiff_t>(old_), places_.end(),
                                       [](std::size_t place) { return place != nowhere; });
        return next == places_.end() ? new_lines_.size() : *next;
    }
    void write_new(std::size_t end) {
        for (; new_ < end; ++new_) {
            const bool heads = new_lines_[new_].starts_with("== ");
            if (heads && !text_.empty() && !text_.ends_with("\n\n")) text_ += "\n";
            text_ += new_lines_[new_] + "\n";
        }
    }

    Lines new_lines_;
    std::vector<std::size_t> places_;
    std::size_t old_ = 0;
    std::size_t new_ = 0;
    std::string text_;
};

}  // namespace

std::vector<OrderEntry> read_order(const fs::path &file) {
    std::vector<OrderEntry> entries;
    for (const std::string &line : lines_of(read_file(file))) entries.push_back({line, lines_for(line, {file})});
    return entries;
}

std::string compared_text(const std::vector<OrderEntry> &entries) {
    std::string text;
    for (const OrderEntry &entry : entries) {
        for (const std::string &line : entry.lines) {
            if (is_compared(line)) text += line + "\n";
        }
    }
    return text;
}

std::string updated_order(const std::vector<OrderEntry> &entries, const std::string &text) {
    Update update(lines_of(compared_text(entries)), lines_of(text));
    for (const OrderEntry &entry : entries) update.add(entry);
    return update.text();
}

}  // namespace card_tests
