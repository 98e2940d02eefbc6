/// What happens on many cards, counted.
#ifndef HAPPENINGS_H
#define HAPPENINGS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace properties {

using Happenings = std::map<std::string, std::uint64_t>;

/// What so many cards must have shown, and did not: the generator does not reach it.
std::vector<std::string> missing(const Happenings &happenings);

}  // namespace properties

#endif
