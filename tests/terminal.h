/// A program on a terminal of a fixed size, and what stands on its screen.
#ifndef TERMINAL_H
#define TERMINAL_H

#include <sys/types.h>
#include <termios.h>
#include <vterm.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace card_tests {

class Terminal {
  public:
    /// Starts `command` (its first word is the path of the program) with `environment` ("NAME=VALUE") added to that of
    /// the caller. Throws when it cannot be started.
    Terminal(const std::vector<std::string> &command, const std::vector<std::string> &environment, int rows,
             int columns);
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;
    ~Terminal();

    /// Lines of the screen without blanks at their ends.
    std::vector<std::string> screen() const;
    /// Reads until the screen is as `is_there` wants it, for a minute at most, or until the program ends.
    bool shows(const std::function<bool(const std::vector<std::string> &)> &is_there);
    void resize(int rows, int columns);
    void signal(int number) const;
    /// Reads to the program's end. Its exit status; 128 + n when signal n ended it.
    int end();
    /// Everything that was written to the terminal.
    const std::string &written() const { return written_; }
    /// The terminal is as it was before the program: modes, cursor and screen.
    bool is_as_before() const;

  private:
    struct Free {
        void operator()(VTerm *terminal) const { vterm_free(terminal); }
    };
    std::unique_ptr<VTerm, Free> vterm_;
    int master_ = -1;
    pid_t pid_ = -1;
    termios modes_ = {};
    std::string written_;
    bool alternate_screen_ = false;
    bool cursor_visible_ = true;

    static int note_property(VTermProp property, VTermValue *value, void *terminal);
    /// False when nothing more comes, or nothing came for a while.
    bool read_some(int milliseconds);
};

}  // namespace card_tests

#endif
