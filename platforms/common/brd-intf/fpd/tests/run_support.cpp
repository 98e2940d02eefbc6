#include "run_support.h"

#include <fcntl.h>
#include <mqueue.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <thread>

#include "brd_intf_auto_fpd_obfl.h"
#include "brd_intf_auto_fpd_upgrade_handler.h"
#include "brd_intf_auto_fpd_upgrade_led.h"
#include "brd_intf_auto_fpd_upgrade_marker.h"
#include "brd_intf_auto_fpd_upgrade_msg_queue.h"
#include "interpose.h"
#include "os_owner.h"

namespace fs = std::filesystem;

namespace {

constexpr const char *queue_name = "/auto_fpd_upg_mq_localcard";

void clean_flash() {
    for (const fs::directory_entry &entry : fs::directory_iterator("/mnt/obfl")) fs::remove_all(entry.path());
}

/// What the process keeps from test to test.
void forget_process_state() {
    obfl_flash_release();
    upg_marker_release();
    bootup_fpd_time_div = 1;
    char ignored[256];
    upg_led_notify(3, 1, UpgLedRequest::upgrade_ended, ignored, sizeof ignored);
}

void start_clean() {
    forget_process_state();
    clean_flash();
    fake_platform().reset();
    clear_log();
}

void end_worker(FpdWorkerCtx *worker) {
    pthread_cancel(worker->thread);
    pthread_join(worker->thread, nullptr);
    std::free(worker);
}

void *idle_worker(void *worker) {
    std::atomic_ref(static_cast<FpdWorkerCtx *>(worker)->ended).store(true, std::memory_order_release);
    return nullptr;
}

}  // namespace

RunTest::RunTest() {
    start_clean();
    card.group_id = 3;
    card.led_obj_id = 1;
    card.board_type = 0x3100;
    card.hw_version.major = 1;
    std::snprintf(card.mq_name, sizeof card.mq_name, "%s", queue_name);
    EXPECT_EQ(create_fpd_mq(card.mq_name, &card.mq, nullptr, 0), 0);
}

RunTest::~RunTest() {
    interpose::reset();
    for (Fpd *queue : card.queues.seq_queues)
        for (Fpd *fpd = queue; fpd; fpd = fpd->next) retire_worker(card, *fpd, false);
    while (FpdWorkerCtx *const worker = card.retired_workers) {
        card.retired_workers = worker->next;
        end_worker(worker);
    }
    free_queues(card);
    if (card.mq >= 0) delete_fpd_mq(card.mq_name, &card.mq, nullptr, 0);
    forget_process_state();
}

namespace {

Fpd *make_record(const std::string &name) {
    Fpd *const fpd = alloc_fpd(nullptr, 0);
    const FakeRegion *const region = fake_platform().find_region(name);
    const FakeRegion made = region ? *region : make_region(name);
    fpd->info = made.info;
    fpd->desc = made.desc;
    fpd->obj_id = 1;
    fpd_version_make(made.info.programmed_major, made.info.programmed_minor, made.info.programmed_debug,
                     &fpd->programmed_version);
    fpd_version_make(made.info.running_major, made.info.running_minor, made.info.running_debug, &fpd->running_version);
    fpd->desc_req.programmed_version = fpd->programmed_version;
    fpd_version_to_text(fpd->programmed_version, fpd->programmed_text, sizeof fpd->programmed_text);
    fpd_version_to_text(fpd->running_version, fpd->running_text, sizeof fpd->running_text);
    fpd_version_to_text(fpd->desc.packaged_version, fpd->packaged_text, sizeof fpd->packaged_text);
    return fpd;
}

}  // namespace

Fpd &RunTest::plan(const std::string &name, unsigned seq) {
    Fpd *const fpd = make_record(name);
    fpd->seq = static_cast<std::uint8_t>(seq);
    EXPECT_EQ(add_fpd_queue(&card.queues.seq_queues[seq], fpd, nullptr, 0), 0);
    ++card.planned_count;
    transition(*fpd, FpdState::queued_for_upgrade);
    return *fpd;
}

Fpd &RunTest::discover(const std::string &name, FpdState state) {
    Fpd *const fpd = make_record(name);
    EXPECT_EQ(add_fpd_queue(&card.queues.fpd_queue, fpd, nullptr, 0), 0);
    transition(*fpd, state);
    return *fpd;
}

FpdWorkerCtx &RunTest::attach_worker(Fpd &fpd, FpdState state) {
    auto *const worker = static_cast<FpdWorkerCtx *>(std::calloc(1, sizeof(FpdWorkerCtx)));
    worker->mq = -1;
    worker->fpd = &fpd;
    worker->card = &card;
    pthread_create(&fpd.worker_thread, nullptr, idle_worker, worker);
    worker->thread = fpd.worker_thread;
    fpd.worker = worker;
    transition(fpd, state);
    return *worker;
}

void RunTest::report(const FpdWorkerCtx *worker, FpdState state, std::uint32_t progress) {
    RawRecord msg(24);
    msg.put(0, std::uint32_t{0xA670F9D4}).put(8, worker).put(16, progress).put(20, static_cast<std::uint32_t>(state));
    send_bytes(msg.bytes);
}

void RunTest::send_bytes(std::string_view bytes) {
    const mqd_t queue = mq_open(card.mq_name, O_WRONLY | O_NONBLOCK);
    ASSERT_GE(queue, 0);
    EXPECT_EQ(mq_send(queue, bytes.data(), bytes.size(), 0), 0) << std::strerror(errno);
    mq_close(queue);
}

long RunTest::waiting_reports() const {
    mq_attr attributes{};
    mq_getattr(card.mq, &attributes);
    return attributes.mq_curmsgs;
}

WorkerMsg RunTest::receive() {
    WorkerMsg msg{};
    EXPECT_EQ(mq_receive(card.mq, reinterpret_cast<char *>(&msg), sizeof msg, nullptr), 24) << std::strerror(errno);
    return msg;
}

void Gate::hold_upgrades() const {
    fake_platform().brd_fpd_upgrade = [gate = *this](auto...) {
        gate.pass();
        return 0;
    };
}

void Gate::hang_upgrades() const {
    fake_platform().brd_fpd_upgrade = [gate = *this](auto...) {
        gate.shared->arrived.release();
        for (;;) pause();
        return 0;
    };
}

StandardInputClosed::StandardInputClosed() : kept(dup(STDIN_FILENO)) {
    close(STDIN_FILENO);
}

StandardInputClosed::~StandardInputClosed() {
    dup2(kept, STDIN_FILENO);
    close(kept);
}

bool eventually(const std::function<bool()> &condition) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) return false;
        poll(nullptr, 0, 1);  // not one of the sleeps that tests hold
    }
    return true;
}

bool has_ended(FpdWorkerCtx &worker) {
    return std::atomic_ref(worker.ended).load(std::memory_order_acquire);
}

void await_end(FpdWorkerCtx &worker) {
    EXPECT_TRUE(eventually([&] { return has_ended(worker); })) << worker.name;
}

void await_thread(const FpdWorkerCtx &worker) {
    clockid_t clock;
    EXPECT_TRUE(eventually([&] { return pthread_getcpuclockid(worker.thread, &clock) == ESRCH; })) << worker.name;
}

std::vector<std::string> events() {
    constexpr std::string_view script = "/usr/local/etc/send_fpd_doorbell_event.sh  -e ";
    std::vector<std::string> found;
    for (const std::string &line : fake_platform().command_lines()) {
        if (!line.starts_with(script)) continue;
        const std::string kind = line.substr(script.size(), line.find(' ', script.size()) - script.size());
        const std::size_t quote = line.find('"');
        found.push_back(kind + ": " + line.substr(quote + 1, line.size() - quote - 2));
    }
    return found;
}

std::vector<std::string> event_log_texts(const char *path) {
    constexpr std::string_view mark = " [Bootup FPD] ";
    std::istringstream text(read_file(path));
    std::vector<std::string> found;
    for (std::string line; std::getline(text, line);) {
        const std::size_t begin = line.find(mark);
        found.push_back(begin == std::string::npos ? "no event line: " + line : line.substr(begin + mark.size()));
    }
    return found;
}

std::vector<std::string> names(const Fpd *queue) {
    std::vector<std::string> found;
    for (const Fpd *fpd = queue; fpd; fpd = fpd->next) found.push_back(fpd->info.name);
    return found;
}

FpdVersion version(std::uint8_t major, std::uint16_t minor, std::uint8_t debug, std::uint8_t kind) {
    FpdVersion made{};
    made.kind = kind;
    made.major = major;
    made.minor = minor;
    made.debug = debug;
    return made;
}
