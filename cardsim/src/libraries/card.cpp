#include "card.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "printable.h"

/// The program's divisor of its own times, when it has one.
extern "C" uint32_t bootup_fpd_time_div __attribute__((weak, visibility("default")));

namespace cardsim {

namespace {

/// One write, so that lines of several threads and processes do not mix.
bool append_line(int file, const std::string &line) {
    ssize_t written = -1;
    do {
        written = write(file, line.data(), line.size());
    } while (written < 0 && errno == EINTR);
    return written == static_cast<ssize_t>(line.size());
}

Descriptor open_for_append(const StateDirectory &directory, const char *name) {
    return directory.open(name, O_WRONLY | O_APPEND | O_CREAT);
}

std::string environment(const char *name) {
    const char *value = std::getenv(name);
    if (value == nullptr || *value == '\0') {
        abort_call(nullptr,
                   "no card: run this with `cardsim exec CARD -- COMMAND` (" + std::string(name) + " is not set)");
    }
    return value;
}

uint32_t speed_from_environment() {
    const char *text = std::getenv("CARDSIM_SPEED");
    if (text == nullptr) {
        return 1;
    }
    uint32_t speed = 0;
    const char *end = text + std::strlen(text);
    const auto [stop, failure] = std::from_chars(text, end, speed);
    if (failure != std::errc() || stop != end || speed < 1 || speed > max_speed) {
        abort_call(nullptr, "CARDSIM_SPEED is '" + std::string(text) + "', not a whole number from 1 to " +
                                std::to_string(max_speed));
    }
    return speed;
}

Card *make_card() {
    const std::string file = environment("CARDSIM_CARD");
    auto *card = new Card(std::filesystem::canonical(environment("CARDSIM_STATE")));
    card->speed = speed_from_environment();
    card->description = load_card_description(file);
    card->boot = load_state(card->state_directory, card->description).boot;
    card->calls_log = open_for_append(card->state_directory, calls_log);
    if (&bootup_fpd_time_div != nullptr) {
        bootup_fpd_time_div = card->speed;
    }
    return card;
}

Card *make_card_or_end() {
    try {
        return make_card();
    } catch (const std::exception &reason) {
        abort_call(nullptr, reason.what());
    }
}

Card &the_card() {
    static Card *const card = make_card_or_end();
    return *card;
}

void require_thread(const Call &call, Callers callers) {
    if (callers == Callers::AnyThread) {
        return;
    }
    bool is_the_caller = false;
    {
        const std::lock_guard guard(call.card.lock);
        call.card.caller = call.card.caller.value_or(std::this_thread::get_id());
        is_the_caller = call.card.caller == std::this_thread::get_id();
    }
    require(call, is_the_caller, "called from another thread than the one that called first");
}

bool matches(const CallFault &fault, const Call &call, uint32_t nth) {
    return fault.call == call.function && fault.nth.value_or(nth) == nth &&
           fault.boot.value_or(call.card.boot) == call.card.boot;
}

}  // namespace

Call::Call(const char *name, Callers callers) : function(name), card(the_card()) {
    require_thread(*this, callers);
}

Call::~Call() {
    if (!ended_) {
        record("-> cancelled");
    }
}

int Call::answer(const std::function<void()> &work, char *err_msg, size_t err_len) {
    if (const CallFault *fault = fault_of(*this)) {
        if (fault->text) {
            write_text(err_msg, err_len, *fault->text);
        }
        return end(static_cast<int>(fault->code));
    }
    try {
        work();
        return end(0);
    } catch (const Error &reason) {
        write_text(err_msg, err_len, reason.what());
        return end(reason.code);
    }
}

int Call::end(int result) {
    ended_ = true;
    record("-> " + std::to_string(result));
    return result;
}

uint32_t Call::end_with_bits(uint32_t bits) {
    ended_ = true;
    record(formatted("-> 0x%x", bits));
    return bits;
}

void Call::begin() const {
    record("begin");
}

void Call::record(const std::string &outcome) const {
    const std::string line = std::string(function) + (arguments.empty() ? "" : " ") + arguments + " " + outcome + "\n";
    if (!append_line(card.calls_log.get(), line)) {
        abort_call(function, "its record cannot be written");
    }
}

void abort_call(const char *function, const std::string &reason) {
    const std::string text = (function == nullptr ? "" : std::string(function) + ": ") + reason;
    const std::string line = "cardsim: " + printable(text) + "\n";
    append_line(STDERR_FILENO, line);
    const char *directory = std::getenv("CARDSIM_STATE");
    try {
        const StateDirectory state(std::filesystem::canonical(directory == nullptr ? "" : directory));
        append_line(open_for_append(state, abort_log).get(), line);
    } catch (const std::exception &) {
        // It was told on standard error.
    }
    std::abort();
}

void require(const Call &call, bool holds, const std::string &reason) {
    if (!holds) {
        abort_call(call.function, reason);
    }
}

void require_error_buffer(const Call &call, const char *err_msg, size_t err_len) {
    require(call, err_msg != nullptr || err_len == 0, "err_msg is null and err_len is not 0");
}

void require_group(const Call &call, uint32_t group_id) {
    require(call, group_id == call.card.description.group, formatted("unknown group %u", group_id));
}

void require_clean_text(const Call &call, const char *field, const char *text, size_t size) {
    const size_t length = strnlen(text, size);
    require(call, length < size, std::string(field) + " does not end with a NUL");
    require_zero(call, (std::string(field) + " after its NUL").c_str(), text + length, size - length);
}

void require_zero(const Call &call, const char *field, const void *bytes, size_t size) {
    const auto *begin = static_cast<const unsigned char *>(bytes);
    const auto *dirty = std::find_if(begin, begin + size, [](unsigned char byte) { return byte != 0; });
    require(call, dirty == begin + size, formatted("dirty byte %td in %s", dirty - begin, field));
}

const CallFault *fault_of(const Call &call) {
    uint32_t nth = 0;
    {
        const std::lock_guard guard(call.card.lock);
        nth = ++call.card.calls[call.function];
    }
    const auto &faults = call.card.description.faults;
    const auto found =
        std::find_if(faults.begin(), faults.end(), [&](const CallFault &fault) { return matches(fault, call, nth); });
    if (found == faults.end()) return nullptr;
    record_fault(call, call_fault_name(static_cast<size_t>(found - faults.begin())));
    return &*found;
}

void record_fault(const Call &call, const std::string &fault) {
    const std::string line = formatted("boot %u: ", call.card.boot) + fault + "\n";
    {
        const std::lock_guard guard(call.card.lock);
        if (!call.card.faults_told.insert(line).second) return;
    }
    try {
        if (append_line(open_for_append(call.card.state_directory, faults_log).get(), line)) return;
    } catch (const std::exception &reason) {
        abort_call(call.function, reason.what());
    }
    abort_call(call.function, "the record of a fault cannot be written");
}

CardState state_of(const Call &call) {
    try {
        return load_state(call.card.state_directory, call.card.description);
    } catch (const std::exception &reason) {
        abort_call(call.function, reason.what());
    }
}

void change_state(const Call &call, const std::function<void(CardState &)> &change) {
    const StateDirectory &directory = call.card.state_directory;
    try {
        const StateLock lock(directory);
        CardState state = load_state(directory, call.card.description);
        change(state);
        save_state(directory, state);
    } catch (const std::exception &reason) {
        abort_call(call.function, reason.what());
    }
}

const char *lasting_text(const Call &call, const std::string &text) {
    const std::lock_guard guard(call.card.lock);
    return call.card.texts.insert(text).first->c_str();
}

void write_text(char *buffer, size_t size, const std::string &text) {
    if (buffer != nullptr && size > 0) {
        std::snprintf(buffer, size, "%s", text.c_str());
    }
}

std::string formatted_list(const char *format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<size_t>(std::max(length, 0)), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

std::string formatted(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string text = formatted_list(format, arguments);
    va_end(arguments);
    return text;
}

std::string quoted(const std::string &text) {
    std::string result = "\"";
    for (const char byte : text) {
        if (byte == '"' || byte == '\\') {
            result += '\\';
        }
        result += byte == '\n' ? "\\n" : std::string(1, byte);
    }
    return result + "\"";
}

}  // namespace cardsim
