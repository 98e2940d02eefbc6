/// Writes as many bytes as log_lines does, in as many lines: floor_lines COUNT.

#include "file_lines.h"

namespace {

constexpr std::string_view line =
    "[2024-03-05 14:02:11.482130 UTC] [4711:4711] [FPD] [DEBUG] [UpdateFpdTransitionState] [log_lines:17] "
    "[FPD Fpd0007 transitioning state from 'FPD INITIALIZED' to 'FPD Capability Received' at 123456]\n";

}  // namespace

int main(int argc, char **argv) {
    const long count = argc == 2 ? std::strtol(argv[1], nullptr, 10) : 0;
    for (long i = 0; i < count; ++i) write_line(line);
}
