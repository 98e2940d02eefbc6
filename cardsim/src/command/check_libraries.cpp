#include "check_libraries.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>

#include "check_libraries_inside.h"
#include "descriptor.h"
#include "error.h"
#include "file_text.h"

namespace cardsim {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr unsigned most_calls_that_die = 100;  // in one stage; each makes the calls before it once more

/// Before a process makes its first call it is loaded, which is nobody's call.
constexpr milliseconds longest_start{30'000};

/// Whether the process came to its end, and if not what ended it.
enum class End { ordinary, killed_for_time, signal, status };

struct ChildEnd {
    End end = End::ordinary;
    int number = 0;  // of the signal, or the status
    std::string last_words;
};

// ---- a process with the libraries

/// One that was started and is ended with this object.
struct Child {
    Child() = default;
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t pid = -1;
    Descriptor reports;
    Descriptor output;  // what it and what it runs write

    ~Child() {
        if (pid > 0) {
            kill(-pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
};

/// The process becomes this program, with the libraries in front of all others, as they are where the tool was linked
/// with them. The loader takes them all, and then looks up what each needs of the others.
[[noreturn]] void become_inside(const LibraryCheck &check, const Stage &stage, int reports, int output, bool eager) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::string preloaded;
    for (const std::string &file : check.libraries) preloaded += (preloaded.empty() ? "" : ":") + file;
    if (const char *const callers = std::getenv("LD_PRELOAD")) preloaded += std::string(":") + callers;
    setenv("LD_PRELOAD", preloaded.c_str(), 1);
    if (eager) setenv("LD_BIND_NOW", "1", 1);
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    if (reports == report_descriptor) {
        fcntl(reports, F_SETFD, 0);
    } else {
        dup2(reports, report_descriptor);
    }
    std::vector<std::string> words = {"cardsim", "check-libraries", "--inside", text_of(stage)};
    if (!check.upgrade.empty()) words.insert(words.end(), {"--upgrade", check.upgrade});
    for (const uint32_t group : check.groups) words.insert(words.end(), {"--group", std::to_string(group)});
    words.insert(words.end(), check.libraries.begin(), check.libraries.end());
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string &word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    execv("/proc/self/exe", arguments.data());
    _exit(126);
}

void start(const LibraryCheck &check, const Stage &stage, bool eager, Child &child) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw system_error("a pipe", errno);
    child.reports = Descriptor(ends[0]);
    const Descriptor writing(ends[1]);
    child.output = Descriptor(memfd_create("output", MFD_CLOEXEC));
    if (!child.output.is_open()) throw system_error("a file for the output", errno);
    child.pid = fork();
    if (child.pid < 0) throw system_error("a process", errno);
    if (child.pid == 0) become_inside(check, stage, writing.get(), child.output.get(), eager);
    setpgid(child.pid, child.pid);  // whoever of the two is first
}

std::string last_line(const Descriptor &file) {
    lseek(file.get(), 0, SEEK_SET);
    std::string text = read_text(file, "the output");
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text.substr(text.rfind('\n') + 1);
}

// ---- what is made of its reports

/// The rows of the table as they come, and the call that has not come back.
struct Table {
    std::vector<Row> rows;
    std::set<std::string> regions;

    bool has_faults() const {
        return std::any_of(rows.begin(), rows.end(),
                           [](const Row &row) { return row.outcome.verdict == Verdict::fault; });
    }
};

/// What one process told.
struct Told {
    std::vector<Row> rows;
    std::vector<unsigned> numbers;  // of the rows
    std::optional<Begun> open;
    std::string damage;
    std::set<std::string> regions;
    bool nothing = false;
    ChildEnd end;
};

/// Takes a message; the limit of time that counts from now on.
milliseconds take(const Message &message, Told &told, milliseconds usual) {
    switch (message.kind) {
        case Kind::begun:
            told.open = message.begun;
            break;
        case Kind::ended:
            if (!told.open) break;
            told.rows.push_back({told.open->call, told.open->arguments, message.outcome});
            told.numbers.push_back(told.open->number);
            told.open.reset();
            break;
        case Kind::limit:
            return milliseconds(std::stoul(message.text));
        case Kind::damage:
            told.damage = message.text;
            break;
        case Kind::region:
            told.regions.insert(message.text);
            break;
        case Kind::nothing:
            told.nothing = true;
            break;
        case Kind::alive:
            break;
    }
    return usual;
}

/// Waits for more on the pipe. False when nothing came for that long.
bool wait_for_more(const Descriptor &reports, Clock::time_point until) {
    while (true) {
        const auto left = std::chrono::duration_cast<milliseconds>(until - Clock::now());
        pollfd waited{reports.get(), POLLIN, 0};
        const int count = poll(&waited, 1, static_cast<int>(std::max<milliseconds::rep>(left.count() + 1, 0)));
        if (count > 0) return true;
        if (count == 0 && Clock::now() >= until) return false;
    }
}

/// Hears the process out. False when a call took longer than it may.
bool hear(const Descriptor &reports, milliseconds usual, Told &told) {
    std::string rest;
    milliseconds limit = std::max(usual, longest_start);
    while (wait_for_more(reports, Clock::now() + limit)) {
        std::array<char, 4096> chunk{};
        const ssize_t count = read(reports.get(), chunk.data(), chunk.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return true;
        rest.append(chunk.data(), static_cast<std::size_t>(count));
        for (std::size_t end = 0; (end = rest.find('\n')) != std::string::npos; rest.erase(0, end + 1)) {
            if (const auto message = message_of(rest.substr(0, end))) limit = take(*message, told, usual);
        }
    }
    return false;
}

/// Waits for the end of a process that has closed its reports; false after the limit.
std::optional<int> wait_for_end(pid_t pid, milliseconds limit) {
    const Clock::time_point until = Clock::now() + limit;
    while (true) {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid) return status;
        if (Clock::now() >= until) return std::nullopt;
        usleep(1000);
    }
}

Told run_stage(const LibraryCheck &check, const Stage &stage, bool eager = false) {
    const milliseconds usual(static_cast<milliseconds::rep>(check.limit * 1000));
    Child child;
    start(check, stage, eager, child);
    Told told;
    const bool heard = hear(child.reports, usual, told);
    const std::optional<int> status = heard ? wait_for_end(child.pid, usual) : std::nullopt;
    if (!status) {
        told.end.end = End::killed_for_time;
    } else {
        child.pid = -1;
        const bool by_signal = WIFSIGNALED(*status);
        told.end.number = by_signal ? WTERMSIG(*status) : WEXITSTATUS(*status);
        told.end.end = by_signal ? End::signal : told.end.number != 0 ? End::status : End::ordinary;
    }
    told.end.last_words = last_line(child.output);
    return told;
}

std::string text_of(const ChildEnd &end) {
    switch (end.end) {
        case End::killed_for_time:
            return "does not come back";
        case End::signal:
            return std::string(end.number == SIGABRT ? "aborted" : strsignal(end.number)) +
                   (end.last_words.empty() ? "" : ": " + end.last_words);
        case End::status:
            return "ended the process with " + std::to_string(end.number) +
                   (end.last_words.empty() ? "" : ": " + end.last_words);
        case End::ordinary:
            return "ended the process";
    }
    return {};
}

/// The row of a call that ended its process.
Row row_of_dead(const Told &told) {
    const Begun &begun = *told.open;
    if (told.damage.empty() && begun.may_abort && told.end.end == End::signal && told.end.number == SIGABRT) {
        return {begun.call, begun.arguments, {Verdict::ok, "refused: " + text_of(told.end), ""}};
    }
    const std::string result = told.damage.empty() ? text_of(told.end) : told.damage;
    return {begun.call, begun.arguments, {begun.when_it_dies, result, ""}};
}

// ---- the stages

/// The libraries and their functions. False when the program does not even start with them.
bool check_load(const LibraryCheck &check, Table &table) {
    const Told eager = run_stage(check, {.part = Part::load, .number = 0, .skip = {}}, true);
    if (eager.rows.empty()) {
        const Told lazy = run_stage(check, {.part = Part::load, .number = 0, .skip = {}});
        const bool starts = !lazy.rows.empty();
        table.rows.push_back({"(load)",
                              "every symbol at once",
                              {starts ? Verdict::note : Verdict::fault, eager.end.last_words,
                               starts ? "a call that needs it ends the tool" : "the tool does not start"}});
        table.rows.insert(table.rows.end(), lazy.rows.begin(), lazy.rows.end());
        return starts;
    }
    table.rows.insert(table.rows.end(), eager.rows.begin(), eager.rows.end());
    return true;
}

/// The calls of a run, in one process; one that ends it is left out by the next. Returns those left out.
std::set<unsigned> check_run(const LibraryCheck &check, Table &table) {
    Stage stage{.part = Part::run, .number = 0, .skip = {}};
    unsigned seen = 0;
    while (true) {
        const Told told = run_stage(check, stage);
        for (std::size_t i = 0; i < told.rows.size(); ++i) {
            if (told.numbers[i] > seen) table.rows.push_back(told.rows[i]);
        }
        table.regions.insert(told.regions.begin(), told.regions.end());
        const bool at_end = told.open && told.open->number == 0;
        if (at_end && told.end.end == End::ordinary) {
            table.rows.push_back({told.open->call, told.open->arguments, {Verdict::ok, "0", ""}});
            return stage.skip;
        }
        if (told.open) table.rows.push_back(row_of_dead(told));
        if (at_end || stage.skip.size() == most_calls_that_die) return stage.skip;
        if (!told.open) {
            table.rows.push_back({"(run)", "", {Verdict::fault, text_of(told.end), "between two calls"}});
            return stage.skip;
        }
        seen = told.open->number;
        stage.skip.insert(told.open->number);
    }
}

/// Each in a process of its own.
void check_single_calls(const LibraryCheck &check, Part part, const std::set<unsigned> &skip, Table &table) {
    for (unsigned number = 0;; ++number) {
        const Told told = run_stage(check, {.part = part, .number = number, .skip = skip});
        table.rows.insert(table.rows.end(), told.rows.begin(), told.rows.end());
        if (told.open) table.rows.push_back(row_of_dead(told));
        if (told.nothing) return;
        if (!told.open && told.end.end != End::ordinary) {
            table.rows.push_back({"(preparation)", "", {Verdict::fault, text_of(told.end), ""}});
            return;
        }
        if (part == Part::upgrade) return;
    }
}

std::string count_of(std::size_t count, const char *what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

int finish(const Table &table) {
    const auto count = [&](Verdict verdict) {
        return static_cast<std::size_t>(std::count_if(table.rows.begin(), table.rows.end(),
                                                      [&](const Row &row) { return row.outcome.verdict == verdict; }));
    };
    const std::size_t faults = count(Verdict::fault);
    std::printf("%s\n%s, %s, %s: the tool %s run on these libraries\n", table_of(table.rows).c_str(),
                count_of(table.rows.size(), "row").c_str(), count_of(faults, "fault").c_str(),
                count_of(count(Verdict::note), "note").c_str(), faults == 0 ? "can" : "cannot");
    return faults == 0 ? libraries_are_usable : libraries_have_faults;
}

// ---- what was asked

/// Absolute paths, as the loader looks for other names elsewhere.
void require_libraries(LibraryCheck &check) {
    if (check.libraries.empty()) throw Error("cardsim: check-libraries: no library is named");
    for (std::string &file : check.libraries) {
        if (access(file.c_str(), R_OK) != 0) throw Error(file + ": " + std::strerror(errno));
        if (!std::filesystem::is_regular_file(file)) throw Error(file + ": no file");
        file = std::filesystem::canonical(file);
        if (file.find_first_of(" :") != std::string::npos) {
            throw Error(file + ": the loader takes no path with a blank or a colon here");
        }
    }
}

int check_all(const LibraryCheck &check) {
    Table table;
    if (!check_load(check, table)) return finish(table);
    const std::set<unsigned> skip = check_run(check, table);
    if (!check.upgrade.empty() && !table.regions.contains(check.upgrade)) {
        std::fputs(table_of(table.rows).c_str(), stdout);
        throw Error(check.upgrade + ": the card has no such region");
    }
    check_single_calls(check, Part::refusal, skip, table);
    if (check.upgrade.empty()) return finish(table);
    if (table.has_faults()) {
        table.rows.push_back(
            {"brd_fpd_upgrade", check.upgrade, {Verdict::fault, "not tried", "not with libraries that have faults"}});
        return finish(table);
    }
    check_single_calls(check, Part::bad_upgrade, skip, table);
    if (!table.has_faults()) check_single_calls(check, Part::upgrade, skip, table);
    return finish(table);
}

}  // namespace

int check_libraries(const LibraryCheck &asked) {
    if (!asked.inside.empty()) return run_inside(asked);
    LibraryCheck check = asked;
    require_libraries(check);
    read_identity();  // for its complaint
    return check_all(check);
}

}  // namespace cardsim
