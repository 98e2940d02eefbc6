/// What the place that text goes to can show.
#ifndef FPD_REPORT_TERMINAL_H
#define FPD_REPORT_TERMINAL_H

#include <cstddef>
#include <string>
#include <string_view>

namespace fpd_report {

struct Style {
    std::size_t width = 0;  // columns; 0: no terminal, nothing is cut or wrapped
    bool colour = false;
};

/// Of a descriptor: a terminal's width, 80 where it does not tell; colour unless NO_COLOR or a dumb terminal says no.
Style style_of(int descriptor);

enum class Colour { none, bad, doubtful, good, heading, faint };

/// The text (`shown` already) in a colour, where the style has colours.
std::string coloured(std::string_view text, Colour colour, const Style &style);

}  // namespace fpd_report

#endif
