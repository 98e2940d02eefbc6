/// What goes wrong, in one type.
#ifndef CARDSIM_ERROR_H
#define CARDSIM_ERROR_H

#include <cstring>
#include <stdexcept>
#include <string>

namespace cardsim {

/// The one exception that cardsim throws. Its text is one line, which may hold any bytes of a file or of a name: see
/// printable(). The exported C functions turn it into their code and the text of `err_msg`, the command into its exit
/// status and a line on standard error.
struct Error : std::runtime_error {
    explicit Error(const std::string &reason, int number = 0) : std::runtime_error(reason), code(number) {}

    /// 0: the card is wrong, its user has to put it right. Otherwise something was refused: the number of an errno, or
    /// what a closed function returns.
    int code;
};

/// "WHAT: " and what the errno number means.
inline Error system_error(const std::string &what, int error_number) {
    return Error(what + ": " + std::strerror(error_number), error_number);
}

}  // namespace cardsim

#endif
