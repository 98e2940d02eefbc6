/// Tables for people, on a terminal and in a file.
#ifndef CARDSIM_TEXT_TABLE_H
#define CARDSIM_TEXT_TABLE_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace cardsim {

using TableRow = std::vector<std::string>;

/// Columns that a text to this file may take: 80 on a terminal, less on a smaller one; 0: as many as it likes.
std::size_t columns_of(int file);

/// Columns that a printable text takes.
std::size_t columns_in(std::string_view text);

/// Printable rows of the same length with their columns aligned, two blanks between them. In `width` columns, if that
/// is not 0, the last cell of a row is broken at blanks: in its column, or below the row where that is too narrow.
std::string aligned(const std::vector<TableRow> &rows, std::size_t width);

/// The text broken at blanks into lines of `width` columns (0: one line), all but the first one indented.
std::string wrapped(const std::string &text, std::size_t width, std::size_t indent);

}  // namespace cardsim

#endif
