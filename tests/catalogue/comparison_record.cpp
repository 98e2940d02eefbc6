#include "comparison_record.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

namespace catalogue {

namespace {

/// In one line, without tabs.
std::string escaped(std::string_view field) {
    std::string text;
    for (const char character : field) {
        if (character == '\n')
            text += "\\n";
        else if (character == '\t')
            text += "\\t";
        else if (character == '\\')
            text += "\\\\";
        else
            text += character;
    }
    return text;
}

std::vector<std::string> fields_of(const std::string &line) {
    std::vector<std::string> fields(1);
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\t') {
            fields.emplace_back();
        } else if (line[i] == '\\' && i + 1 < line.size()) {
            ++i;
            fields.back() += line[i] == 'n' ? '\n' : line[i] == 't' ? '\t' : line[i];
        } else {
            fields.back() += line[i];
        }
    }
    return fields;
}

std::string running_test() {
    const testing::TestInfo *const test = testing::UnitTest::GetInstance()->current_test_info();
    return test ? std::string(test->test_suite_name()) + "." + test->name() : "";
}

}  // namespace

bool recording() {
    return std::getenv(record_variable) != nullptr;
}

void record(std::initializer_list<std::string_view> fields) {
    std::string line = escaped(running_test());
    for (const std::string_view field : fields) line += '\t' + escaped(field);
    std::ofstream(std::getenv(record_variable), std::ios::app) << line + '\n';
}

std::vector<std::vector<std::string>> read_record(const std::filesystem::path &path) {
    std::ifstream file(path);
    std::vector<std::vector<std::string>> entries;
    for (std::string line; std::getline(file, line);) entries.push_back(fields_of(line));
    return entries;
}

}  // namespace catalogue
