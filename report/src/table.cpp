#include "table.h"

#include <algorithm>

#include "shown_text.h"

namespace fpd_report {
namespace {

constexpr std::size_t least_paragraph_width = 20;

bool is_last(const Row &row, std::size_t column) {
    return column + 1 == row.size();
}

std::string cell_text(const Row &row, std::size_t column) {
    const std::string text = shown(row[column].text);
    return is_last(row, column) ? text : fitted(text, table_cell_width);
}

std::vector<std::size_t> column_widths(const std::vector<Row> &rows) {
    std::vector<std::size_t> widths;
    for (const Row &row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t column = 0; column < row.size(); ++column) {
            const bool counts = !is_last(row, column) || row[column].to_the_right;
            if (counts) widths[column] = std::max(widths[column], columns(cell_text(row, column)));
        }
    }
    return widths;
}

std::string row_line(const Row &row, const std::vector<std::size_t> &widths, std::size_t indent, const Style &style) {
    std::string line(indent, ' ');
    std::size_t blanks = 0;  // due before the next cell that is not empty
    for (std::size_t column = 0; column < row.size(); ++column) {
        const std::string text = cell_text(row, column);
        const std::size_t used = columns(text);
        const std::size_t rest = widths[column] > used ? widths[column] - used : 0;
        if (row[column].to_the_right) blanks += rest;
        if (used > 0) {
            line += std::string(blanks, ' ') + coloured(text, row[column].colour, style);
            blanks = 0;
        }
        blanks += 2 + (row[column].to_the_right ? 0 : rest);
    }
    return line;
}

}  // namespace

std::vector<std::string> table_lines(const std::vector<Row> &rows, std::size_t indent, const Style &style) {
    const std::vector<std::size_t> widths = column_widths(rows);
    std::vector<std::string> lines;
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
