/// Extended regular expressions of POSIX on whole texts.
#ifndef TEXT_MATCH_H
#define TEXT_MATCH_H

#include <string>
#include <vector>

namespace card_tests {

/// The groups of `pattern` where it matches the whole of `text`, the first being the text itself; empty where it does
/// not. Throws std::runtime_error for a broken pattern.
std::vector<std::string> match(const std::string &pattern, const std::string &text);

}  // namespace card_tests

#endif
