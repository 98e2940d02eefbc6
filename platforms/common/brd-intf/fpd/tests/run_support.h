/// What the tests of a whole run share: a card with a plan, workers, their reports, and what a run tells others.
#ifndef BOOTUP_FPD_TESTS_RUN_SUPPORT_H
#define BOOTUP_FPD_TESTS_RUN_SUPPORT_H

#include <functional>
#include <memory>
#include <semaphore>
#include <string>
#include <string_view>
#include <vector>

#include "brd_intf_auto_fpd_upgrade_init.h"
#include "brd_intf_auto_fpd_upgrade_worker.h"
#include "fake_platform.h"
#include "test_support.h"
#include "worker_msg.h"

inline constexpr Module init_module{"FPD", "brd_intf_auto_fpd_upgrade_init"};
inline constexpr Module handler_module{"FPD", "brd_intf_auto_fpd_upgrade_handler"};
inline constexpr Module worker_module{"FPD", "brd_intf_auto_fpd_upgrade_worker"};
inline constexpr Module activate_module{"FPD", "brd_intf_auto_fpd_upgrade_activate"};
inline constexpr Module obfl_module{"FPD", "brd_intf_auto_fpd_obfl"};
inline constexpr Module queue_module{"FPD", "brd_intf_auto_fpd_upgrade_queue"};
inline constexpr Module mq_module{"FPD", "brd_intf_auto_fpd_upgrade_msg_queue"};
inline constexpr Module marker_module{"FPD", "brd_intf_auto_fpd_upgrade_marker"};

inline constexpr const char *flash_log_path = "/mnt/obfl/fpd_local_log_1.txt";

/// One test on a card with an open message queue, an empty plan, and an event log on a flash that is mounted.
/// Its end cancels, joins and releases the workers that the card still knows, retired ones included.
struct RunTest : CardTest {
    RunTest();
    ~RunTest() override;

    /// A record that is planned in the sequence queue, of the fake's region of that name if there is one.
    Fpd &plan(const std::string &name, unsigned seq = 0);
    /// A record in fpd_queue.
    Fpd &discover(const std::string &name, FpdState state);

    /// Gives the FPD a worker whose thread has nothing to do, and the FPD this state.
    FpdWorkerCtx &attach_worker(Fpd &fpd, FpdState state);
    /// Sends what a worker reports.
    void report(const FpdWorkerCtx *worker, FpdState state, std::uint32_t progress = 0);
    /// Sends the bytes as they are.
    void send_bytes(std::string_view bytes);
    /// Messages in the card's queue.
    long waiting_reports() const;
    /// The next report, which must be there.
    WorkerMsg receive();

    LocalCard card{};
};

/// Holds a worker up inside the platform library. Copies are the same gate.
struct Gate {
    /// On the worker's thread: not a cancellation point.
    void pass() const {
        shared->arrived.release();
        shared->opened.acquire();
    }
    /// Waits for a worker to arrive.
    void await_arrival() const { shared->arrived.acquire(); }
    /// Lets one worker through.
    void open() const { shared->opened.release(); }

    /// Has the platform library's upgrades pass the gate, and succeed.
    void hold_upgrades() const;
    /// Has them arrive at the gate and then hang for ever.
    void hang_upgrades() const;

    struct Shared {
        std::counting_semaphore<> arrived{0};
        std::counting_semaphore<> opened{0};
    };
    std::shared_ptr<Shared> shared = std::make_shared<Shared>();
};

/// Standard input is closed while this lives: its descriptor is the next that somebody gets.
struct StandardInputClosed {
    StandardInputClosed();
    ~StandardInputClosed();
    StandardInputClosed(const StandardInputClosed &) = delete;
    StandardInputClosed &operator=(const StandardInputClosed &) = delete;
    int kept;
};

/// Waits for what another thread is about to do; false when it does not come within 20 s.
bool eventually(const std::function<bool()> &condition);
/// Whether the worker's thread is through with its context.
bool has_ended(FpdWorkerCtx &worker);

/// Messages of the event script's runs with their kinds: "warning: Auto FPD Upgrade started for 'IoFpga'".
std::vector<std::string> events();
/// Texts of the lines of the event log on the flash, without their time stamps.
std::vector<std::string> event_log_texts(const char *path = flash_log_path);

/// Expects that the worker's thread comes to its end.
void await_end(FpdWorkerCtx &worker);
/// Expects that the worker's thread, which has not been joined or detached yet, can be joined at once. That it is
/// through with its context is not yet its end.
void await_thread(const FpdWorkerCtx &worker);

/// Names of the records of a queue, in its order.
std::vector<std::string> names(const Fpd *queue);

FpdVersion version(std::uint8_t major, std::uint16_t minor, std::uint8_t debug, std::uint8_t kind = 0);

/// The bytes of a record.
template <class Record>
std::string bytes_of(const Record &record) {
    return std::string(reinterpret_cast<const char *>(&record), sizeof record);
}

/// A record of a closed library, made by the offsets of its interface: what is not put is zero.
struct RawRecord {
    explicit RawRecord(std::size_t size) : bytes(size, '\0') {}
    template <class Value>
    RawRecord &put(std::size_t offset, Value value) {
        bytes.replace(offset, sizeof value, reinterpret_cast<const char *>(&value), sizeof value);
        return *this;
    }
    RawRecord &put_text(std::size_t offset, std::string_view text) {
        bytes.replace(offset, text.size(), text);
        return *this;
    }
    /// A version: kind 0.
    RawRecord &put_version(std::size_t offset, std::uint8_t major, std::uint16_t minor, std::uint8_t debug) {
        return put(offset + 1, major).put(offset + 2, minor).put(offset + 4, debug);
    }

    std::string bytes;
};

#endif
