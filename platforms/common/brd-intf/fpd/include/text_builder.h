/// Texts made piece by piece. Callable from every thread; a builder belongs to one.
#ifndef TEXT_BUILDER_H
#define TEXT_BUILDER_H

#include <cstdarg>
#include <cstddef>
#include <string_view>

#include "os_owner.h"

/// Whether what snprintf returned says that the whole text, with its NUL, went into `size` bytes.
constexpr bool fits(int length, std::size_t size) {
    return length >= 0 && static_cast<std::size_t>(length) < size;
}

/// A text under construction, of any length; without memory for a long one it is cut, never lost.
class TextBuilder {
  public:
    /// Characters for which no memory is taken.
    static constexpr std::size_t short_length = 2047;

    TextBuilder() { small_[0] = '\0'; }
    TextBuilder(const TextBuilder &) = delete;
    TextBuilder &operator=(const TextBuilder &) = delete;

    [[gnu::format(printf, 2, 3)]] void add(const char *format, ...);
    /// A conversion that printf refuses is added as it stands, with what follows it.
    [[gnu::format(printf, 2, 0)]] void add_list(const char *format, std::va_list arguments);
    void add_text(std::string_view text) {
        if (text.size() < room())
            append(text);
        else
            add_long_text(text);
    }
    void add_number(long number);
    /// Adds the last characters of a line, which replace those before them when the text had to be cut.
    void end_with(std::string_view ending);
    /// What was added so far, without the NUL after it; valid until more is added.
    std::string_view view() const { return {text_, length_}; }
    const char *text() const { return text_; }

  private:
    void add_hexadecimal(unsigned long number);
    void add_address(const void *address);
    void add_long_text(std::string_view text);
    [[gnu::format(printf, 2, 0)]] void add_list_of_printf(const char *format, std::va_list arguments);
    char *end() { return text_ + length_; }
    /// Bytes for more characters and their NUL.
    std::size_t room() const { return capacity_ - length_; }
    void make_room(std::size_t count);
    /// For what there is room for.
    void append(std::string_view text) {
        text.copy(end(), text.size());
        length_ += text.size();
        *end() = '\0';
    }

    char small_[short_length + 1];  // holds the text until it is too long
    Allocated<char> grown_;         // holds it from then on
    char *text_ = small_;           // whichever holds it
    std::size_t capacity_ = sizeof small_;
    std::size_t length_ = 0;  // characters, without the NUL
};

#endif
