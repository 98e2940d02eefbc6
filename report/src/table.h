/// Rows of cells as lines of text.
#ifndef FPD_REPORT_TABLE_H
#define FPD_REPORT_TABLE_H

#include <string>
#include <vector>

#include "terminal.h"

namespace fpd_report {

struct Cell {
    std::string text;  // as a log has it
    Colour colour = Colour::none;
    bool to_the_right = false;
};

using Row = std::vector<Cell>;

/// One line per row, without line breaks, each beginning with `indent` blanks; columns stand below each other, two
/// blanks apart. Texts are shown; for a style with a width, cut where they are longer than `table_cell_width` or the
/// lines would be wider.
std::vector<std::string> table_lines(const std::vector<Row> &rows, std::size_t indent, const Style &style);

inline constexpr std::size_t table_cell_width = 32;

/// The text (as a log has it) in lines that begin with `indent` blanks and fit the style's width, each with its line
/// break.
std::string paragraph(const std::string &text, std::size_t indent, Colour colour, const Style &style);

}  // namespace fpd_report

#endif
