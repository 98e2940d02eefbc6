#include "text_match.h"

#include <regex.h>

#include <memory>
#include <stdexcept>

namespace card_tests {

std::vector<std::string> match(const std::string &pattern, const std::string &text) {
    regex_t compiled;
    if (regcomp(&compiled, ("^(" + pattern + ")$").c_str(), REG_EXTENDED) != 0) {
        throw std::runtime_error("not a pattern: " + pattern);
    }
    const std::unique_ptr<regex_t, void (*)(regex_t *)> owner(&compiled, regfree);
    std::vector<regmatch_t> places(compiled.re_nsub + 1);
    if (regexec(&compiled, text.c_str(), places.size(), places.data(), 0) != 0) return {};
    std::vector<std::string> groups;
    for (std::size_t i = 1; i < places.size(); ++i) {
        const auto from = static_cast<std::size_t>(places[i].rm_so);
        groups.push_back(places[i].rm_so < 0 ? ""
                                             : text.substr(from, static_cast<std::size_t>(places[i].rm_eo) - from));
    }
    return groups;
}

}  // namespace card_tests
