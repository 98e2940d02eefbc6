#include "terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace fpd_report {
namespace {

constexpr std::size_t usual_width = 80, least_width = 40;

bool is_set(const char *variable) {
    const char *const value = std::getenv(variable);
    return value != nullptr && *value != '\0';
}

bool terminal_is_dumb() {
    const char *const type = std::getenv("TERM");
    return type == nullptr || *type == '\0' || std::string_view(type) == "dumb";
}

std::size_t terminal_width(int descriptor) {
    winsize size{};
    if (ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return usual_width;
    return std::max<std::size_t>(size.ws_col, least_width);
}

const char *sequence_of(Colour colour) {
    switch (colour) {
        case Colour::bad:
            return "\033[31m";
        case Colour::doubtful:
            return "\033[33m";
        case Colour::good:
            return "\033[32m";
        case Colour::heading:
            return "\033[1m";
        case Colour::faint:
            return "\033[2m";
        case Colour::none:
            break;
    }
    return "";
}

}  // namespace

Style style_of(int descriptor) {
    if (isatty(descriptor) == 0) return {};
    return {terminal_width(descriptor), !is_set("NO_COLOR") && !terminal_is_dumb()};
}

std::string coloured(std::string_view text, Colour colour, const Style &style) {
    if (!style.colour || colour == Colour::none || text.empty()) return std::string(text);
    return sequence_of(colour) + std::string(text) + "\033[0m";
}

}  // namespace fpd_report
