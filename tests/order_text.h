/// The texts of order/: what a run does, in files that share stretches.
#ifndef ORDER_TEXT_H
#define ORDER_TEXT_H

#include <filesystem>
#include <string>
#include <vector>

namespace card_tests {

/// One line of such a file, and the lines that it stands for: an include those of the other file, any other line
/// itself.
struct OrderEntry {
    std::string source;
    std::vector<std::string> lines;  ///< comments and empty lines among them
};

/// The entries of `file`; none when it does not exist. Throws std::runtime_error for an include of a missing file, for
/// one that includes itself, and for one that says to replace what the other file does not have.
std::vector<OrderEntry> read_order(const std::filesystem::path &file);

/// The lines that are compared: all but comments and empty lines.
std::string compared_text(const std::vector<OrderEntry> &entries);

/// The file anew so that compared_text of it is `text`: with its comments where they are, and with each include whose
/// lines all stand in `text` together. In place of any other include come the lines themselves.
std::string updated_order(const std::vector<OrderEntry> &entries, const std::string &text);

}  // namespace card_tests

#endif
