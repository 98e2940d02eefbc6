/// The record of one FPD region, its versions, and its lifecycle.
#ifndef BRD_INTF_AUTO_FPD_UPGRADE_STATE_H
#define BRD_INTF_AUTO_FPD_UPGRADE_STATE_H

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <type_traits>

#include "brd_platform_access.h"
#include "fpd_description.h"
#include "fpd_version.h"

struct FpdWorkerCtx;

enum class FpdState : std::uint32_t {
    created = 1,
    initialized = 2,
    capability_get_failed = 3,
    capability_received = 4,
    info_get_failed = 5,
    info_received = 6,
    description_failed = 7,
    description_received = 8,
    cant_be_upgraded = 9,
    dependency_failed = 10,
    upgrade_available = 11,
    dependent_upgrade_required = 12,
    upgrade_not_needed = 13,
    queued_for_upgrade = 14,
    worker_created = 15,
    upgrade_started = 16,
    upgrade_progressing = 17,
    upgrade_failed = 18,
    upgrade_done = 19,
};

enum class UpgradeStage : std::uint32_t {
    requires_golden_unlocked_primary = 0,
    can_unlock_golden = 1,
    manufacturing = 2,
    regular = 3,
    dummy_minor = 4,
    dummy_major = 5,
};

/// The stored mode of the upgrade configuration store.
enum class UpgradeMode : int {
    regular = 0,
    manufacturing = 1,
    dummy_minor_version = 2,
    dummy_major_version = 3,
};

/// Room for the text of any version, with its NUL.
inline constexpr std::size_t fpd_version_text_size = 12;

/// One FPD region. All fields belong to the main thread; a worker has copies of what it needs of them.
struct Fpd {
    Fpd *next;  // in the queue that holds the record; near the name, for whoever looks for one
    std::uint32_t obj_id;
    std::uint8_t region;         // index within the FPD
    std::uint8_t seq;            // number of its sequence queue
    FpdState state;              // changed by transition() alone
    timespec state_time;         // of the last change, CLOCK_MONOTONIC_RAW
    std::uint8_t progress;       // percent, as last reported
    std::uint8_t retries;        // upgrade retries made so far
    std::uint32_t capabilities;  // FPD_CAPABILITY_ bits
    BrdFpdInfo info;             // info.name is the record's name, always NUL-terminated
    FpdDescRequest desc_req;
    FpdDesc desc;             // its texts are always NUL-terminated; status_msg belongs to the description library
    pthread_t worker_thread;  // 0: none
    FpdVersion programmed_version;
    FpdVersion running_version;
    char programmed_text[fpd_version_text_size];
    char running_text[fpd_version_text_size];
    char packaged_text[fpd_version_text_size];
    FpdWorkerCtx *worker;  // of its running upgrade, null: none; owned by the LocalCard
    Fpd *dependency;       // not owned; null: none
};
static_assert(std::is_trivial_v<Fpd>, "taken with calloc");

/// Stores major, minor and debug (not the kind) in `out` and returns it; null, with `out` untouched, when one of them
/// is out of its range (255, 65535, 255).
FpdVersion *fpd_version_make(std::uint32_t major, std::uint32_t minor, std::uint32_t debug, FpdVersion *out);
/// Writes the version's text, at most 10 characters, and returns `buffer`. A buffer below 12 bytes becomes empty, a
/// null one is returned as it is.
char *fpd_version_to_text(const FpdVersion &version, char *buffer, std::size_t size);
/// The version as one number that is equal for equal versions; the kind takes no part.
std::uint32_t fpd_version_packed(const FpdVersion &version);

/// Zeroes a request or a result of the description library and marks it as one.
void fpd_desc_init(FpdDescRequest &request);
void fpd_desc_init(FpdDesc &desc);

/// Name of a state as logs show it, quotes included. Static text; that of an unknown value is overwritten by the next
/// unknown one, so one thread only may ask for those.
const char *state_name(FpdState state);
/// Name of a stage as logs show it, quotes included. Static text.
const char *stage_name(UpgradeStage stage);
/// The upgrade type that a stage asks the description library for.
std::uint32_t stage_upgrade_type(UpgradeStage stage);

/// Moves a record to a state, stamps the time and logs it; any state may follow any other. Main thread.
void transition(Fpd &fpd, FpdState new_state);

#endif
