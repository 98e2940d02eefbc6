/// Whether the tool could run on a set of closed libraries: a table of every call, made with good arguments and with
/// bad ones, and what came of it.
#ifndef CARDSIM_CHECK_LIBRARIES_H
#define CARDSIM_CHECK_LIBRARIES_H

#include <cstdint>
#include <string>
#include <vector>

namespace cardsim {

struct LibraryCheck {
    std::vector<std::string> libraries;  ///< files, in the order in which the loader searches them
    std::vector<uint32_t> groups;        ///< what the card's group id may be; empty: any
    std::string upgrade;                 ///< name of a region to program; empty: none
    double limit = 10;                   ///< seconds that one call may take
    std::string inside;                  ///< what this process, one with the libraries, is to do; empty: it has none
};

inline constexpr int libraries_are_usable = 0;
inline constexpr int libraries_have_faults = 1;
inline constexpr int libraries_unreadable = 2;  ///< or the arguments are wrong, or this is no card

/// Prints the table on standard output, a complaint on standard error. Returns one of the above. Every call is made in
/// a process of its own or one that goes on only after good calls, so that what kills it is a row of the table.
int check_libraries(const LibraryCheck &check);

}  // namespace cardsim

#endif
