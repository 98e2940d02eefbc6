/// The card in the process that loaded its libraries: the calls it gets, what it forgives, what it writes down.
#ifndef CARDSIM_CARD_H
#define CARDSIM_CARD_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "cancellation.h"
#include "card_description.h"
#include "card_state.h"
#include "descriptor.h"
#include "error.h"

/// A function of a closed library.
#define CARDSIM_EXPORT extern "C" __attribute__((visibility("default")))

namespace cardsim {

/// One per process. The first call of a closed function makes it from the environment; nothing ever destroys it,
/// because a thread that its program gave up on may still be in a call when the process ends.
struct Card {
    explicit Card(const std::filesystem::path &directory) : state_directory(directory) {}

    CardDescription description;
    StateDirectory state_directory;
    uint32_t speed = 1;  ///< every time of the card is divided by it
    uint32_t boot = 1;
    Descriptor calls_log;

    std::mutex lock;  ///< guards all that follows; never held while waiting
    std::optional<std::thread::id> caller;
    std::map<std::string, uint32_t, std::less<>> calls;  ///< how often each function was called
    std::set<std::pair<uint32_t, uint8_t>> upgrading;    ///< object id and index of the regions being programmed
    std::set<std::string> faults_told;                   ///< lines that this process added to faults.log
    std::set<std::string> texts;                         ///< what was handed out for the life of the process
    bool identity_registered = false;
    bool hardware_started = false;
};

enum class Callers { OneThread, AnyThread };

/// A call of a closed function, from its entry to its record. While it exists its thread is cancelled only where
/// another guard lifts `uncancelled`; a call that is cancelled there is recorded as such.
class Call {
  public:
    /// Aborts the process when there is no card or when this thread must not call the function.
    Call(const char *function, Callers callers);
    ~Call();
    Call(const Call &) = delete;
    Call &operator=(const Call &) = delete;

    CancellationGuard uncancelled{PTHREAD_CANCEL_DISABLE};
    const char *function;
    Card &card;
    std::string arguments;  ///< for the record: "name=value name=value"

    /// Records the result and hands it back.
    int end(int result);
    /// Counts the call, does its `work` unless a described fault is in the way, and ends it with 0 or with the code of
    /// the fault or of the Error that the work threw, whose text goes to `err_msg`: the one place where an exception
    /// becomes a code.
    int answer(const std::function<void()> &work, char *err_msg = nullptr, size_t err_len = 0);
    uint32_t end_with_bits(uint32_t bits);
    /// Records that the call goes on for a while.
    void begin() const;

  private:
    bool ended_ = false;
    void record(const std::string &outcome) const;
};

/// One line "cardsim: FUNCTION: REASON" on standard error and in the card's abort.log, then abort(). The function may
/// be null: what is wrong is wrong for all of them.
[[noreturn]] void abort_call(const char *function, const std::string &reason);
/// Aborts the process unless `holds`.
void require(const Call &call, bool holds, const std::string &reason);

/// What must hold of the arguments that many functions share; each aborts the process otherwise.
void require_error_buffer(const Call &call, const char *err_msg, size_t err_len);
void require_group(const Call &call, uint32_t group_id);
/// A text that ends within `size` bytes with nothing but zeros after it.
void require_clean_text(const Call &call, const char *field, const char *text, size_t size);
void require_zero(const Call &call, const char *field, const void *bytes, size_t size);

/// Counts this call of the function. The described fault that it ends with; null: the call goes its way.
const CallFault *fault_of(const Call &call);

/// Records that a described fault was reached: call_fault_name or region_fault_name.
void record_fault(const Call &call, const std::string &fault);

/// The state as it is now; aborts the process when that is broken.
CardState state_of(const Call &call);
/// Changes the state and saves it before anybody else may change it; aborts the process when that fails.
void change_state(const Call &call, const std::function<void(CardState &)> &change);

/// A copy of the text that stays where it is for the life of the process.
const char *lasting_text(const Call &call, const std::string &text);

/// Cuts the text to the caller's buffer; nothing is written into a null or empty one.
void write_text(char *buffer, size_t size, const std::string &text);

std::string formatted(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string formatted_list(const char *format, va_list arguments) __attribute__((format(printf, 1, 0)));
/// In double quotes; quotes, backslashes and newlines in it are escaped with a backslash.
std::string quoted(const std::string &text);

}  // namespace cardsim

#endif
