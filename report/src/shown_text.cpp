#include "shown_text.h"

#include <locale.h>
#include <wchar.h>

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace fpd_report {
namespace {

struct Character {
    std::size_t bytes = 0;  // 0: no UTF-8
    char32_t code = 0;
};

/// The character at the beginning of the text, which is not empty.
Character first_character(std::string_view text) {
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(at < text.size() ? text[at] : 0); };
    const unsigned char first = byte(0);
    if (first < 0x80) return {1, first};
    if (first < 0xc2 || first > 0xf4) return {};
    const std::size_t bytes = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    char32_t code = first & (0xffU >> (bytes + 1));
    for (std::size_t at = 1; at < bytes; ++at) {
        if ((byte(at) & 0xc0) != 0x80) return {};
        code = code << 6 | (byte(at) & 0x3fU);
    }
    constexpr char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool is_surrogate = code >= 0xd800 && code < 0xe000;
    return code < least[bytes] || code > 0x10ffff || is_surrogate ? Character{} : Character{bytes, code};
}

struct Range {
    char32_t first, last;
};

/// What a terminal obeys, or shows nothing of.
constexpr Range not_shown[] = {
    {0x00, 0x1f},        // C0
    {0x7f, 0x9f},        // DEL, C1
    {0xad, 0xad},        // soft hyphen
    {0x61c, 0x61c},      // Arabic letter mark
    {0x180e, 0x180e},    // Mongolian vowel separator
    {0x200b, 0x200f},    // zero width, marks of direction
    {0x2028, 0x202e},    // line and paragraph separators, embeddings and overrides of direction
    {0x2060, 0x206f},    // invisible operators, isolates of direction
    {0xfeff, 0xfeff},    // byte order mark
    {0xfff9, 0xfffb},    // interlinear annotation
    {0xe0000, 0xe0fff},  // tags
};

bool is_shown(char32_t code) {
    return std::none_of(std::begin(not_shown), std::end(not_shown),
                        [code](Range range) { return code >= range.first && code <= range.last; });
}

std::string escaped(const char *format, unsigned value) {
    char text[16];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string escaped(char32_t code) {
    if (code == '\n') return "\\n";
    if (code == '\t') return "\\t";
    return escaped(code < 0x80 ? "\\x%02x" : "\\u{%x}", static_cast<unsigned>(code));
}

/// The widths of characters, whatever the program's locale is.
class Utf8Locale {
  public:
    Utf8Locale() : locale_(newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)) {}
    ~Utf8Locale() {
        if (locale_ != nullptr) freelocale(locale_);
    }
    Utf8Locale(const Utf8Locale &) = delete;
    Utf8Locale &operator=(const Utf8Locale &) = delete;

    std::size_t width(char32_t code) const {
        if (code < 0x80 || locale_ == nullptr) return 1;
        const locale_t before = uselocale(locale_);
        const int width = wcwidth(static_cast<wchar_t>(code));
        uselocale(before);
        return width < 0 ? 1 : static_cast<std::size_t>(width);
    }

  private:
    locale_t locale_;
};

std::size_t width_of(char32_t code) {
    static const Utf8Locale locale;
    return locale.width(code);
}

/// The bytes of the longest beginning that takes at most `width` columns.
std::size_t bytes_that_fit(std::string_view text, std::size_t width) {
    std::size_t used = 0, at = 0;
    while (at < text.size()) {
        const Character character = first_character(text.substr(at));
        used += width_of(character.code);
        if (used > width) break;
        at += std::max<std::size_t>(character.bytes, 1);
    }
    return at;
}

}  // namespace

std::string valid_utf8(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const std::size_t bytes = first_character(text).bytes;
        result += bytes == 0 ? std::string_view("\xef\xbf\xbd") : text.substr(0, bytes);
        text.remove_prefix(std::max<std::size_t>(bytes, 1));
    }
    return result;
}

std::string shown(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const auto [bytes, code] = first_character(text);
        if (bytes == 0) {
            result += escaped("\\x%02x", static_cast<unsigned char>(text.front()));
        } else if (is_shown(code)) {
            result += text.substr(0, bytes);
        } else {
            result += escaped(code);
        }
        text.remove_prefix(std::max<std::size_t>(bytes, 1));
    }
    return result;
}

std::size_t columns(std::string_view shown_text) {
    std::size_t result = 0;
    while (!shown_text.empty()) {
        const Character character = first_character(shown_text);
        result += width_of(character.code);
        shown_text.remove_prefix(std::max<std::size_t>(character.bytes, 1));
    }
    return result;
}

std::string fitted(std::string_view shown_text, std::size_t width) {
    if (bytes_that_fit(shown_text, width) == shown_text.size()) return std::string(shown_text);
    return std::string(shown_text.substr(0, bytes_that_fit(shown_text, width - 1))) + "…";
}

std::vector<std::string> wrapped(std::string_view shown_text, std::size_t width) {
    std::vector<std::string> lines;
    do {
        std::size_t bytes = bytes_that_fit(shown_text, width);
        std::size_t next = bytes;
        if (bytes < shown_text.size()) {
            const std::size_t blank = shown_text.rfind(' ', bytes);
            if (blank != std::string_view::npos && blank > 0) {
                bytes = blank;
                next = blank + 1;
            }
            if (next == 0) bytes = next = std::max<std::size_t>(first_character(shown_text).bytes, 1);
        }
        lines.emplace_back(shown_text.substr(0, bytes));
        shown_text.remove_prefix(next);
    } while (!shown_text.empty());
    return lines;
}

std::string label_value(std::string_view text) {
    std::string told_apart;  // a backslash of the text from one of `shown`
    for (const char byte : text) told_apart += byte == '\\' ? std::string(2, byte) : std::string(1, byte);
    std::string result;
    for (const char byte : shown(told_apart)) {
        if (byte == '\\' || byte == '"') result += '\\';
        result += byte;
    }
    return result;
}

}  // namespace fpd_report
