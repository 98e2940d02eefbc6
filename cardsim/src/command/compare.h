/// What two cards' lives have in common, by what is left of them in their state directories.
#ifndef CARDSIM_COMPARE_H
#define CARDSIM_COMPARE_H

#include <cstddef>
#include <filesystem>
#include <string>

namespace cardsim {

/// A table with a row for each difference: versions, outcome, attempts, queue and order of a region, boots and stored
/// configuration of the card. Empty: there is none. The order is that of the first attempts, among the regions that
/// both upgraded. Throws std::exception when a directory is no card's state or its log cannot be read.
std::string differences(const std::filesystem::path &one, const std::filesystem::path &other, std::size_t width);

}  // namespace cardsim

#endif
