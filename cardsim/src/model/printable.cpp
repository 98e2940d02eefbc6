#include "printable.h"

#include <cstddef>
#include <cstdio>

namespace cardsim {
namespace {

/// Bytes of the UTF-8 character at the beginning of the text; 0: there is none, or it is a control character.
std::size_t printable_length(std::string_view text) {
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(at < text.size() ? text[at] : 0); };
    const unsigned char first = byte(0);
    if (first < 0x80) return first >= 0x20 && first != 0x7f ? 1 : 0;
    const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    unsigned code = first & (0xffU >> (length + 1));
    for (std::size_t at = 1; at < length; ++at) {
        if ((byte(at) & 0xc0) != 0x80) return 0;
        code = code << 6 | (byte(at) & 0x3fU);
    }
    constexpr unsigned least[] = {0, 0, 0xa0, 0x800, 0x10000};  // of two bytes: after the control characters
    const bool is_surrogate = code >= 0xd800 && code < 0xe000;
    return first >= 0xc2 && code >= least[length] && code <= 0x10ffff && !is_surrogate ? length : 0;
}

std::string escaped(char byte) {
    if (byte == '\n') return "\\n";
    if (byte == '\t') return "\\t";
    char text[8];
    std::snprintf(text, sizeof text, "\\x%02x", static_cast<unsigned char>(byte));
    return text;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const std::size_t length = printable_length(text);
        result += length == 0 ? escaped(text.front()) : std::string(text.substr(0, length));
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return result;
}

}  // namespace cardsim
