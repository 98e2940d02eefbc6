#include "facts.h"

#include <algorithm>
#include <set>

namespace properties {
namespace {

const std::vector<std::string> &lines_about(const Facts &facts, const std::string &about) {
    static const std::vector<std::string> none;
    const auto found = facts.find(about);
    return found == facts.end() ? none : found->second;
}

/// A line as it can be shown on one, with its place.
std::string shown(const std::vector<std::string> &lines, std::size_t at) {
    if (at >= lines.size()) return "nothing";
    std::string text = "\"" + lines[at] + "\"";
    for (std::size_t end = text.find('\n'); end != text.npos; end = text.find('\n', end)) text.replace(end, 1, "\\n");
    return text;
}

}  // namespace

std::vector<std::string> differences(const Facts &model, const Facts &tool) {
    std::set<std::string> topics;
    for (const auto &[about, lines] : model) topics.insert(about);
    for (const auto &[about, lines] : tool) topics.insert(about);
    std::vector<std::string> found;
    for (const std::string &about : topics) {
        const std::vector<std::string> &expected = lines_about(model, about);
        const std::vector<std::string> &seen = lines_about(tool, about);
        if (expected == seen) continue;
        const auto first =
            std::mismatch(expected.begin(), expected.end(), seen.begin(), seen.end()).first - expected.begin();
        const auto at = static_cast<std::size_t>(first);
        found.push_back(about + ", line " + std::to_string(at + 1) + ": model " + shown(expected, at) + ", tool " +
                        shown(seen, at));
    }
    return found;
}

}  // namespace properties
