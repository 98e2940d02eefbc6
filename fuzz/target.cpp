#include "target.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sandbox.h"

namespace {

/// A log line costs several system calls, a failed open one.
void close_diagnostic_log() {
    require(mkdir("/var/log/fpd.log", 0755) == 0, "a directory in the place of the diagnostic log");
}

}  // namespace

int run_in_sandbox(const std::function<int()> &body) {
    try {
        return cardsim::sandbox_run({}, [&body] {
            close_diagnostic_log();
            return body();
        });
    } catch (const std::exception &reason) {
        std::fprintf(stderr, "%s\n", reason.what());
        return 1;
    }
}

void require(bool holds, const char *text, int line) {
    if (holds) return;
    std::fprintf(stderr, "FINDING in line %d: %s\n", line, text);
    std::abort();
}

void require_equal(std::string_view found, std::string_view expected, const char *text, int line) {
    if (found == expected) return;
    std::fprintf(stderr, "found:    '%.*s'\nexpected: '%.*s'\n", static_cast<int>(found.size()), found.data(),
                 static_cast<int>(expected.size()), expected.data());
    require(false, text, line);
}

void require_equal(std::int64_t found, std::int64_t expected, const char *text, int line) {
    if (found == expected) return;
    std::fprintf(stderr, "found:    %lld\nexpected: %lld\n", static_cast<long long>(found),
                 static_cast<long long>(expected));
    require(false, text, line);
}

std::uint8_t Input::byte() {
    if (rest.empty()) return 0;
    const auto first = static_cast<std::uint8_t>(rest.front());
    rest.remove_prefix(1);
    return first;
}

std::uint16_t Input::word() {
    const unsigned low = byte();
    return static_cast<std::uint16_t>(low | static_cast<unsigned>(byte()) << 8);
}

std::uint32_t Input::number() {
    const std::uint32_t low = word();
    return low | static_cast<std::uint32_t>(word()) << 16;
}

std::string_view Input::text(std::size_t most) {
    const std::size_t length = std::min<std::size_t>(byte(), most);
    const std::string_view taken = rest.substr(0, length);
    rest.remove_prefix(taken.size());
    return taken;
}

std::string_view Input::up_to(char separator) {
    const std::string_view taken = rest.substr(0, rest.find(separator));
    rest.remove_prefix(std::min(taken.size() + 1, rest.size()));
    return taken;
}

std::string_view Input::all() {
    const std::string_view taken = rest;
    rest = {};
    return taken;
}

ErrorBuffer::ErrorBuffer(std::size_t buffer_size) : bytes(new char[buffer_size]), size(buffer_size) {
    std::memset(bytes.get(), '#', size);
}

std::string_view ErrorBuffer::text(int line) const {
    const void *const end = std::memchr(bytes.get(), '\0', size);
    require(end != nullptr, "an error text without an end", line);
    return bytes.get();
}

void write_file(const char *path, std::string_view content) {
    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    require(file >= 0, path);
    require(write(file, content.data(), content.size()) == static_cast<ssize_t>(content.size()), path);
    close(file);
}

bool read_file(const char *path, std::string &content) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) return false;
    char chunk[4096];
    content.clear();
    for (ssize_t count; (count = read(file, chunk, sizeof chunk)) > 0;)
        content.append(chunk, static_cast<std::size_t>(count));
    close(file);
    return true;
}
