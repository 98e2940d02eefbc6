/// A terminal that shows lines in place, whatever its kind and size.
#ifndef CARDSIM_TERMINAL_SCREEN_H
#define CARDSIM_TERMINAL_SCREEN_H

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "descriptor.h"

namespace cardsim {

enum class Look { plain, head, running, good, bad };

struct ScreenLine {
    std::string text;  ///< printable; what is too long is cut
    Look look = Look::plain;
};

/// Has the terminal on standard output to itself while it exists. What this process and those that it starts write to
/// standard output meanwhile, and to standard error where that is a terminal, is kept and written when the screen ends.
/// Ends with the terminal as it was, also when a signal ends the process.
class TerminalScreen {
  public:
    /// Null where standard output is no terminal, or one that cannot show lines in place. To be called after the
    /// process installed the handlers of its own signals.
    static std::unique_ptr<TerminalScreen> open();
    TerminalScreen(const TerminalScreen &) = delete;
    TerminalScreen &operator=(const TerminalScreen &) = delete;
    ~TerminalScreen();

    /// Takes the terminal's present size.
    void measure();
    std::size_t rows() const { return rows_; }
    std::size_t columns() const { return columns_; }
    void show(const std::vector<ScreenLine> &lines);

  private:
    explicit TerminalScreen(Descriptor terminal);

    struct Curses;  ///< the terminal library's own
    Descriptor terminal_;
    Descriptor error_;   ///< standard error as it was; none: it was no terminal
    Descriptor output_;  ///< what was written meanwhile
    std::unique_ptr<Curses> curses_;
    std::size_t rows_ = 0;
    std::size_t columns_ = 0;

    void keep_output();
    void release_output();
};

}  // namespace cardsim

#endif
