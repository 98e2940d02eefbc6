#include "check_libraries_report.h"

#include <algorithm>
#include <array>
#include <sstream>

#include "printable.h"

namespace cardsim {
namespace {

constexpr char separator = '\t';  // printable() leaves none in a field

std::vector<std::string> fields_of(const std::string &line) {
    std::vector<std::string> fields;
    std::istringstream text(line);
    for (std::string field; std::getline(text, field, separator);) fields.push_back(field);
    return fields;
}

std::string joined(const std::vector<std::string> &fields) {
    std::string line;
    for (const std::string &field : fields) line += printable(field) + separator;
    return line + "\n";
}

std::string letter_of(Verdict verdict) {
    return {static_cast<char>(verdict)};
}

const char *word_of(Verdict verdict) {
    switch (verdict) {
        case Verdict::ok:
            return "ok";
        case Verdict::note:
            return "note";
        case Verdict::fault:
            return "FAULT";
    }
    return "";
}

using Cells = std::array<std::string, 5>;

Cells cells_of(const Row &row) {
    return {word_of(row.outcome.verdict), row.call, row.arguments, row.outcome.result, row.outcome.remark};
}

}  // namespace

std::string line_of(const Message &message) {
    const std::string kind = {static_cast<char>(message.kind)};
    switch (message.kind) {
        case Kind::begun:
            return joined({kind, std::to_string(message.begun.number), letter_of(message.begun.when_it_dies),
                           message.begun.may_abort ? "1" : "0", message.begun.call, message.begun.arguments});
        case Kind::ended:
            return joined({kind, letter_of(message.outcome.verdict), message.outcome.result, message.outcome.remark});
        case Kind::limit:
        case Kind::damage:
        case Kind::region:
        case Kind::nothing:
        case Kind::alive:
            return joined({kind, message.text});
    }
    return "\n";
}

std::optional<Message> message_of(const std::string &line) {
    std::vector<std::string> fields = fields_of(line);
    if (fields.empty() || fields[0].size() != 1) return std::nullopt;
    fields.resize(6);
    Message message;
    message.kind = static_cast<Kind>(fields[0][0]);
    message.text = fields[1];
    if (message.kind == Kind::begun) {
        message.begun = {static_cast<unsigned>(std::stoul(fields[1])), fields[4], fields[5],
                         static_cast<Verdict>(fields[2].at(0)), fields[3] == "1"};
    } else if (message.kind == Kind::ended) {
        message.outcome = {static_cast<Verdict>(fields[1].at(0)), fields[2], fields[3]};
    }
    return message;
}

std::string table_of(const std::vector<Row> &rows) {
    std::vector<Cells> lines = {{"", "call", "arguments", "result", "remark"}};
    for (const Row &row : rows) lines.push_back(cells_of(row));
    std::array<std::size_t, 5> widths{};
    for (const Cells &line : lines) {
        for (std::size_t i = 0; i < line.size(); ++i) widths.at(i) = std::max(widths.at(i), line.at(i).size());
    }
    std::string text;
    for (const Cells &line : lines) {
        std::string row;
        for (std::size_t i = 0; i < line.size(); ++i) {
            row += line.at(i) + std::string(widths.at(i) - line.at(i).size() + 2, ' ');
        }
        text += row.substr(0, row.find_last_not_of(' ') + 1) + "\n";
    }
    return text;
}

}  // namespace cardsim
