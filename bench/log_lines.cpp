/// Writes lines of a usual length through the tool's log facility: log_lines COUNT.

#include <cstdlib>

#include "fpd_log.h"

namespace {

constexpr LogModule here{"FPD", __FILE__};

}  // namespace

int main(int argc, char **argv) {
    const long count = argc == 2 ? std::strtol(argv[1], nullptr, 10) : 0;
    for (long i = 0; i < count; ++i)
        log_debug({here, "UpdateFpdTransitionState"}, "FPD %s transitioning state from %s to %s at %ld", "Fpd0007",
                  "'FPD INITIALIZED'", "'FPD Capability Received'", 123456L);
}
