#!/usr/bin/python3 -B
"""The reader of the sources itself: what it follows, and that it says so where it cannot."""

import unittest

from read_sources import Sources, record

DECLARATIONS = """
struct LogModule { const char *component; const char *path; };
struct LogSite { LogSite(const LogModule &, const char *, int = __builtin_LINE()); };
void fpd_log(const char *component, const char *level, const char *tag, const char *format, ...);
void log_error(LogSite, const char *, ...);
void log_info(LogSite, const char *, ...);
void log_debug(LogSite, const char *, ...);
int pass_on(LogSite, int rc, const char *, ...);
int fail(LogSite, int rc, char *, unsigned long, const char *, ...);
bool chosen();
const char *given();
LogSite site_of(int);
"""
MODULE = 'constexpr LogModule here{"LED", __FILE__};\n'
PRINTING = "#include <cstdio>\nbool chosen();\nconst char *given();\n"


def read(*texts, finding=Sources.find_logged):
    sources = Sources()
    for number, text in enumerate(texts, 1):
        sources.parse(f"module_{number}.cpp", ["-std=c++20"], text)
    finding(sources)
    return sorted(sources.found)


def logged(*texts):
    return read(*(DECLARATIONS + MODULE + text for text in texts))


def lines(text):
    return [" ".join(fields[3:]) if fields[0] == "logged" else fields[0] for fields in logged(text)]


def printed(text):
    return [" ".join(fields[2:]) if fields[0] == "printed" else fields[0]
            for fields in read(PRINTING + text, finding=Sources.find_printed)]


class Logged(unittest.TestCase):
    def test_calls_have_the_words_of_their_module(self):
        self.assertEqual(logged('void f() { log_info({here, "Tag"}, "some %s", given()); }'),
                         [("logged", "LED", "module_1", "INFO", "Tag", "some %s")])

    def test_a_module_may_be_a_copy_of_another(self):
        self.assertEqual(logged('constexpr LogModule first{"FPD", "a/one.cpp"}; constexpr LogModule second = first;'
                                'void f() { log_info({second, "Tag"}, "text"); }'),
                         [("logged", "FPD", "one", "INFO", "Tag", "text")])

    def test_calls_have_their_level(self):
        self.assertEqual(lines("""int f(char *text) {
            log_error({here, "A"}, "1"); log_info({here, "B"}, "2"); log_debug({here, "C"}, "3");
            return chosen() ? fail({here, "D"}, 1, text, 2, "4") : pass_on({here, "E"}, 1, "5"); }"""),
                         ["DEBUG C 3", "ERROR A 1", "ERROR D 4", "ERROR E 5", "INFO B 2"])

    def test_texts_are_joined_and_decoded(self):
        self.assertEqual(lines(r"""void f() { log_info({here, "A"}, "a\n\"\\\t'" /* "no" */ "b"); }"""),
                         ["INFO A a\n\"\\\t'b"])

    def test_parameters_are_followed_to_every_caller(self):
        self.assertEqual(lines("""
            void inner(LogSite site, const char *format) { log_error(site, format, 1); }
            void outer(int, LogSite site) { inner(site, "by site"); }
            void by_tag(const char *tag) { log_debug({here, tag}, "by tag"); }
            void f() { outer(1, {here, "A"}); by_tag("B"); inner({here, "C"}, "direct"); }"""),
                         ["DEBUG B by tag", "ERROR A by site", "ERROR C direct"])

    def test_parameters_are_followed_from_file_to_file(self):
        self.assertEqual(logged('void leave(LogSite site) { log_error(site, "gone"); }',
                                'void leave(LogSite site); void f() { leave({here, "Two"}); }'),
                         [("logged", "LED", "module_2", "ERROR", "Two", "gone")])

    def test_variables_and_tables_are_followed(self):
        self.assertEqual(lines("""
            struct Row { int kind; const char *tag; const char *text; };
            constexpr Row rows[] = {{.tag = "A", .text = "1" "2"}, {2, "B", "3"}};
            constexpr const char *last = "4";
            void f(const Row &row, const Row *place) {
                log_info({here, row.tag}, row.text);
                const LogSite site{here, place->tag};
                log_debug(site, last);
            }"""), ["DEBUG A 4", "DEBUG B 4", "INFO A 12", "INFO B 3"])

    def test_what_cannot_be_followed_is_told(self):
        for call in ('log_error(site_of(1), "a");', 'log_error({here, given()}, "a");',
                     'log_error({here, "A"}, chosen() ? "a" : "b");', 'const char *text = "a"; log_error({here, "A"}, text);',
                     'static LogModule other{"LED"}; log_error({other, "A"}, "a");',
                     'struct Row { const char *tag; } row; log_error({here, row.tag}, "a");',
                     'fpd_log("FPD", "ERROR", "A", "a");', "auto *log = &log_error;"):
            self.assertEqual(lines(f"void f() {{ {call} }}"), ["not-followed"], call)

    def test_what_nobody_calls_or_anybody_may_call_is_told(self):
        leave = 'void leave(LogSite site) { log_error(site, "gone"); }'
        self.assertEqual(lines(leave), ["not-followed"])
        self.assertEqual(lines(leave + 'void f() { leave({here, "A"}); } auto *pointer = &leave;'),
                         ["ERROR A gone", "not-followed"])

    def test_a_source_that_does_not_compile_is_refused(self):
        with self.assertRaises(RuntimeError):
            logged("void f() { log_info(; }")


class Printed(unittest.TestCase):
    def test_both_streams(self):
        self.assertEqual(printed(r"""constexpr const char *usage = "u" "v";
            void f() { std::printf("a %d\n", 1); std::fprintf(stderr, "b\n"); printf(usage, 1); }"""),
                         ["stderr b\n", "stdout a %d\n", "stdout uv"])

    def test_callers_fill_the_format_of_the_function_that_prints(self):
        self.assertEqual(printed(r"""
            int failed(const char *step, const char *why) { return fprintf(stderr, "%s: %s\n", step, why); }
            int f() { if (chosen()) return failed("First", given()); return failed("Second", given()); }"""),
                         ["stderr First: %s\n", "stderr Second: %s\n"])

    def test_what_cannot_be_followed_is_told(self):
        for call in ("printf(given());", 'fprintf(given() ? stdout : stderr, "a");', 'std::puts("a");', 'std::perror("a");',
                     "fwrite(given(), 1, 2, stdout);", 'fputs("a", stderr);', "FILE *to = stdout;"):
            self.assertEqual(set(printed(f"void f() {{ {call} }}")), {"not-followed"}, call)
        self.assertEqual(printed("#include <iostream>\nvoid f() { std::cout << 1; }"), ["not-followed"])

    def test_other_files_and_texts_are_no_business_of_it(self):
        self.assertEqual(printed('void f(FILE *file, char *to) { fflush(stdout); fputs("a", file); snprintf(to, 2, "b"); }'),
                         [])


class Records(unittest.TestCase):
    def test_stay_in_one_line(self):
        self.assertEqual(record(["a\tb", "c\n", "\\"]), "a\\tb\tc\\n\t\\\\")


if __name__ == "__main__":
    unittest.main()
