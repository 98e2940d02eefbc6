#include "text_table.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

namespace cardsim {
namespace {

constexpr std::size_t most_columns = 80;
constexpr std::size_t least_columns = 20;
constexpr std::size_t gap = 2;
constexpr std::size_t least_last_column = 28;  // a narrower one stands below its row
constexpr std::size_t indent_below = 4;

/// Bytes from the beginning of the text that take at most so many columns.
std::size_t bytes_in(std::string_view text, std::size_t columns) {
    std::size_t at = 0;
    while (at < text.size()) {
        std::size_t next = at + 1;
        while (next < text.size() && (static_cast<unsigned char>(text[next]) & 0xc0U) == 0x80) ++next;
        if (columns-- == 0) return at;
        at = next;
    }
    return at;
}

/// Takes the first line of at most `columns` from the text; a word that is longer is cut.
std::string take_line(std::string_view &text, std::size_t columns) {
    std::size_t end = bytes_in(text, columns);
    if (end < text.size()) {
        const std::size_t blank = text.rfind(' ', end);
        if (blank != std::string_view::npos && blank > 0) end = blank;
    }
    const std::string line(text.substr(0, end));
    text.remove_prefix(end);
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    return line;
}

std::vector<std::string> lines_within(std::string_view text, std::size_t columns) {
    std::vector<std::string> lines;
    do {
        lines.push_back(take_line(text, columns));
    } while (!text.empty());
    return lines;
}

std::string without_blanks_at_end(std::string line) {
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

std::vector<std::size_t> widths_of(const std::vector<TableRow> &rows) {
    std::vector<std::size_t> widths(rows.empty() ? 0 : rows.front().size());
    for (const TableRow &row : rows) {
        for (std::size_t at = 0; at < row.size(); ++at) widths[at] = std::max(widths[at], columns_in(row[at]));
    }
    return widths;
}

/// A row without its last cell, each cell as wide as its column.
std::string head_of(const TableRow &row, const std::vector<std::size_t> &widths) {
    std::string line;
    for (std::size_t at = 0; at + 1 < row.size(); ++at) {
        line += row[at] + std::string(widths[at] + gap - columns_in(row[at]), ' ');
    }
    return line;
}

std::string row_text(const TableRow &row, const std::vector<std::size_t> &widths, std::size_t width) {
    const std::string head = head_of(row, widths);
    const std::size_t taken = columns_in(head);
    if (width == 0 || taken + columns_in(row.back()) <= width) return without_blanks_at_end(head + row.back());
    const bool is_below = taken + least_last_column > width;
    const std::size_t indent = is_below ? indent_below : taken;
    std::string text = is_below ? without_blanks_at_end(head) : std::string();
    for (const std::string &line : lines_within(row.back(), width - indent)) {
        text += without_blanks_at_end((text.empty() ? head : std::string(indent, ' ')) + line);
    }
    return text;
}

}  // namespace

std::size_t columns_of(int file) {
    if (isatty(file) == 0) return 0;
    winsize size = {};
    if (ioctl(file, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return most_columns;
    return std::clamp<std::size_t>(size.ws_col, least_columns, most_columns);
}

std::size_t columns_in(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0U) != 0x80; }));
}

std::string aligned(const std::vector<TableRow> &rows, std::size_t width) {
    const std::vector<std::size_t> widths = widths_of(rows);
    std::string text;
    for (const TableRow &row : rows) text += row_text(row, widths, width);
    return text;
}

std::string wrapped(const std::string &text, std::size_t width, std::size_t indent) {
    if (width == 0) return text + "\n";
    std::string result;
    std::string_view rest = text;
    do {
        const std::string begin(result.empty() ? 0 : indent, ' ');
        result += begin + take_line(rest, width - begin.size()) + "\n";
    } while (!rest.empty());
    return result;
}

}  // namespace cardsim
