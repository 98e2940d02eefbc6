/// The reader of the sources itself: what it follows, and that it says so where it cannot.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "source_reader.h"

using namespace catalogue;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string module_head = "constexpr LogModule here{\"LED\", __FILE__};\n";

std::vector<std::string> values(const std::string &source) {
    std::vector<std::string> found;
    for (const Token &token : tokens_of(source)) found.push_back(token.value);
    return found;
}

LoggedLines read(const std::string &source) {
    return logged_lines({{"some_module", module_head + source}});
}

std::vector<std::string> texts(const LoggedLines &logged) {
    std::vector<std::string> found;
    for (const LoggedLine &line : logged.lines) found.push_back(line.level + " " + line.tag + ": " + line.format);
    return found;
}

struct Printed {
    std::vector<std::string> texts;
    std::size_t not_followed;
};
Printed printed(const std::string &source) {
    const PrintedTexts found = printed_texts({"some_module", source});
    Printed result{{}, found.not_followed.size()};
    for (const PrintedText &text : found.texts) result.texts.push_back(text.stream + " " + text.format);
    return result;
}

TEST(SourceTokens, JoinTextsNextToEachOther) {
    EXPECT_THAT(values("f(\"a\"  \"b\"\n\"c\", \"d\")"), ElementsAre("f", "(", "abc", ",", "d", ")"));
}

TEST(SourceTokens, DecodeEscapes) {
    EXPECT_THAT(values(R"("a\n\"\\\t'" '\'' '"')"), ElementsAre("a\n\"\\\t'", "''", "'\""));
    EXPECT_THROW(tokens_of(R"("\q")"), std::runtime_error);
}

TEST(SourceTokens, LeaveOutCommentsAndThePreprocessor) {
    EXPECT_THAT(values("#include \"a.h\"\na // \"b\"\n/* \"c\" */ d \"// e\"\n  #undef X\n1'000"),
                ElementsAre("a", "d", "// e", "1'000"));
}

TEST(SourceTokens, CountLines) {
    EXPECT_EQ(tokens_of("\n/*\n*/ a").front().line, 3);
}

TEST(SourceTokens, EndWithTheirText) {
    EXPECT_THROW(tokens_of("\"never closed"), std::runtime_error);
}

TEST(LoggedLines, AreThoseOfTheCallsWithTheModulesWords) {
    const LoggedLines logged = read(R"(void f() { log_info({here, "Tag"}, "some %s", name(a, b)); })");
    EXPECT_THAT(logged.lines, ElementsAre(LoggedLine{"LED", "some_module", "INFO", "Tag", "some %s"}));
    EXPECT_THAT(logged.not_followed, IsEmpty());
}

TEST(LoggedLines, HaveTheLevelOfTheCall) {
    EXPECT_THAT(texts(read(R"(void f() {
        log_error({here, "A"}, "1"); log_debug({here, "B"}, "2"); if (x) return fail({here, "C"}, rc, text, size, "3");
    })")),
                ElementsAre("DEBUG B: 2", "ERROR A: 1", "ERROR C: 3"));
}

TEST(LoggedLines, AreFollowedThroughParameters) {
    EXPECT_THAT(texts(read(R"(
        void inner(LogSite site, const char *format) { log_error(site, format, 1); }
        void outer(int a, LogSite s) { inner(s, "by site"); }
        int by_tag(const char *tag, int b) { log_debug({here, tag}, "by tag"); }
        void f() { outer(1, {here, "A"}); by_tag("B", 2); inner({here, "C"}, "direct"); })")),
                ElementsAre("DEBUG B: by tag", "ERROR A: by site", "ERROR C: direct"));
}

TEST(LoggedLines, AreFollowedFromFileToFile) {
    const LoggedLines logged =
        logged_lines({{"one", module_head + "void leave(LogSite site) { log_error(site, \"gone\"); }"},
                      {"two", "constexpr LogModule here{\"FPD\", __FILE__};\nvoid f() { leave({here, \"Two\"}); }"}});
    EXPECT_THAT(logged.lines, ElementsAre(LoggedLine{"FPD", "two", "ERROR", "Two", "gone"}));
}

TEST(LoggedLines, AreFollowedThroughTables) {
    EXPECT_THAT(texts(read(R"(
        constexpr Row rows[] = {{.tag = "A", .text = "1" "2", .other = f(1)}, {.tag = "B", .text = "3"}};
        struct Place { int kind; void (*call)(); const char *tag_of_it; const char *failure; };
        constexpr auto places = std::to_array<Place>({{1, f, "C", "4"}});
        void f(const Row &row) {
            log_info({here, row.tag}, row.text);
            const LogSite site{here, row.tag};
            log_debug(site, "local");
            log_error({here, place->tag_of_it}, place->failure);
        })")),
                ElementsAre("DEBUG A: local", "DEBUG B: local", "ERROR C: 4", "INFO A: 12", "INFO B: 3"));
}

TEST(LoggedLines, TellOfCallsThatCannotBeFollowed) {
    for (const char *call : {"log_error(site_of(x), \"a\");", "log_error({here, tag()}, \"a\");",
                             "log_error({here, \"A\"}, x ? \"a\" : \"b\");", "log_error({there, \"A\"}, \"a\");",
                             "log_error({here, row.nowhere}, \"a\");", "fail({here, \"A\"}, rc);",
                             "fpd_log(\"FPD\", \"ERROR\", \"A\", \"f\", 1, \"a\");"}) {
        const LoggedLines logged = read(std::string("void f() { ") + call + " }");
        EXPECT_THAT(logged.lines, IsEmpty()) << call;
        EXPECT_THAT(logged.not_followed, testing::SizeIs(1)) << call;
    }
}

TEST(LoggedLines, NeedAModule) {
    const LoggedLines logged = logged_lines({{"nobody", R"(void f() { log_info({here, "Tag"}, "text"); })"}});
    EXPECT_THAT(logged.not_followed, ElementsAre("nobody:1: a call of log_info"));
}

TEST(PrintedTexts, AreThoseOfBothStreams) {
    EXPECT_THAT(printed(R"(constexpr const char *usage = "u" "v";
        void f() { std::printf("a %d\n", 1); std::fprintf(stderr, "b\n"); std::printf(usage, x); })")
                    .texts,
                ElementsAre("stderr b\n", "stdout a %d\n", "stdout uv"));
}

TEST(PrintedTexts, AreFilledByTheCallersOfTheirFunction) {
    EXPECT_THAT(printed(R"(int failed(const char *step, const char *why) { fprintf(stderr, "%s: %s\n", step, why); }
        int f() { if (a) return failed("First", text); return failed("Second", text); })")
                    .texts,
                ElementsAre("stderr First: %s\n", "stderr Second: %s\n"));
}

TEST(PrintedTexts, TellOfWhatCannotBeFollowed) {
    for (const char *call : {"printf(format());", "fprintf(log, \"a\");", "std::puts(\"a\");", "std::cout << 1;",
                             "fwrite(a, 1, 2, stdout);", "fputs(\"a\", stderr);", "FILE *to = stdout;"})
        EXPECT_EQ(printed(std::string("void f() { ") + call + " }").not_followed, 1U) << call;
    EXPECT_EQ(printed("void f() { fflush(stdout); fwrite(a, 1, 2, file); snprintf(a, 2, \"b\"); }").not_followed, 0U);
}

}  // namespace
