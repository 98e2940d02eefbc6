#include "terminal_screen.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "file_text.h"

// The library's short names are those of everyday functions.
#define NCURSES_NOMACROS
#include <curses.h>
#include <term.h>
#undef lines
#undef columns

namespace cardsim {
namespace {

// ---- what a signal handler may use

struct TerminalBefore {
    int file = -1;
    termios modes = {};
    std::array<char, 256> sequence = {};  ///< leaves the screen and shows the cursor
    std::size_t length = 0;
};
TerminalBefore before;

constexpr std::array deadly_signals = {SIGQUIT, SIGABRT, SIGPIPE};

extern "C" void restore_and_die(int number) {
    tcsetattr(before.file, TCSANOW, &before.modes);
    [[maybe_unused]] const ssize_t written = write(before.file, before.sequence.data(), before.length);
    raise(number);  // by default now: SA_RESETHAND
}

void remember_sequence(const char *capability) {
    const char *text = tigetstr(capability);
    if (text == nullptr || text == reinterpret_cast<const char *>(-1)) return;
    for (; *text != '\0' && before.length < before.sequence.size(); ++text) before.sequence[before.length++] = *text;
}

void remember_modes(int file) {
    before = {};
    before.file = file;
    tcgetattr(file, &before.modes);
}

/// Of the terminal that the library has opened.
void remember_sequences() {
    for (const char *capability : {"sgr0", "rmcup", "cnorm"}) remember_sequence(capability);
}

std::array<struct sigaction, deadly_signals.size()> actions_before;

void restore_when_killed() {
    struct sigaction action = {};
    action.sa_handler = restore_and_die;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
    for (std::size_t at = 0; at < deadly_signals.size(); ++at) {
        sigaction(deadly_signals[at], &action, &actions_before[at]);
    }
}

void die_as_before() {
    for (std::size_t at = 0; at < deadly_signals.size(); ++at) {
        sigaction(deadly_signals[at], &actions_before[at], nullptr);
    }
}

// ---- what the terminal can do

/// The library would end the process over a kind that it does not know.
bool can_show_lines_in_place(int file) {
    int error = 0;
    if (setupterm(nullptr, file, &error) != OK) return false;
    const char *const address = tigetstr("cup");
    const bool can = address != nullptr && address != reinterpret_cast<const char *>(-1);
    del_curterm(cur_term);
    return can;
}

bool wants_color() {
    const char *const no = std::getenv("NO_COLOR");
    return (no == nullptr || *no == '\0') && has_colors();
}

/// A pair of the library's for each look; the terminal's own background.
void define_colors() {
    start_color();
    use_default_colors();
    init_pair(static_cast<short>(Look::running), COLOR_CYAN, -1);
    init_pair(static_cast<short>(Look::good), COLOR_GREEN, -1);
    init_pair(static_cast<short>(Look::bad), COLOR_RED, -1);
}

chtype attributes_of(Look look, bool colored) {
    if (look == Look::head) return A_BOLD;
    if (look == Look::plain) return A_NORMAL;
    if (!colored) return look == Look::bad ? A_BOLD : A_NORMAL;
    return static_cast<chtype>(COLOR_PAIR(static_cast<int>(look)));
}

Descriptor copy_of(int file) {
    Descriptor copy(fcntl(file, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (!copy.is_open()) throw system_error("the terminal", errno);
    return copy;
}

}  // namespace

struct TerminalScreen::Curses {
    SCREEN *screen = nullptr;
    std::FILE *output = nullptr;
    bool colored = false;

    explicit Curses(int terminal) : output(fdopen(fcntl(terminal, F_DUPFD_CLOEXEC, STDERR_FILENO + 1), "w")) {
        remember_modes(terminal);
        std::setlocale(LC_CTYPE, "");  // for names that are not ASCII
        screen = output == nullptr ? nullptr : newterm(nullptr, output, stdin);
        if (screen == nullptr) return;
        remember_sequences();
        restore_when_killed();
        colored = wants_color();
        if (colored) define_colors();
        noecho();
        curs_set(0);
    }
    Curses(const Curses &) = delete;
    Curses &operator=(const Curses &) = delete;
    ~Curses() {
        if (screen != nullptr) {
            endwin();
            die_as_before();
            delscreen(screen);
        }
        if (output != nullptr) std::fclose(output);
    }
};

std::unique_ptr<TerminalScreen> TerminalScreen::open() {
    if (isatty(STDOUT_FILENO) == 0 || !can_show_lines_in_place(STDOUT_FILENO)) return nullptr;
    std::unique_ptr<TerminalScreen> screen(new TerminalScreen(copy_of(STDOUT_FILENO)));
    if (screen->curses_->screen == nullptr) return nullptr;
    screen->measure();
    screen->keep_output();
    return screen;
}

TerminalScreen::TerminalScreen(Descriptor terminal)
    : terminal_(std::move(terminal)), curses_(std::make_unique<Curses>(terminal_.get())) {}

TerminalScreen::~TerminalScreen() {
    curses_.reset();
    if (output_.is_open()) release_output();
}

void TerminalScreen::keep_output() {
    std::fflush(stdout);
    output_ = Descriptor(memfd_create("output", MFD_CLOEXEC));
    if (!output_.is_open()) throw system_error("a file for the output", errno);
    if (isatty(STDERR_FILENO) != 0) error_ = copy_of(STDERR_FILENO);
    dup2(output_.get(), STDOUT_FILENO);
    if (error_.is_open()) dup2(output_.get(), STDERR_FILENO);
}

void TerminalScreen::release_output() {
    std::fflush(stdout);
    dup2(terminal_.get(), STDOUT_FILENO);
    if (error_.is_open()) dup2(error_.get(), STDERR_FILENO);
    try {
        lseek(output_.get(), 0, SEEK_SET);
        read_pieces(output_, "the card's output",
                    [&](std::string_view piece) { write_all(terminal_, "the terminal", piece); });
    } catch (const Error &) {
        // The terminal is gone, or there is no room in memory: nobody can be told.
    }
}

void TerminalScreen::measure() {
    winsize size = {};
    const bool is_known = ioctl(terminal_.get(), TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0;
    if (is_known && is_term_resized(size.ws_row, size.ws_col)) {
        resizeterm(size.ws_row, size.ws_col);
        clearok(curscr, true);
    }
    rows_ = static_cast<std::size_t>(getmaxy(stdscr));
    columns_ = static_cast<std::size_t>(getmaxx(stdscr));
}

void TerminalScreen::show(const std::vector<ScreenLine> &lines) {
    werase(stdscr);
    for (std::size_t row = 0; row < lines.size() && row < rows_; ++row) {
        wattrset(stdscr, static_cast<int>(attributes_of(lines[row].look, curses_->colored)));
        mvwaddnstr(stdscr, static_cast<int>(row), 0, lines[row].text.c_str(), -1);
    }
    wrefresh(stdscr);
}

}  // namespace cardsim
