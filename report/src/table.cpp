#include "table.h"

#include <algorithm>
#include <numeric>

#include "shown_text.h"

namespace fpd_report {
namespace {

constexpr std::size_t least_paragraph_width = 20, least_column_width = 8;
constexpr std::size_t gap = 2;

std::vector<std::size_t> column_widths(const std::vector<Row> &rows, const Style &style) {
    std::vector<std::size_t> widths;
    for (const Row &row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t column = 0; column < row.size(); ++column) {
            std::size_t width = columns(shown(row[column].text));
            if (style.width != 0) width = std::min(width, table_cell_width);
            widths[column] = std::max(widths[column], width);
        }
    }
    return widths;
}

/// Takes from the widest columns what a terminal does not have.
void narrow(std::vector<std::size_t> *widths, std::size_t indent, const Style &style) {
    if (style.width == 0 || widths->empty()) return;
    std::size_t total = std::accumulate(widths->begin(), widths->end(), indent + gap * (widths->size() - 1));
    for (; total > style.width; --total) {
        const auto widest = std::max_element(widths->begin(), widths->end());
        if (*widest <= least_column_width) return;
        --*widest;
    }
}

std::string row_line(const Row &row, const std::vector<std::size_t> &widths, std::size_t indent, const Style &style) {
    std::string line(indent, ' ');
    std::size_t blanks = 0;  // due before the next cell that is not empty
    for (std::size_t column = 0; column < row.size(); ++column) {
        const std::string text = fitted(shown(row[column].text), widths[column]);
        const std::size_t used = columns(text);
        const std::size_t rest = widths[column] - used;
        if (row[column].to_the_right) blanks += rest;
        if (used > 0) {
            line += std::string(blanks, ' ') + coloured(text, row[column].colour, style);
            blanks = 0;
        }
        blanks += gap + (row[column].to_the_right ? 0 : rest);
    }
    return line;
}

}  // namespace

std::vector<std::string> table_lines(const std::vector<Row> &rows, std::size_t indent, const Style &style) {
    std::vector<std::size_t> widths = column_widths(rows, style);
    narrow(&widths, indent, style);
    std::vector<std::string> lines;
    lines.reserve(rows.size());
    for (const Row &row : rows) lines.push_back(row_line(row, widths, indent, style));
    return lines;
}

std::string paragraph(const std::string &text, std::size_t indent, Colour colour, const Style &style) {
    const std::string one_line = shown(text);
    const std::string blanks(indent, ' ');
    if (style.width == 0) return blanks + coloured(one_line, colour, style) + "\n";
    std::string result;
    const std::size_t width = std::max(style.width, indent + least_paragraph_width) - indent;
    for (const std::string &line : wrapped(one_line, width)) result += blanks + coloured(line, colour, style) + "\n";
    return result;
}

}  // namespace fpd_report
