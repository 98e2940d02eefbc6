/// What can be said of a card's life, by the model as by those who looked.
#ifndef FACTS_H
#define FACTS_H

#include <map>
#include <string>
#include <vector>

namespace properties {

/// By what it is about ("stdout", "plan", "transitions Bios1"): the lines, in their order. What is not there and what
/// has no lines are the same.
using Facts = std::map<std::string, std::vector<std::string>>;

/// The lines of a list as one of the facts; a text stands as its own only line, and an empty one as none.
inline void add_text(Facts &facts, const std::string &about, const std::string &text) {
    if (!text.empty()) facts[about].push_back(text);
}

/// One line for each thing that the two say differently; empty: they agree.
std::vector<std::string> differences(const Facts &model, const Facts &tool);

}  // namespace properties

#endif
