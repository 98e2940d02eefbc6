/// The target under libFuzzer, whose options it takes: build/fuzz/bin/fuzz_marker -help=1
#include "target.h"

extern "C" int LLVMFuzzerRunDriver(int *argc, char ***argv, int (*run)(const std::uint8_t *bytes, std::size_t size));

namespace {

int run_bytes(const std::uint8_t *bytes, std::size_t size) {
    run_input({reinterpret_cast<const char *>(bytes), size});
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    return run_in_sandbox([&] { return LLVMFuzzerRunDriver(&argc, &argv, run_bytes); });
}
