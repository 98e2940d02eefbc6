/// Reads out of the tool's sources what they log and print.
///
/// It follows a tag and a format from the call that writes them back to their texts: through the parameters of the
/// functions on the way, local variables, and the fields of constant tables. A call that it cannot follow is reported,
/// never passed over.
#ifndef SOURCE_READER_H
#define SOURCE_READER_H

#include <compare>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace catalogue {

/// One piece of a source: comments, preprocessor lines and white space are left out.
struct Token {
    enum Kind { word, text, punctuation } kind;
    std::string value;  // of a text: decoded, and with the texts next to it joined
    int line;
};
/// Throws std::runtime_error for what is no C++ that it knows.
std::vector<Token> tokens_of(std::string_view source);

struct SourceFile {
    std::string name;  // without its extension
    std::string source;
};

/// A log line as a source has it.
struct LoggedLine {
    std::string component;
    std::string file;
    std::string level;
    std::string tag;
    std::string format;
    auto operator<=>(const LoggedLine &) const = default;
};

struct LoggedLines {
    std::set<LoggedLine> lines;
    std::vector<std::string> not_followed;  // "file:line: why"
};
/// What the files log; the calls among them are followed.
LoggedLines logged_lines(const std::vector<SourceFile> &files);

/// A text that a source prints.
struct PrintedText {
    std::string stream;  // "stdout" or "stderr"
    std::string format;
    auto operator<=>(const PrintedText &) const = default;
};

struct PrintedTexts {
    std::set<PrintedText> texts;
    std::vector<std::string> not_followed;
};
/// What the file prints. Where a function prints a text that its callers give it, it is in the format.
PrintedTexts printed_texts(const SourceFile &file);

}  // namespace catalogue

#endif
