/// Text of a log where something else reads it: nothing in it may be obeyed there.
#ifndef FPD_REPORT_SHOWN_TEXT_H
#define FPD_REPORT_SHOWN_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace fpd_report {

/// Valid UTF-8: each byte that is part of no character becomes U+FFFD.
std::string valid_utf8(std::string_view text);

/// One line that a terminal only shows: control characters, what turns the direction of writing, what cannot be seen,
/// and bytes that are no UTF-8 as "\n", "\t", "\x1b", "\u{202e}".
std::string shown(std::string_view text);

/// Columns that `shown` text takes on a terminal: one for most characters, two for wide ones, none for combining ones.
std::size_t columns(std::string_view shown_text);

/// The beginning of `shown` text that fits `width` columns (1 or more), ending in "…" where there is more.
std::string fitted(std::string_view shown_text, std::size_t width);

/// `shown` text in lines of at most `width` columns, cut between words where there are any.
std::vector<std::string> wrapped(std::string_view shown_text, std::size_t width);

/// The value of a label in the metrics, without its quotes. Different texts of UTF-8 have different values.
std::string label_value(std::string_view text);

}  // namespace fpd_report

#endif
