#include "source_reader.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <map>
#include <optional>
#include <stdexcept>

namespace catalogue {

// Tokens --------------------------------------------------------------------------------------------------------------

namespace {

struct Reader {
    bool at_end() const { return at >= source.size(); }
    bool looking_at(std::string_view text) const { return source.substr(at).starts_with(text); }
    char take() {
        if (at_end()) throw std::runtime_error("line " + std::to_string(line) + ": the source ends too early");
        line += source[at] == '\n';
        return source[at++];
    }
    void skip_behind(std::string_view end) {
        while (!looking_at(end)) take();
        for (std::size_t i = 0; i < end.size(); ++i) take();
    }

    std::string_view source;
    std::size_t at = 0;
    int line = 1;
};

bool is_word_character(char character) {
    return std::isalnum(static_cast<unsigned char>(character)) || character == '_';
}

/// What stands behind a backslash.
char escaped(Reader &reader) {
    constexpr std::array<std::pair<char, char>, 6> escapes = {
        {{'n', '\n'}, {'t', '\t'}, {'0', '\0'}, {'\\', '\\'}, {'"', '"'}, {'\'', '\''}}};
    const char letter = reader.take();
    for (const auto &[name, character] : escapes)
        if (name == letter) return character;
    throw std::runtime_error("line " + std::to_string(reader.line) + ": an unknown escape");
}

/// The text up to the quote that it began with.
std::string quoted(Reader &reader) {
    const char quote = reader.take();
    std::string value;
    for (char character; (character = reader.take()) != quote;)
        value += character == '\\' ? escaped(reader) : character;
    return value;
}

std::string word_at(Reader &reader) {
    std::string value;
    // A quote inside of a number parts its digits.
    const bool number = std::isdigit(static_cast<unsigned char>(reader.source[reader.at]));
    while (!reader.at_end() && (is_word_character(reader.source[reader.at]) || (number && reader.looking_at("'"))))
        value += reader.take();
    return value;
}

/// Skips what is no token; false when there was nothing to skip.
bool skip(Reader &reader, bool first_of_line) {
    if (std::isspace(static_cast<unsigned char>(reader.source[reader.at])))
        reader.take();
    else if (reader.looking_at("//") || (first_of_line && reader.looking_at("#")))
        reader.skip_behind("\n");
    else if (reader.looking_at("/*"))
        reader.skip_behind("*/");
    else
        return false;
    return true;
}

void add_text(std::vector<Token> &tokens, const std::string &value, int line) {
    if (!tokens.empty() && tokens.back().kind == Token::text)
        tokens.back().value += value;
    else
        tokens.push_back({Token::text, value, line});
}

}  // namespace

std::vector<Token> tokens_of(std::string_view source) {
    Reader reader{source};
    std::vector<Token> tokens;
    int line_of_last = 0;
    while (!reader.at_end()) {
        if (skip(reader, line_of_last != reader.line)) continue;
        const int line = line_of_last = reader.line;
        if (reader.looking_at("\""))
            add_text(tokens, quoted(reader), line);
        else if (reader.looking_at("'"))
            tokens.push_back({Token::punctuation, "'" + quoted(reader), line});
        else if (is_word_character(reader.source[reader.at]))
            tokens.push_back({Token::word, word_at(reader), line});
        else if (reader.looking_at("->") || reader.looking_at("::"))
            tokens.push_back({Token::punctuation, {reader.take(), reader.take()}, line});
        else
            tokens.push_back({Token::punctuation, {reader.take()}, line});
    }
    return tokens;
}

// Files ---------------------------------------------------------------------------------------------------------------

namespace {

/// Tokens [begin, end) of a file.
struct Range {
    std::size_t begin = 0;
    std::size_t end = 0;
    std::size_t size() const { return end - begin; }
};

struct Function {
    std::string name;
    std::vector<std::string> parameters;
    Range body;
};

struct File {
    std::string name;
    std::string component;  // empty: it does not log
    std::vector<Token> tokens;
    std::vector<Function> functions;
    std::map<std::string, std::string> constants;
    std::vector<std::map<std::string, std::string>> table_rows;  // texts by field

    const std::string &value(std::size_t at) const { return tokens[at].value; }
    bool is(std::size_t at, std::string_view value) const {
        return at < tokens.size() && tokens[at].kind != Token::text && tokens[at].value == value;
    }
    bool is_word(std::size_t at) const { return at < tokens.size() && tokens[at].kind == Token::word; }
    bool is_text(std::size_t at) const { return at < tokens.size() && tokens[at].kind == Token::text; }
    std::string place(std::size_t at) const { return name + ":" + std::to_string(tokens[at].line) + ": "; }
};

bool opens(const File &file, std::size_t at) {
    return file.is(at, "(") || file.is(at, "{") || file.is(at, "[");
}
bool closes(const File &file, std::size_t at) {
    return file.is(at, ")") || file.is(at, "}") || file.is(at, "]");
}

/// The token that closes what `open` opens.
std::size_t closing(const File &file, std::size_t open) {
    int depth = 0;
    for (std::size_t at = open; at < file.tokens.size(); ++at) {
        depth += opens(file, at) - closes(file, at);
        if (depth == 0) return at;
    }
    throw std::runtime_error(file.place(open) + "never closed");
}

/// What stands between the commas behind `open`.
std::vector<Range> parts(const File &file, std::size_t open) {
    const std::size_t end = closing(file, open);
    std::vector<Range> found;
    Range part{open + 1, open + 1};
    for (std::size_t at = open + 1; at <= end; at = opens(file, at) ? closing(file, at) + 1 : at + 1) {
        if (at != end && !file.is(at, ",")) continue;
        part.end = at;
        if (part.size() > 0) found.push_back(part);
        part.begin = at + 1;
    }
    return found;
}

/// The last word of a declaration, in front of its default; of a pointer to a function the word behind the asterisk.
std::string declared_name(const File &file, Range declaration) {
    std::string name;
    for (std::size_t at = declaration.begin; at < declaration.end; ++at) {
        if (file.is(at, "=") || file.is(at, "{")) break;
        if (file.is(at, "(") && file.is(at + 1, "*")) return file.value(at + 2);
        if (file.is_word(at)) name = file.value(at);
    }
    return name;
}

bool is_control_word(const std::string &word) {
    constexpr std::array<std::string_view, 6> words = {"if", "for", "while", "switch", "catch", "return"};
    return std::find(words.begin(), words.end(), word) != words.end();
}

/// The function that is defined at this word; its body is empty when none is.
Function definition_at(const File &file, std::size_t at) {
    if (!file.is_word(at) || !file.is(at + 1, "(") || is_control_word(file.value(at))) return {};
    const std::size_t end = closing(file, at + 1);
    const std::size_t brace = file.is(end + 1, "const") ? end + 2 : end + 1;
    if (!file.is(brace, "{")) return {};
    Function function{file.value(at), {}, {brace + 1, closing(file, brace)}};
    for (const Range part : parts(file, at + 1)) function.parameters.push_back(declared_name(file, part));
    return function;
}

void find_functions(File &file) {
    for (std::size_t at = 0; at < file.tokens.size(); ++at) {
        const Function function = definition_at(file, at);
        if (function.name.empty()) continue;
        file.functions.push_back(function);
        at = function.body.end;
    }
}

/// `LogModule here{"FPD", __FILE__}`
void find_component(File &file) {
    for (std::size_t at = 0; at + 3 < file.tokens.size(); ++at)
        if (file.is(at, "LogModule") && file.is(at + 1, "here") && file.is(at + 2, "{"))
            file.component = file.value(at + 3);
}

/// `name = "text"` as a constant, `.name = "text"` as a field of a table's row.
void find_texts_by_name(File &file) {
    for (std::size_t at = 1; at + 2 < file.tokens.size(); ++at)
        if (file.is_word(at) && file.is(at + 1, "=") && file.is_text(at + 2) && !file.is(at - 1, "."))
            file.constants[file.value(at)] = file.value(at + 2);
    for (std::size_t at = 0; at < file.tokens.size(); ++at) {
        if (!file.is(at, "{") || !file.is(at + 1, ".")) continue;
        std::map<std::string, std::string> row;
        for (const Range part : parts(file, at))
            if (file.is(part.begin, ".") && file.is_text(part.end - 1) && part.size() == 4)
                row[file.value(part.begin + 1)] = file.value(part.end - 1);
        file.table_rows.push_back(row);
    }
}

std::vector<std::string> fields_of(const File &file, const std::string &structure) {
    std::vector<std::string> fields;
    for (std::size_t at = 0; at + 2 < file.tokens.size(); ++at) {
        if (!file.is(at, "struct") || !file.is(at + 1, structure) || !file.is(at + 2, "{")) continue;
        const std::size_t end = closing(file, at + 2);
        Range declaration{at + 3, at + 3};
        for (; declaration.end < end; ++declaration.end) {
            if (!file.is(declaration.end, ";")) continue;
            fields.push_back(declared_name(file, declaration));
            declaration.begin = declaration.end + 1;
        }
    }
    return fields;
}

/// `to_array<Row>({{...}, {...}})`, whose texts go to the fields by their places.
void find_tables_by_place(File &file) {
    for (std::size_t at = 0; at + 6 < file.tokens.size(); ++at) {
        if (!file.is(at, "to_array") || !file.is(at + 3, ">") || !file.is(at + 5, "{")) continue;
        const std::vector<std::string> fields = fields_of(file, file.value(at + 2));
        for (const Range one : parts(file, at + 5)) {
            std::map<std::string, std::string> row;
            const std::vector<Range> values = parts(file, one.begin);
            for (std::size_t i = 0; i < values.size() && i < fields.size(); ++i)
                if (values[i].size() == 1 && file.is_text(values[i].begin))
                    row[fields[i]] = file.value(values[i].begin);
            file.table_rows.push_back(row);
        }
    }
}

File read(const SourceFile &source) {
    File file{source.name, {}, tokens_of(source.source), {}, {}, {}};
    find_functions(file);
    find_component(file);
    find_texts_by_name(file);
    find_tables_by_place(file);
    return file;
}

// Values --------------------------------------------------------------------------------------------------------------

/// Where a text comes from.
struct Value {
    enum Kind { text, parameter, field, unknown } kind = unknown;
    std::string name;       // the text itself, or the field's name
    std::size_t index = 0;  // of the parameter
};

std::optional<std::size_t> parameter_index(const Function &function, const std::string &name) {
    const auto found = std::find(function.parameters.begin(), function.parameters.end(), name);
    if (found == function.parameters.end()) return std::nullopt;
    return static_cast<std::size_t>(found - function.parameters.begin());
}

Value value_of(const File &file, const Function &function, Range expression) {
    const std::size_t at = expression.begin;
    if (expression.size() == 1 && file.is_text(at)) return {Value::text, file.value(at)};
    if (expression.size() == 3 && (file.is(at + 1, ".") || file.is(at + 1, "->")))
        return {Value::field, file.value(at + 2)};
    if (expression.size() != 1 || !file.is_word(at)) return {};
    if (const auto index = parameter_index(function, file.value(at))) return {Value::parameter, {}, *index};
    const auto constant = file.constants.find(file.value(at));
    return constant == file.constants.end() ? Value{} : Value{Value::text, constant->second};
}

/// The tag of `{here, tag}`.
Value tag_in_braces(const File &file, const Function &function, std::size_t open) {
    const std::vector<Range> values = parts(file, open);
    if (values.size() != 2 || values[0].size() != 1 || !file.is(values[0].begin, "here")) return {};
    return value_of(file, function, values[1]);
}

/// The tag of a log site: one in braces, a parameter, or a local variable.
Value tag_of_site(const File &file, const Function &function, Range expression) {
    const std::size_t at = expression.begin;
    if (file.is(at, "{")) return tag_in_braces(file, function, at);
    if (expression.size() != 1 || !file.is_word(at)) return {};
    for (std::size_t local = function.body.begin; local + 2 < function.body.end; ++local)
        if (file.is(local, "LogSite") && file.is(local + 1, file.value(at)) && file.is(local + 2, "{"))
            return tag_in_braces(file, function, local + 2);
    const auto index = parameter_index(function, file.value(at));
    return index ? Value{Value::parameter, {}, *index} : Value{};
}

// Log calls -----------------------------------------------------------------------------------------------------------

/// A function whose callers say what is logged.
struct Sink {
    std::string function;
    std::string level;
    std::size_t tag = 0;      // index of the argument that has it
    bool tag_in_site = true;  // and whether that is a log site, or the tag itself
    Value format;             // a parameter of the function, or the text
    auto key() const { return std::tuple(function, level, tag, format.name, format.index); }
};

struct Call {
    const File &file;
    const Function &caller;
    std::size_t at;  // its word
    std::vector<Range> arguments;
};

/// The calls of the function in the file.
std::vector<Call> calls_of(const File &file, const std::string &name) {
    std::vector<Call> calls;
    for (const Function &caller : file.functions)
        for (std::size_t at = caller.body.begin; at < caller.body.end; ++at)
            if (file.is(at, name) && file.is(at + 1, "(") && !file.is(at - 1, ".") && !file.is(at - 1, "->"))
                calls.push_back({file, caller, at, parts(file, at + 1)});
    return calls;
}

struct LogCalls {
    std::vector<Sink> sinks;  // grows while it is walked
    LoggedLines found;

    void add_sink(const Sink &sink) {
        for (const Sink &known : sinks)
            if (known.key() == sink.key()) return;
        sinks.push_back(sink);
    }
    void add_line(const File &file, const Sink &sink, const std::string &tag, const std::string &format) {
        found.lines.insert({file.component, file.name, sink.level, tag, format});
    }
};

/// The rows of tables that have the field of the tag, and that of the format if it is one.
bool add_lines_of_tables(LogCalls &log, const File &file, const Sink &sink, const Value &tag, const Value &format) {
    bool any = false;
    for (const auto &row : file.table_rows) {
        const auto tag_text = row.find(tag.name);
        const auto format_text = format.kind == Value::field ? row.find(format.name) : row.end();
        if (tag_text == row.end() || (format.kind == Value::field && format_text == row.end())) continue;
        log.add_line(file, sink, tag_text->second, format.kind == Value::field ? format_text->second : format.name);
        any = true;
    }
    return any;
}

/// Follows one call of a sink; false when that cannot be done.
bool follow(LogCalls &log, const Sink &sink, const Call &call) {
    const std::size_t last = sink.format.kind == Value::parameter ? std::max(sink.tag, sink.format.index) : sink.tag;
    if (call.arguments.size() <= last) return false;
    const Range tag_argument = call.arguments[sink.tag];
    const Value tag = sink.tag_in_site ? tag_of_site(call.file, call.caller, tag_argument)
                                       : value_of(call.file, call.caller, tag_argument);
    const Value format = sink.format.kind == Value::parameter
                             ? value_of(call.file, call.caller, call.arguments[sink.format.index])
                             : sink.format;
    if (format.kind == Value::unknown) return false;
    if (tag.kind == Value::text && format.kind == Value::text) {
        log.add_line(call.file, sink, tag.name, format.name);
        return true;
    }
    if (tag.kind == Value::field && format.kind != Value::parameter)
        return add_lines_of_tables(log, call.file, sink, tag, format);
    if (tag.kind != Value::parameter || format.kind == Value::field) return false;
    log.add_sink(
        {call.caller.name, sink.level, tag.index, !call.file.is(tag_argument.begin, "{") && sink.tag_in_site, format});
    return true;
}

bool is_logging_function(const std::string &name) {
    constexpr std::array<std::string_view, 3> functions = {"fpd_log", "log_line", "log_at"};
    return std::find(functions.begin(), functions.end(), name) != functions.end();
}

}  // namespace

LoggedLines logged_lines(const std::vector<SourceFile> &sources) {
    std::vector<File> files;
    for (const SourceFile &source : sources) files.push_back(read(source));
    LogCalls log;
    const Value second{Value::parameter, {}, 1};
    log.sinks = {{"log_error", "ERROR", 0, true, second},
                 {"log_info", "INFO", 0, true, second},
                 {"log_debug", "DEBUG", 0, true, second},
                 {"pass_on", "ERROR", 0, true, {Value::parameter, {}, 2}},
                 {"fail", "ERROR", 0, true, {Value::parameter, {}, 4}}};
    for (std::size_t i = 0; i < log.sinks.size(); ++i) {
        const Sink sink = log.sinks[i];
        for (const File &file : files)
            for (const Call &call : calls_of(file, sink.function))
                if (file.component.empty() || !follow(log, sink, call))
                    log.found.not_followed.push_back(file.place(call.at) + "a call of " + sink.function);
    }
    for (const File &file : files)
        for (std::size_t at = 0; at < file.tokens.size(); ++at)
            if (file.is_word(at) && is_logging_function(file.value(at)))
                log.found.not_followed.push_back(file.place(at) + "logs by " + file.value(at) + " itself");
    return log.found;
}

// What is printed -----------------------------------------------------------------------------------------------------

namespace {

/// Puts `text` in the place of conversion number `index` of the format, which is "%s".
std::string with_argument(std::string format, std::size_t index, const std::string &text) {
    std::size_t at = format.find('%');
    for (std::size_t i = 0; i < index && at != std::string::npos; ++i) at = format.find('%', at + 1);
    return at == std::string::npos ? format : format.replace(at, 2, text);
}

/// The format as the callers of the printing function fill it: with their texts for its parameters.
std::set<std::string> formats_of_callers(const Call &print, const std::string &format, std::size_t first_argument) {
    std::vector<Call> callers = calls_of(print.file, print.caller.name);
    std::set<std::string> formats;
    for (const Call &caller : callers) {
        std::string filled = format;
        // From the last one, so that the places of those before it stay.
        for (std::size_t i = print.arguments.size(); i > first_argument; --i) {
            const Value argument = value_of(print.file, print.caller, print.arguments[i - 1]);
            if (argument.kind != Value::parameter || argument.index >= caller.arguments.size()) continue;
            const Value given = value_of(print.file, caller.caller, caller.arguments[argument.index]);
            if (given.kind == Value::text) filled = with_argument(filled, i - 1 - first_argument, given.name);
        }
        formats.insert(filled);
    }
    if (callers.empty()) formats.insert(format);
    return formats;
}

void follow_print(const Call &call, const std::string &stream, std::size_t format_at, PrintedTexts &found) {
    const Value format =
        call.arguments.size() > format_at ? value_of(call.file, call.caller, call.arguments[format_at]) : Value{};
    if (format.kind != Value::text) {
        found.not_followed.push_back(call.file.place(call.at) + "prints what cannot be followed");
        return;
    }
    for (const std::string &filled : formats_of_callers(call, format.name, format_at + 1))
        found.texts.insert({stream, filled});
}

bool is_standard_stream(const File &file, std::size_t at) {
    return file.is(at, "stdout") || file.is(at, "stderr");
}

/// Whether something is printed at this word in another way than by printf and fprintf.
bool prints_otherwise(const File &file, std::size_t at) {
    constexpr std::array<std::string_view, 8> words = {"puts", "putchar", "perror", "psignal",
                                                       "cout", "cerr",    "clog",   "vprintf"};
    if (!is_standard_stream(file, at))
        return file.is_word(at) && std::find(words.begin(), words.end(), file.value(at)) != words.end();
    return !file.is(at - 1, "(") || !(file.is(at - 2, "fprintf") || file.is(at - 2, "fflush"));
}

}  // namespace

PrintedTexts printed_texts(const SourceFile &source) {
    const File file = read(source);
    PrintedTexts found;
    for (const Call &call : calls_of(file, "printf")) follow_print(call, "stdout", 0, found);
    for (const Call &call : calls_of(file, "fprintf")) {
        const std::size_t stream = call.arguments.empty() ? call.at : call.arguments[0].begin;
        if (is_standard_stream(file, stream))
            follow_print(call, file.value(stream), 1, found);
        else
            found.not_followed.push_back(file.place(call.at) + "prints to another stream");
    }
    for (std::size_t at = 2; at < file.tokens.size(); ++at)
        if (prints_otherwise(file, at)) found.not_followed.push_back(file.place(at) + "prints by " + file.value(at));
    return found;
}

}  // namespace catalogue
