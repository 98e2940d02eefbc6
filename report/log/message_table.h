/// What the tool's log messages say: for each the tag, the format that it was written with, and what it means for a
/// run.
#ifndef FPD_LOG_MESSAGE_TABLE_H
#define FPD_LOG_MESSAGE_TABLE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace fpd_log {

enum class Meaning : std::uint8_t {
    note,  // nothing that a run is made of; kept where it is an error
    // the start: configuration, context, message queue
    disabled,
    config_failed,
    start_note,
    start_failed,
    // discovery and evaluation
    discovery,  // begins
    added_first,
    added,
    duplicate,
    not_added,
    capabilities,
    not_automatic,
    not_at_boot,
    not_of_stage_1a,
    not_of_stage_1b,
    info_failed,
    no_firmware,
    image,
    checksum_wrong,
    versions,
    // construction of the queues
    judged,
    not_ready,
    too_old,
    not_asked_for,
    not_needed,
    dependency_unknown,
    dependency_circular,
    dependency_bad,
    dependency_move_failed,
    dependency_waits,
    dependency_joins,
    manufacturing_only,
    type_refused,
    queue_out_of_range,
    queue_move_failed,
    queued,
    stage_1b,
    run_failed,
    // states
    transition,
    clock_failed,
    // the run
    marker_same,
    announced,
    event_failed,
    led_set,
    punched,
    punch_failed,
    main_loop_done,
    response,
    progress_reported,
    retry,
    stuck,
    not_started,
    dependency_not_upgraded,
    worker_started,
    worker_failed,
    flash_found,
    flash_operation,
    flash_failed,
    activation,
    activation_failed,
};

/// Whom a message is about, where no conversion of its format is the name.
inline constexpr int nobody = -1;
inline constexpr int in_hand = -2;  // the region that the thread's last message with a name was about

struct Message {
    std::string_view tag;
    std::string_view format;  // as the tool hands it to printf
    Meaning meaning;
    int subject;  // index of the conversion that is the region's name, or nobody, or in_hand
};

inline constexpr std::size_t max_conversions = 6;

/// What stood in the place of each conversion; views into the text.
struct Captures {
    std::array<std::string_view, max_conversions> texts;
    std::string_view operator[](std::size_t index) const { return texts[index]; }
};

/// All messages, ordered by tag.
std::span<const Message> messages();
/// Those of a tag; empty: the tool has no such tag.
std::span<const Message> messages_of(std::string_view tag);

/// Whether `text` can have been written with the message's format; of `messages()`.
///
/// A text may itself hold what stands around it. Where the format ends with a free text, each conversion takes as
/// little as it can, so that what is ambiguous goes to the last; otherwise as much, so that it goes to the first, the
/// name.
bool match(const Message &message, std::string_view text, Captures *captures);

/// Whether the message ends with a free text, so that nothing in it tells its end; of `messages()`.
bool has_open_end(const Message &message);

}  // namespace fpd_log

#endif
