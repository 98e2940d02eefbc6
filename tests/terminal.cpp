#include "terminal.h"

#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace card_tests {
namespace {

constexpr std::chrono::seconds longest{60};

[[noreturn]] void run(const std::vector<std::string> &command, const std::vector<std::string> &environment) {
    for (const std::string &variable : environment) putenv(strdup(variable.c_str()));
    std::vector<char *> words;
    for (const std::string &word : command) words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    execv(words.front(), words.data());
    _exit(99);
}

std::string utf8(uint32_t code) {
    if (code < 0x80) return std::string(1, static_cast<char>(code));
    if (code < 0x800) return {static_cast<char>(0xc0 | code >> 6), static_cast<char>(0x80 | (code & 0x3f))};
    return {static_cast<char>(0xe0 | code >> 12), static_cast<char>(0x80 | (code >> 6 & 0x3f)),
            static_cast<char>(0x80 | (code & 0x3f))};
}

}  // namespace

int Terminal::note_property(VTermProp property, VTermValue *value, void *terminal) {
    auto *const own = static_cast<Terminal *>(terminal);
    if (property == VTERM_PROP_ALTSCREEN) own->alternate_screen_ = value->boolean != 0;
    if (property == VTERM_PROP_CURSORVISIBLE) own->cursor_visible_ = value->boolean != 0;
    return 1;
}

Terminal::Terminal(const std::vector<std::string> &command, const std::vector<std::string> &environment, int rows,
                   int columns)
    : vterm_(vterm_new(rows, columns)) {
    vterm_set_utf8(vterm_.get(), 1);
    VTermScreen *const screen = vterm_obtain_screen(vterm_.get());
    static const VTermScreenCallbacks callbacks = [] {
        VTermScreenCallbacks made = {};
        made.settermprop = note_property;
        return made;
    }();
    vterm_screen_set_callbacks(screen, &callbacks, this);
    vterm_screen_enable_altscreen(screen, 1);
    vterm_screen_reset(screen, 1);
    winsize size = {static_cast<unsigned short>(rows), static_cast<unsigned short>(columns), 0, 0};
    pid_ = forkpty(&master_, nullptr, nullptr, &size);
    if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "a terminal");
    if (pid_ == 0) run(command, environment);
    tcgetattr(master_, &modes_);
}

Terminal::~Terminal() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close(master_);
}

std::vector<std::string> Terminal::screen() const {
    int rows = 0;
    int columns = 0;
    vterm_get_size(vterm_.get(), &rows, &columns);
    std::vector<std::string> lines;
    for (int row = 0; row < rows; ++row) {
        std::string line;
        for (int column = 0; column < columns; ++column) {
            VTermScreenCell cell = {};
            vterm_screen_get_cell(vterm_obtain_screen(vterm_.get()), {row, column}, &cell);
            line += cell.chars[0] == 0 ? " " : utf8(cell.chars[0]);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        lines.push_back(line);
    }
    return lines;
}

bool Terminal::read_some(int milliseconds) {
    pollfd waiting = {master_, POLLIN, 0};
    if (poll(&waiting, 1, milliseconds) <= 0) return false;
    std::array<char, 65536> piece;
    const ssize_t count = read(master_, piece.data(), piece.size());
    if (count <= 0) return false;
    written_.append(piece.data(), static_cast<std::size_t>(count));
    vterm_input_write(vterm_.get(), piece.data(), static_cast<std::size_t>(count));
    return true;
}

bool Terminal::shows(const std::function<bool(const std::vector<std::string> &)> &is_there) {
    const auto deadline = std::chrono::steady_clock::now() + longest;
    while (std::chrono::steady_clock::now() < deadline) {
        if (is_there(screen())) return true;
        if (!read_some(100) && kill(pid_, 0) != 0) return false;
        siginfo_t ended = {};
        waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT);
        if (ended.si_pid == pid_ && !read_some(0)) return is_there(screen());
    }
    return false;
}

void Terminal::resize(int rows, int columns) {
    const winsize size = {static_cast<unsigned short>(rows), static_cast<unsigned short>(columns), 0, 0};
    ioctl(master_, TIOCSWINSZ, &size);
    vterm_set_size(vterm_.get(), rows, columns);
}

void Terminal::signal(int number) const {
    kill(pid_, number);
}

int Terminal::end() {
    const auto deadline = std::chrono::steady_clock::now() + longest;
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) kill(pid_, SIGKILL);
        read_some(20);
    }
    while (read_some(0)) {
    }
    pid_ = -1;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

bool Terminal::is_as_before() const {
    termios now = {};
    tcgetattr(master_, &now);
    return std::memcmp(&now, &modes_, sizeof now) == 0 && !alternate_screen_ && cursor_visible_;
}

}  // namespace card_tests
