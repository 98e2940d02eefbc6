/// Calls of closed functions by their names, and how results are told.
#ifndef CARDSIM_CHECK_LIBRARIES_CALLS_H
#define CARDSIM_CHECK_LIBRARIES_CALLS_H

#include <cstring>
#include <string>
#include <utility>

#include "check_libraries_inside.h"

namespace cardsim {

/// The tool's usual room for a reason.
inline constexpr std::size_t reason_size = 256;
inline constexpr const char *package_path = "/pkg/fpd/ucode";

/// Has `make` make the call with the function of that name and judge it; nothing without such a function. Returns as
/// Reporter::call.
template <class Function, class Make>
bool call(Reporter &reporter, Begun begun, Make make) {
    auto *const function = closed_function<Function>(begun.call.c_str());
    if (function == nullptr) return false;
    return reporter.call(std::move(begun), [&](Records &records) { return make(*function, records); });
}
template <class Function, class Make>
bool call(Reporter &reporter, const char *name, const std::string &arguments, Make make) {
    return call<Function>(reporter, Begun{.call = name, .arguments = arguments}, make);
}

inline Outcome fine(const std::string &value = {}) {
    return {Verdict::ok, value.empty() ? "0" : "0: " + value, ""};
}

/// A text of a record of `size` bytes.
inline std::string text_in(const char *text, std::size_t size) {
    return {text, strnlen(text, size)};
}

/// A good call that failed, with its reason where the function gives one; `what_then`: what that means to the tool.
inline Outcome failed(int result, Verdict verdict, const char *what_then, const char *reason = nullptr) {
    std::string text = std::to_string(result);
    if (reason != nullptr && *reason != '\0') text += " (" + text_in(reason, reason_size) + ")";
    return {verdict, text, what_then};
}

inline std::string version_text(unsigned major, unsigned minor, unsigned debug) {
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(debug);
}

}  // namespace cardsim

#endif
