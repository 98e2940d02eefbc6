/// A fuzz target: what its file defines, what the two programs around it (libfuzzer_main.cpp, replay_main.cpp) do.
///
/// A target runs as root of a card's sandbox with empty directories, so that what it tests finds its absolute paths.
/// The diagnostic log cannot be opened there: its lines are formatted, and dropped.
#ifndef BOOTUP_FPD_FUZZ_TARGET_H
#define BOOTUP_FPD_FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

/// Defined by the target. Runs what it tests on one input and aborts, through require(), where a contract is broken.
void run_input(std::string_view input);

/// Runs `body` in the sandbox; its result, or 1 with a text on standard error when there can be no sandbox.
int run_in_sandbox(const std::function<int()> &body);

/// Ends the process with the text unless `holds`: a finding.
void require(bool holds, const char *text, int line = __builtin_LINE());
/// The same for two texts, and shows them.
void require_equal(std::string_view found, std::string_view expected, const char *text, int line = __builtin_LINE());
void require_equal(std::int64_t found, std::int64_t expected, const char *text, int line = __builtin_LINE());

/// An input taken apart, from the front; after its end there are zeros.
struct Input {
    std::uint8_t byte();
    /// Two bytes, and four.
    std::uint16_t word();
    std::uint32_t number();
    bool flag() { return byte() & 1; }
    /// A byte's number below `limit`, which is at most 256.
    unsigned below(unsigned limit) { return byte() % limit; }
    /// A byte with the length, at most `most`, and so many bytes or what is left.
    std::string_view text(std::size_t most);
    /// Everything up to the separator, which is dropped, or to the end.
    std::string_view up_to(char separator);
    /// The rest.
    std::string_view all();
    bool empty() const { return rest.empty(); }

    std::string_view rest;
};

/// An error text's buffer as a caller hands it on, with nothing in it that ends a text.
struct ErrorBuffer {
    explicit ErrorBuffer(std::size_t buffer_size);
    /// The text, which must end within the buffer.
    std::string_view text(int line = __builtin_LINE()) const;

    std::unique_ptr<char[]> bytes;  // on the heap, of that size to the byte: one more is seen by the sanitizer
    std::size_t size;
};

/// A file that is there for a target to fill. Results of what must not fail are required.
void write_file(const char *path, std::string_view content);
/// False when there is none.
bool read_file(const char *path, std::string &content);

#endif
