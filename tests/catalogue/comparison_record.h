/// The record of what tests compared whole, which catalogue_tests reads.
///
/// A test program writes it when BOOTUP_FPD_COMPARISONS names a file; each entry is one line, with the test's name in
/// front of its fields.
#ifndef COMPARISON_RECORD_H
#define COMPARISON_RECORD_H

#include <filesystem>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace catalogue {

inline constexpr const char *record_variable = "BOOTUP_FPD_COMPARISONS";

/// Whether a record is asked for.
bool recording();
/// Adds an entry of the running test.
void record(std::initializer_list<std::string_view> fields);
/// The entries of a record: the test's name, then the fields.
std::vector<std::vector<std::string>> read_record(const std::filesystem::path &path);

}  // namespace catalogue

#endif
