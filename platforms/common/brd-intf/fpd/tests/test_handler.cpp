#include <fcntl.h>
#include <mqueue.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "brd_intf_auto_fpd_obfl.h"
#include "brd_intf_auto_fpd_upgrade_handler.h"
#include "brd_intf_auto_fpd_upgrade_marker.h"
#include "brd_intf_auto_fpd_upgrade_msg_queue.h"
#include "interpose.h"
#include "os_signal.h"
#include "run_support.h"

namespace {

using interpose::Call;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;

constexpr timespec start_time{1000, 0};

/// Expects one line of the handler's with the tag, an error.
void expect_error(std::string_view tag, std::string_view text, const char *file = __builtin_FILE(),
                  int line = __builtin_LINE()) {
    expect_log(handler_module, "ERROR", tag, text, file, line);
}

FakeCommand failing_command(const std::string &prefix, const std::string &error) {
    return {.prefix = prefix, .rc = 1, .error = error};
}

FakeCommand failing_events() {
    return failing_command("/usr/local/etc/send_fpd_doorbell_event.sh", "no bell");
}

std::string time_text(const timespec &time) {
    return std::to_string(time.tv_sec) + "." + std::to_string(time.tv_nsec / 1000);
}

// Periods and limits --------------------------------------------------------------------------------------------------

struct Periods : RunTest {
    static std::vector<std::uint32_t> all() {
        return {supervision_period(), punch_period(), main_loop_sleep(),
                scheduling_limit(),   start_limit(),  progressing_limit()};
    }
};

TEST_F(Periods, AreInMicrosecondsAndDividedAtEveryUseButNotBy0) {
    const std::pair<std::uint32_t, std::vector<std::uint32_t>> cases[] = {
        {1, {5'000'000, 10'000'000, 1'000'000, 3'000'000, 60'000'000, 180'000'000}},
        {10, {500'000, 1'000'000, 100'000, 300'000, 6'000'000, 18'000'000}},
        {7, {714'285, 1'428'571, 142'857, 428'571, 8'571'428, 25'714'285}},
        {0xffffffff, {0, 0, 0, 0, 0, 0}},
        {0, {5'000'000, 10'000'000, 1'000'000, 3'000'000, 60'000'000, 180'000'000}},
    };
    EXPECT_EQ(bootup_fpd_time_div, 1U);
    for (const auto &[divisor, periods] : cases) {
        bootup_fpd_time_div = divisor;
        EXPECT_EQ(all(), periods) << divisor;
    }
}

// Reports -------------------------------------------------------------------------------------------------------------

struct Reports : RunTest {
    Reports() : fpd(plan("IoFpga", 2)), worker(attach_worker(fpd, FpdState::worker_created)) {
        interpose::hold_clock(start_time);
        clear_log();
    }

    void receive_report(FpdState state, std::uint32_t progress = 0) {
        report(&worker, state, progress);
        drain_worker_messages(card);
    }

    Fpd &fpd;
    FpdWorkerCtx &worker;
};

TEST_F(Reports, MayBeNone) {
    drain_worker_messages(card);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(Reports, AreAllReceivedInOneGo) {
    report(&worker, FpdState::upgrade_started);
    report(&worker, FpdState::upgrade_progressing, 10);
    report(&worker, FpdState::upgrade_progressing, 20);
    drain_worker_messages(card);
    EXPECT_EQ(waiting_reports(), 0);
    EXPECT_EQ(fpd.progress, 20);
}

TEST_F(Reports, ThatCannotBeReceivedOrAreMalformedEndTheDrain) {
    const struct {
        std::string bytes;  // sent before a good report
        int error;          // of the reception, 0: none
        const char *tag;
        const char *text;
    } cases[] = {
        {std::string(23, 'x'), 0, "FpdUpgMsgRcvInvSize", "FPD Upgrade msgqueue received an invalid size 23(24) "},
        {"", 0, "FpdUpgMsgRcvInvSize", "FPD Upgrade msgqueue received an invalid size 0(24) "},
        {RawRecord(24).put(0, 0xA670F9D5U).put(8, &worker).put(20, 16U).bytes, 0, "FpdUpgMsgRcvInvMagic",
         "FPD Upgrade msgqueue received an Invalid magic 0xa670f9d5(0xa670f9d4)"},
        {"", EBADF, "FpdUpgMsgRcvErr", "FPD Upgrade msgqueue received error Bad file descriptor"},
    };
    for (const auto &[bytes, error, tag, text] : cases) {
        clear_log();
        transition(fpd, FpdState::worker_created);
        if (error == 0) send_bytes(bytes);
        report(&worker, FpdState::upgrade_started);
        if (error != 0) interpose::fail(Call::mq_receive, error);
        drain_worker_messages(card);
        expect_error(tag, text);
        EXPECT_EQ(fpd.state, FpdState::worker_created);
        EXPECT_EQ(waiting_reports(), 1);
        drain_worker_messages(card);
        EXPECT_EQ(fpd.state, FpdState::upgrade_started);
    }
}

TEST_F(Reports, Of25BytesDoNotEnterTheQueue) {
    const mqd_t queue = mq_open(card.mq_name, O_WRONLY | O_NONBLOCK);
    EXPECT_EQ(mq_send(queue, std::string(25, 'x').data(), 25, 0), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    mq_close(queue);
    EXPECT_EQ(waiting_reports(), 0);
}

TEST_F(Reports, FromAQueueOfLongerOnesAreRefused) {
    ASSERT_EQ(delete_fpd_mq(card.mq_name, &card.mq, err_msg, sizeof err_msg), 0);
    mq_attr attributes{};
    attributes.mq_maxmsg = 8;
    attributes.mq_msgsize = 25;
    card.mq = mq_open(card.mq_name, O_RDONLY | O_CREAT | O_NONBLOCK, 0770, &attributes);
    ASSERT_GE(card.mq, 0);
    send_bytes(std::string(25, 'x'));
    drain_worker_messages(card);
    expect_error("FpdUpgMsgRcvErr", "FPD Upgrade msgqueue received error Message too long");
}

TEST_F(Reports, OfStrangersAreDroppedAndTheDrainGoesOn) {
    int nobody = 0;
    const auto *const stranger = reinterpret_cast<const FpdWorkerCtx *>(&nobody);
    report(stranger, FpdState::upgrade_done, 100);
    report(nullptr, FpdState::upgrade_failed);
    report(&worker, FpdState::upgrade_started);
    drain_worker_messages(card);
    EXPECT_THAT(log_lines("FpdUpgMsgRcvInvWorker"),
                ElementsAre(log_line(handler_module, "ERROR", "FpdUpgMsgRcvInvWorker",
                                     "FPD Upgrade msgqueue received an unknown worker " + address_text(stranger)),
                            log_line(handler_module, "ERROR", "FpdUpgMsgRcvInvWorker",
                                     "FPD Upgrade msgqueue received an unknown worker (nil)")));
    EXPECT_EQ(fpd.state, FpdState::upgrade_started);
    EXPECT_EQ(card.planned_count, 1U);
}

TEST_F(Reports, OfStartedResetTheProgressAndStampTheTime) {
    fpd.progress = 55;
    interpose::advance_clock(7'000'000);
    receive_report(FpdState::upgrade_started, 12);
    EXPECT_EQ(fpd.state, FpdState::upgrade_started);
    EXPECT_EQ(fpd.progress, 0);
    EXPECT_EQ(time_text(fpd.state_time), "1007.0");
    expect_log(handler_module, "DEBUG", "FpdUpgResponse",
               "FPD IoFpga received response state 'FPD Upgrade Started' progress 12");
    expect_log(handler_module, "INFO", "FpdUpgResponseStarted", "FPD IoFpga state 'FPD Upgrade Started' updated");
    EXPECT_THAT(event_log_texts(), ElementsAre("FPD 'IoFpga' Started to upgrade version 2.0.0"));
    EXPECT_THAT(events(), IsEmpty());
}

TEST_F(Reports, OfProgressAreKeptAndStampTheTimeEachTime) {
    receive_report(FpdState::upgrade_progressing, 41);
    interpose::advance_clock(3'500'000);
    receive_report(FpdState::upgrade_progressing, 42);
    EXPECT_EQ(fpd.state, FpdState::upgrade_progressing);
    EXPECT_EQ(fpd.progress, 42);
    EXPECT_EQ(time_text(fpd.state_time), "1003.500000");
    EXPECT_THAT(log_lines("FpdUpgResponseProgress"),
                ElementsAre(log_line(handler_module, "DEBUG", "FpdUpgResponseProgress",
                                     "FPD IoFpga state 'FPD Upgrade Progressing' updated upgrade progress 41"),
                            log_line(handler_module, "DEBUG", "FpdUpgResponseProgress",
                                     "FPD IoFpga state 'FPD Upgrade Progressing' updated upgrade progress 42")));
    EXPECT_THAT(event_log_texts(), IsEmpty());
}

TEST_F(Reports, OfMoreThan255PercentAreKeptInTheirLow8Bits) {
    receive_report(FpdState::upgrade_progressing, 300);
    EXPECT_EQ(fpd.progress, 44);
    expect_log(handler_module, "DEBUG", "FpdUpgResponse",
               "FPD IoFpga received response state 'FPD Upgrade Progressing' progress 300");
    expect_log(handler_module, "DEBUG", "FpdUpgResponseProgress",
               "FPD IoFpga state 'FPD Upgrade Progressing' updated upgrade progress 300");
    receive_report(FpdState::upgrade_failed, 513);
    EXPECT_EQ(fpd.progress, 1);
}

TEST_F(Reports, OfAFirstFailureQueueTheFpdAgain) {
    receive_report(FpdState::upgrade_failed, 30);
    EXPECT_EQ(fpd.progress, 30);
    EXPECT_EQ(fpd.retries, 1);
    EXPECT_EQ(fpd.state, FpdState::queued_for_upgrade);
    EXPECT_EQ(fpd.worker, nullptr);
    EXPECT_EQ(card.retired_workers, &worker);
    EXPECT_EQ(card.planned_count, 1U);
    EXPECT_THAT(names(card.queues.seq_queues[2]), ElementsAre("IoFpga"));
    EXPECT_THAT(events(), ElementsAre("error: Auto FPD Upgrade failed for 'IoFpga'"));
    EXPECT_THAT(event_log_texts(), ElementsAre("FPD 'IoFpga' Failed to upgrade version 2.0.0"));
    expect_log(handler_module, "INFO", "FpdUpgFailRespRetry", "FPD IoFpga would be queued to upgrade upg_retry 1");
    expect_no_log("FpdUpgResponseFailed");
}

TEST_F(Reports, OfASecondFailureAreFinal) {
    fpd.retries = 1;
    receive_report(FpdState::upgrade_failed);
    EXPECT_EQ(fpd.state, FpdState::upgrade_failed);
    EXPECT_EQ(fpd.retries, 1);
    EXPECT_EQ(card.planned_count, 0U);
    EXPECT_EQ(card.queues.seq_queues[2], nullptr);
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("IoFpga"));
    EXPECT_EQ(fpd.worker, nullptr);
    expect_log(handler_module, "INFO", "FpdUpgResponseFailed",
               "FPD IoFpga state 'FPD Upgrade Failed' updated in the sequence queue 2");
    expect_no_log("FpdUpgFailRespRetry");
    EXPECT_THAT(events(), SizeIs(1));
}

TEST_F(Reports, OfAFailureAndOfTheEndAreHandledWhenTheirEventCannotBeSent) {
    fake_platform().commands = {failing_events()};
    receive_report(FpdState::upgrade_failed);
    expect_error("FpdUpgSendFpdFailedEventFail", "Sending FPD event is failed, error no bell");
    EXPECT_EQ(fpd.state, FpdState::queued_for_upgrade);
    report(&attach_worker(fpd, FpdState::worker_created), FpdState::upgrade_done);
    drain_worker_messages(card);
    expect_error("FpdUpgSendFpdCompletedEventFail", "Sending FPD event is failed, error no bell");
    EXPECT_EQ(card.planned_count, 0U);
}

TEST_F(Reports, OfTheEndTakeTheFpdOutOfItsQueue) {
    discover("Cpu", FpdState::upgrade_not_needed);
    fake_platform().find_region("IoFpga")->info.programmed_major = 2;
    fake_platform().find_region("IoFpga")->info.running_minor = 9;
    receive_report(FpdState::upgrade_done, 3);
    EXPECT_EQ(fpd.state, FpdState::upgrade_done);
    EXPECT_EQ(fpd.progress, 100);
    EXPECT_EQ(card.queues.seq_queues[2], nullptr);
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("Cpu", "IoFpga"));
    EXPECT_EQ(fpd.worker, nullptr);
    EXPECT_EQ(card.retired_workers, &worker);
    EXPECT_EQ(card.planned_count, 0U);
    expect_log(handler_module, "INFO", "FpdUpgResponseDone",
               "FPD IoFpga state 'FPD Upgrade Done' updated in the sequence queue 2");
    EXPECT_THAT(events(), ElementsAre("warning: Auto FPD Upgrade completed for 'IoFpga'"));
    EXPECT_STREQ(fpd.programmed_text, "2.0.0");
    EXPECT_STREQ(fpd.running_text, "1.9.0");
    EXPECT_THAT(event_log_texts(), ElementsAre("FPD 'IoFpga' Upgraded to version 2.0.0"));
}

TEST_F(Reports, OfTheEndAreHandledWhenTheVersionsCannotBeRead) {
    fake_platform().brd_fpd_info_get = [](auto, auto, auto, BrdFpdInfo *info, char *text, std::size_t size) {
        std::memset(info, 0, sizeof *info);
        std::snprintf(text, size, "bus timeout");
        return 1;
    };
    receive_report(FpdState::upgrade_done);
    expect_error("FpdUpgDoneInfoGetFail", "FPD IoFpga Info get failed, error bus timeout");
    EXPECT_EQ(fpd.state, FpdState::upgrade_done);
    EXPECT_EQ(card.planned_count, 0U);
    EXPECT_THAT(event_log_texts(), ElementsAre("FPD 'IoFpga' Upgraded to version 1.0.0"));
}

TEST_F(Reports, OfTheEndAreHandledWhenThePlatformNowGivesAnothersName) {
    discover("Cpu", FpdState::upgrade_not_needed);
    std::strcpy(fake_platform().find_region("IoFpga")->info.name, "Cpu");
    receive_report(FpdState::upgrade_done);
    expect_error("FpdUpgDoneInfoGetFail", "FPD IoFpga Info get failed, error Duplicate FPD Cpu found");
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("Cpu", "IoFpga"));
}

/// Somebody who fills the queue again whenever a report is taken out of it.
struct Flood : Reports {
    Flood() {
        interpose::hold_clock(start_time);
        interpose::before_each(Call::mq_receive, [this] {
            if (!flooding) return;
            send_bytes(stranger);
            ++sent;
            interpose::advance_clock(microseconds_per_report);
        });
    }

    const std::string stranger = RawRecord(24).put(0, 0xA670F9D4U).bytes;
    bool flooding = true;
    unsigned sent = 0;
    std::int64_t microseconds_per_report = 1000;
};

TEST_F(Flood, KeepsTheDrainForOneSupervisionPeriodAtMostAndHidesNoReportThatWasSentBefore) {
    // A queue full, and one report of each worker that waits for room; then the reports of a period.
    const unsigned sent_before = 256U + card.planned_count;
    const struct {
        std::uint32_t divisor;
        std::int64_t microseconds_per_report;
        unsigned reports_of_a_period;
    } cases[] = {{1, 1000, 5000}, {10, 1000, 500}, {1, 6'000'000, 0}};
    for (const auto &[divisor, time, reports] : cases) {
        bootup_fpd_time_div = divisor;
        microseconds_per_report = time;
        sent = 0;
        drain_worker_messages(card);
        EXPECT_EQ(sent, sent_before + reports + 1);
    }
}

TEST_F(Flood, IsReceivedToItsEndWhenItHasOne) {
    for (int i = 0; i < 256; ++i) send_bytes(stranger);
    flooding = false;
    std::size_t received = 0;
    interpose::before_each(Call::mq_receive, [&] {
        if (++received <= 1000 && waiting_reports() < 256) send_bytes(stranger);
    });
    drain_worker_messages(card);
    EXPECT_EQ(waiting_reports(), 0);
    EXPECT_GT(received, 1000U);
}

TEST_F(Flood, OfWhichTheTimeIsNotKnownEndsWithWhatWasSentBefore) {
    interpose::fail(Call::clock_gettime, EINVAL, 1, interpose::for_ever);
    drain_worker_messages(card);
    EXPECT_EQ(sent, 256U + card.planned_count);
}

TEST_F(Reports, AreReceivedWhateverSignalsInterrupt) {
    interpose::fail(Call::mq_receive, EINTR, 1, 3);
    receive_report(FpdState::upgrade_done);
    EXPECT_EQ(card.planned_count, 0U);
    expect_no_log("FpdUpgMsgRcvErr");
}

TEST_F(Reports, OfAnyOtherStateChangeNothing) {
    for (const std::uint32_t state : {0U, 14U, 15U, 20U, 0xffffffffU}) {
        clear_log();
        receive_report(static_cast<FpdState>(state), 5);
        EXPECT_EQ(fpd.state, FpdState::worker_created);
        EXPECT_EQ(fpd.worker, &worker);
        EXPECT_EQ(fpd.progress, 0);
        expect_error("FpdUpgResponseDflt", std::string("FPD IoFpga response received an invalid state ") +
                                               state_name(static_cast<FpdState>(state)) + " in the sequence queue 2");
    }
}

TEST_F(Reports, AfterTheLastAreThoseOfAStranger) {
    receive_report(FpdState::upgrade_done);
    clear_log();
    receive_report(FpdState::upgrade_done);
    EXPECT_THAT(log_lines("FpdUpgMsgRcvInvWorker"), SizeIs(1));
    EXPECT_EQ(card.planned_count, 0U);
}

TEST_F(Reports, AreCreditedToTheirOwnFpd) {
    Fpd &other = plan("Cpu", 2);
    FpdWorkerCtx &other_worker = attach_worker(other, FpdState::worker_created);
    report(&other_worker, FpdState::upgrade_progressing, 5);
    receive_report(FpdState::upgrade_started);
    EXPECT_EQ(other.state, FpdState::upgrade_progressing);
    EXPECT_EQ(fpd.state, FpdState::upgrade_started);
}

// Supervision: one state against its limit ----------------------------------------------------------------------------

struct LimitCase {
    FpdState state;
    std::int64_t limit;
    const char *time_out_tag;
    const char *cancel_tag;
    const char *retry_tag;
    const char *event_tag;
    const char *event;
    const char *cancel_event;
    const char *clock_tag;
    const char *clock;
    const char *failure_tag;
    const char *failure;
};

void PrintTo(const LimitCase &one, std::ostream *out) {
    *out << state_name(one.state);
}

const LimitCase limit_cases[] = {
    {FpdState::worker_created, 3'000'000, "ChkFpdUpgScheduleMaxTransTimeOut",
     "ChkFpdUpgScheduleMaxTransCancelThreadFail", "ChkFpdUpgScheduleTransRetry", "FpdUpgSendFpdWorkerstuck",
     "error: Auto FPD Upgrade worker stuck forever and killing for 'IoFpga'",
     "FPD 'IoFpga' Canceling the upgrade to version 2.0.0 since worked not scheduled within stipulated time",
     "ChkFpdUpgScheduleClockGetFail", "Checking FPD IoFpga upgrade Scheduling Clock get failed, error Invalid argument",
     "FpdUpgProgressCheckScheduledFail", "Checking FPD IoFpga upgrade scheduling failed error "},
    {FpdState::upgrade_started, 60'000'000, "ChkFpdUpgStartedMaxTransTimeOut",
     "ChkFpdUpgStartedMaxTransCancelThreadFail", "ChkFpdUpgStartedTransRetry", "FpdUpgSendFpdWorkerStuckStarted",
     "error: Auto FPD Upgrade worker started stuck forever and killing for 'IoFpga'",
     "FPD 'IoFpga' Canceling the upgrade to version 2.0.0 since worked not started within stipulated time",
     "ChkFpdUpgStartedClockGetFail", "Checking FPD IoFpga upgrade started Clock get failed, error Invalid argument",
     "FpdUpgProgressCheckStartedFail", "Checking FPD IoFpga upgrade start failed error "},
    {FpdState::upgrade_progressing, 180'000'000, "ChkFpdUpgProgressingMaxTransTimeOut",
     "ChkFpdUpgProgressingMaxTransCancelThreadFail", "ChkFpdUpgProgressingTransRetry",
     "FpdUpgSendFpdWorkerStuckProgressing",
     "error: Auto FPD Upgrade worker stuck progressing 42 forever and killing for 'IoFpga'",
     "FPD 'IoFpga' Canceling the upgrade to version 2.0.0 since no progress made after 42% within stipulated time",
     "ChkFpdUpgProgressingClockGetFail",
     "Checking FPD IoFpga upgrade progressing Clock get failed, error Invalid argument",
     "FpdUpgProgressCheckProgressFail", "Checking FPD IoFpga upgrade progressing failed error "},
};

struct Limit : RunTest, testing::WithParamInterface<LimitCase> {
    Limit() : fpd(plan("IoFpga", 2)), worker(start()) { clear_log(); }

    FpdWorkerCtx &start() {
        interpose::hold_clock(start_time);
        fpd.progress = 42;
        return attach_worker(fpd, GetParam().state);
    }
    void supervise_after(std::int64_t microseconds) {
        interpose::advance_clock(microseconds);
        supervise_fpd_upgrades(card);
    }
    static std::string time_out_text(std::int64_t time, std::int64_t limit) {
        return std::string("FPD IoFpga Upgrade stuck in the state ") + state_name(GetParam().state) + " since " +
               std::to_string(time) + " time now vs. maximum " + std::to_string(limit) + " time";
    }

    Fpd &fpd;
    FpdWorkerCtx &worker;
};

TEST_P(Limit, IsNotReachedANanosecondBeforeIt) {
    interpose::hold_clock({1000 + GetParam().limit / 1'000'000 - 1, 999'999'999});
    supervise_fpd_upgrades(card);
    EXPECT_EQ(fpd.state, GetParam().state);
    EXPECT_EQ(fpd.worker, &worker);
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_EQ(interpose::calls(Call::pthread_cancel), 0U);
}

TEST_P(Limit, EndsTheWorkerAndQueuesTheFpdAgainWhenItIsReached) {
    const pthread_t thread = fpd.worker_thread;
    EXPECT_NE(thread, pthread_t{});
    supervise_after(GetParam().limit);
    EXPECT_EQ(fpd.state, FpdState::queued_for_upgrade);
    EXPECT_EQ(fpd.retries, 1);
    EXPECT_EQ(fpd.worker, nullptr);
    EXPECT_EQ(fpd.worker_thread, pthread_t{});
    EXPECT_EQ(card.retired_workers, &worker);
    EXPECT_FALSE(worker.reported_end);
    EXPECT_EQ(interpose::calls(Call::pthread_cancel), 1U);
    EXPECT_EQ(card.planned_count, 1U);
    EXPECT_THAT(names(card.queues.seq_queues[2]), ElementsAre("IoFpga"));
    expect_error(GetParam().time_out_tag, time_out_text(GetParam().limit, GetParam().limit));
    EXPECT_THAT(events(), ElementsAre(GetParam().event));
    EXPECT_THAT(event_log_texts(), ElementsAre(GetParam().cancel_event));
    expect_log(handler_module, "INFO", GetParam().retry_tag, "FPD IoFpga would be queued to upgrade upg_retry 1");
    expect_no_log(GetParam().failure_tag);
    expect_no_log(GetParam().cancel_tag);
}

TEST_P(Limit, GivesTheFpdUpWhenItsRetryIsSpent) {
    fpd.retries = 1;
    supervise_after(GetParam().limit + 5);
    EXPECT_EQ(fpd.state, FpdState::cant_be_upgraded);
    EXPECT_EQ(fpd.retries, 1);
    EXPECT_EQ(fpd.worker, nullptr);
    EXPECT_EQ(card.planned_count, 0U);
    EXPECT_EQ(card.queues.seq_queues[2], nullptr);
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("IoFpga"));
    const std::string text = time_out_text(GetParam().limit + 5, GetParam().limit);
    expect_error(GetParam().time_out_tag, text);
    expect_error(GetParam().failure_tag, GetParam().failure + text);
    expect_no_log(GetParam().retry_tag);
    EXPECT_THAT(events(), ElementsAre(GetParam().event));
    EXPECT_THAT(event_log_texts(), ElementsAre(GetParam().cancel_event));
}

TEST_P(Limit, IsDividedAsTheOtherTimes) {
    bootup_fpd_time_div = 100;
    supervise_after(GetParam().limit / 100 - 1);
    EXPECT_EQ(fpd.state, GetParam().state);
    supervise_after(1);
    EXPECT_EQ(fpd.state, FpdState::queued_for_upgrade);
    expect_error(GetParam().time_out_tag, time_out_text(GetParam().limit / 100, GetParam().limit / 100));
}

TEST_P(Limit, IsHeededWhenTheWorkerCannotBeCancelledAndTheEventCannotBeSent) {
    interpose::fail(Call::pthread_cancel, ESRCH);
    fake_platform().commands = {failing_events()};
    supervise_after(GetParam().limit);
    expect_error(GetParam().cancel_tag, "FPD IoFpga cancelling worker thread failed Error No such process");
    expect_error(GetParam().event_tag, "Sending FPD event is failed, error no bell");
    EXPECT_EQ(fpd.worker, nullptr);
    EXPECT_EQ(fpd.worker_thread, pthread_t{});
    EXPECT_EQ(card.retired_workers, &worker);
    EXPECT_EQ(fpd.state, FpdState::queued_for_upgrade);
}

TEST_P(Limit, IsNotCheckedWithoutAClock) {
    interpose::fail(Call::clock_gettime, EINVAL);
    supervise_after(GetParam().limit);
    expect_log(handler_module, "DEBUG", GetParam().clock_tag, GetParam().clock);
    expect_error(GetParam().failure_tag, std::string(GetParam().failure) + GetParam().clock);
    EXPECT_EQ(fpd.state, GetParam().state);
    EXPECT_EQ(fpd.worker, &worker);
}

TEST_P(Limit, IsNotOverWhenTheWorkerReportedMeanwhile) {
    interpose::advance_clock(GetParam().limit);
    // While the pass waited for a script of another FPD, after the drain of the main loop.
    report(&worker, FpdState::upgrade_progressing, 50);
    supervise_fpd_upgrades(card);
    EXPECT_EQ(interpose::calls(Call::pthread_cancel), 0U);
    EXPECT_EQ(fpd.state, FpdState::upgrade_progressing);
    EXPECT_EQ(fpd.progress, 50);
    EXPECT_EQ(fpd.retries, 0);
    expect_no_log(GetParam().failure_tag);
    report(&worker, FpdState::upgrade_done);
    supervise_after(180'000'000);
    EXPECT_EQ(fpd.state, FpdState::upgrade_done);
    EXPECT_EQ(interpose::calls(Call::pthread_cancel), 0U);
}

TEST_P(Limit, IsNotReachedSoonerByManyChecks) {
    constexpr int checks = 20;
    const std::int64_t step = (GetParam().limit - 1) / checks;
    for (int i = 0; i < checks; ++i) supervise_after(step);
    supervise_after(GetParam().limit - 1 - checks * step);
    EXPECT_EQ(fpd.worker, &worker);
    EXPECT_EQ(interpose::calls(Call::pthread_cancel), 0U);
    supervise_after(1);
    EXPECT_EQ(fpd.worker, nullptr);
    EXPECT_EQ(interpose::calls(Call::pthread_cancel), 1U);
}

INSTANTIATE_TEST_SUITE_P(OfEveryState, Limit, testing::ValuesIn(limit_cases));

/// The states that a report of the same state stamps anew.
struct LimitOfReports : Limit {};

TEST_P(LimitOfReports, IsNeverReachedWhenEachComesAMicrosecondBeforeIt) {
    for (std::uint32_t percent = 1; percent <= 20; ++percent) {
        supervise_after(GetParam().limit - 1);
        ASSERT_EQ(fpd.worker, &worker);
        report(&worker, GetParam().state, percent);
        drain_worker_messages(card);
    }
    EXPECT_EQ(fpd.retries, 0);
    EXPECT_EQ(interpose::calls(Call::pthread_cancel), 0U);
    supervise_after(GetParam().limit);
    EXPECT_EQ(fpd.worker, nullptr);
    EXPECT_EQ(fpd.retries, 1);
}

INSTANTIATE_TEST_SUITE_P(OfTwoStates, LimitOfReports, testing::Values(limit_cases[1], limit_cases[2]));

// Supervision: the pass -----------------------------------------------------------------------------------------------

struct Supervision : RunTest {
    Supervision() { interpose::hold_clock(start_time); }

    void supervise() { supervise_fpd_upgrades(card); }
};

TEST_F(Supervision, HasNothingToDoWithoutAPlan) {
    discover("Cpu", FpdState::queued_for_upgrade);
    clear_log();
    supervise();
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(Supervision, StartsEveryFpdOfTheLowestQueueAtOnce) {
    const Fpd *const first[] = {&plan("A", 3), &plan("B", 3)};
    const Fpd &later = plan("C", 4);
    supervise();
    for (const Fpd *fpd : first) EXPECT_EQ(fpd->state, FpdState::worker_created);
    EXPECT_EQ(later.state, FpdState::queued_for_upgrade);
    EXPECT_EQ(later.worker, nullptr);
    for (const Fpd *fpd : first) await_end(*fpd->worker);
}

TEST_F(Supervision, DoesNotTouchALaterQueueBeforeTheFirstIsEmpty) {
    Fpd &first = plan("IoFpga", 0);
    Fpd &later = plan("Cpu", 2);
    supervise();
    await_end(*first.worker);
    for (int i = 0; i < 3; ++i) {
        supervise();
        EXPECT_EQ(later.state, FpdState::queued_for_upgrade);
    }
    drain_worker_messages(card);
    ASSERT_EQ(first.state, FpdState::upgrade_done);
    supervise();
    EXPECT_EQ(later.state, FpdState::worker_created);
    await_end(*later.worker);
}

TEST_F(Supervision, TellsWhenAWorkerCannotBeStarted) {
    Fpd &fpd = plan("IoFpga");
    interpose::fail(Call::pthread_create, EAGAIN);
    supervise();
    expect_error("FpdUpgProgressCheckStartUpgFail",
                 "Starting FPD IoFpga upgrade failed error Creating worker thread to upgrade FPD IoFpga is failed "
                 "err_msg Resource temporarily unavailable");
    EXPECT_EQ(fpd.state, FpdState::queued_for_upgrade);
    supervise();
    EXPECT_EQ(fpd.state, FpdState::worker_created);
    await_end(*fpd.worker);
}

TEST_F(Supervision, TellsOfAnFpdInAStateThatItCannotBeIn) {
    for (const FpdState state : {FpdState::upgrade_failed, FpdState::upgrade_done, FpdState::description_received}) {
        Fpd &fpd = plan("IoFpga");
        transition(fpd, state);
        for (int pass = 0; pass < 2; ++pass) {
            clear_log();
            supervise();
            expect_error("FpdUpgProgressCheckInvState", std::string("FPD IoFpga is stuck in an invalid state ") +
                                                            state_name(state) + " while checking Upgrade progressing");
            EXPECT_EQ(fpd.state, state);
        }
        free_queues(card);
    }
}

TEST_F(Supervision, EndsItsWalkBehindAnFpdThatLeft) {
    Fpd &gone = plan("Gone");
    Fpd &next = plan("Next");
    discover("Known", FpdState::upgrade_not_needed);
    gone.retries = 1;
    attach_worker(gone, FpdState::upgrade_started);
    interpose::advance_clock(60'000'000);
    supervise();
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("Known", "Gone"));
    EXPECT_EQ(next.state, FpdState::queued_for_upgrade);
    supervise();
    EXPECT_EQ(next.state, FpdState::worker_created);
    await_end(*next.worker);
}

TEST_F(Supervision, EndsItsWalkWhereReportsThatWaitedTookSeveralOut) {
    std::vector<FpdWorkerCtx *> workers;
    for (const char *name : {"IoFpga", "Two", "Three"})
        workers.push_back(&attach_worker(plan(name), FpdState::upgrade_started));
    Fpd &last = plan("Four");
    interpose::advance_clock(60'000'000);
    for (const FpdWorkerCtx *worker : workers) report(worker, FpdState::upgrade_done);
    supervise();
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("IoFpga", "Two", "Three"));
    EXPECT_EQ(card.planned_count, 1U);
    expect_no_log("FpdUpgProgressCheckInvState");
    EXPECT_EQ(last.state, FpdState::queued_for_upgrade) << "its turn is in the next pass";
    supervise();
    EXPECT_EQ(last.state, FpdState::worker_created);
}

TEST_F(Supervision, GivesUpADependentWhoseDependencyFailed) {
    Fpd &cpu = discover("Cpu", FpdState::upgrade_failed);
    Fpd &fpd = plan("IoFpga", 1);
    fpd.dependency = &cpu;
    supervise();
    EXPECT_EQ(fpd.state, FpdState::cant_be_upgraded);
    EXPECT_EQ(card.planned_count, 0U);
    expect_error("FpdUpgProgressCheckStartUpgFail",
                 "Starting FPD IoFpga upgrade failed error FPD IoFpga can't be upgraded without dependecny FPD Cpu "
                 "upgrade state 'FPD Upgrade Failed'");
}

TEST_F(Supervision, StartsTheRetryInTheNextPassAndGivesUpBehindIt) {
    Fpd &fpd = plan("IoFpga");
    const Gate gate;
    interpose::fail(Call::mq_send, EBADMSG, 1, interpose::for_ever);
    gate.hang_upgrades();
    for (unsigned attempt = 0; attempt < 2; ++attempt) {
        supervise();
        ASSERT_EQ(fpd.state, FpdState::worker_created);
        gate.await_arrival();
        interpose::advance_clock(3'000'000);
        supervise();
        EXPECT_EQ(card.planned_count, attempt == 0 ? 1U : 0U);
    }
    EXPECT_EQ(fpd.state, FpdState::cant_be_upgraded);
    EXPECT_THAT(events(), ElementsAre("warning: Auto FPD Upgrade started for 'IoFpga'",
                                      "error: Auto FPD Upgrade worker stuck forever and killing for 'IoFpga'",
                                      "warning: Auto FPD Upgrade retrying for 'IoFpga'",
                                      "error: Auto FPD Upgrade worker stuck forever and killing for 'IoFpga'"));
    expect_error(
        "FpdUpgProgressCheckScheduledFail",
        "Checking FPD IoFpga upgrade scheduling failed error FPD IoFpga Upgrade stuck in the state 'FPD worker "
        "created for Upgrade' since 3000000 time now vs. maximum 3000000 time");
}

TEST_F(Supervision, EndsAWorkerWithoutAQueueAndReleasesItOnce) {
    Fpd &fpd = plan("IoFpga");
    interpose::fail(Call::mq_open, EMFILE);
    supervise();
    FpdWorkerCtx *const first = fpd.worker;
    await_thread(*first);
    drain_worker_messages(card);
    interpose::advance_clock(3'000'000);
    supervise();
    EXPECT_EQ(fpd.state, FpdState::queued_for_upgrade);
    EXPECT_EQ(card.retired_workers, first);
    supervise();
    ASSERT_NE(fpd.worker, nullptr);
    EXPECT_NE(fpd.worker, first);
    await_thread(*fpd.worker);
    drain_worker_messages(card);
    EXPECT_EQ(fpd.state, FpdState::upgrade_done);
    const unsigned joins = interpose::calls(Call::pthread_tryjoin_np);
    EXPECT_EQ(interface_deinit(card, err_msg, sizeof err_msg), 0);
    release_retired_workers(card);
    EXPECT_EQ(interpose::calls(Call::pthread_tryjoin_np), joins + 2);
}

// A worker that was given up on wakes up ------------------------------------------------------------------------------

/// The first attempt hangs in the platform library, deaf to its cancellation, and goes on when its gate opens; the
/// second one does its work when its own does.
struct LateWorker : Supervision {
    LateWorker() {
        auto attempts = std::make_shared<std::atomic<int>>(0);
        fake_platform().brd_fpd_upgrade = [attempts, first = first, second = second](
                                              auto, auto, BrdFpdUpgradeRequest *request, auto...) {
            const bool is_first = (*attempts)++ == 0;
            if (is_first) pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
            (is_first ? first : second).pass();
            request->progress(request->context, is_first ? 77 : 33);
            return 0;
        };
    }

    /// Starts the first attempt and gives up on it.
    FpdWorkerCtx &give_up_on_first(Fpd &fpd) {
        supervise();
        FpdWorkerCtx &worker = *fpd.worker;
        first.await_arrival();
        drain_worker_messages(card);
        EXPECT_EQ(fpd.state, FpdState::upgrade_started);
        interpose::advance_clock(60'000'000);
        supervise();
        EXPECT_EQ(fpd.state, FpdState::queued_for_upgrade);
        return worker;
    }

    /// Lets the first attempt go on, to its end.
    void wake(FpdWorkerCtx &worker) {
        first.open();
        await_end(worker);
    }

    /// Expects so many dropped reports of the worker, and forgets them.
    void expect_dropped(const FpdWorkerCtx &worker, std::size_t count) {
        const auto dropped = log_lines("FpdUpgMsgRcvInvWorker");
        EXPECT_THAT(dropped, SizeIs(count));
        EXPECT_THAT(dropped,
                    Each(log_line(handler_module, "ERROR", "FpdUpgMsgRcvInvWorker",
                                  "FPD Upgrade msgqueue received an unknown worker " + address_text(&worker))));
        clear_log();
    }

    const Gate first;
    const Gate second;
};

TEST_F(LateWorker, IsNotCreditedWhileTheFpdWaitsForItsRetry) {
    Fpd &fpd = plan("IoFpga");
    FpdWorkerCtx &worker = give_up_on_first(fpd);
    wake(worker);
    EXPECT_EQ(waiting_reports(), 2);
    drain_worker_messages(card);
    expect_dropped(worker, 2);
    EXPECT_EQ(fpd.state, FpdState::queued_for_upgrade);
    EXPECT_EQ(card.planned_count, 1U);
}

TEST_F(LateWorker, IsNotCreditedToItsSuccessor) {
    Fpd &fpd = plan("IoFpga");
    FpdWorkerCtx &worker = give_up_on_first(fpd);
    supervise();
    FpdWorkerCtx &successor = *fpd.worker;
    EXPECT_NE(&successor, &worker);
    second.await_arrival();
    drain_worker_messages(card);
    ASSERT_EQ(fpd.state, FpdState::upgrade_started);
    clear_log();

    wake(worker);
    drain_worker_messages(card);
    expect_dropped(worker, 2);
    EXPECT_EQ(fpd.state, FpdState::upgrade_started);
    EXPECT_EQ(fpd.progress, 0);
    EXPECT_EQ(fpd.worker, &successor);
    EXPECT_EQ(card.planned_count, 1U);

    second.open();
    for (const FpdWorkerCtx *const each : {&worker, &successor}) await_thread(*each);
    drain_worker_messages(card);
    EXPECT_EQ(fpd.state, FpdState::upgrade_done);
    EXPECT_EQ(card.planned_count, 0U);
    expect_dropped(worker, 0);
    const unsigned joins = interpose::calls(Call::pthread_tryjoin_np);
    release_retired_workers(card);
    EXPECT_EQ(interpose::calls(Call::pthread_tryjoin_np), joins + 2);
}

TEST_F(LateWorker, IsNotCreditedToAnFpdThatIsDone) {
    Fpd &fpd = plan("IoFpga");
    FpdWorkerCtx &worker = give_up_on_first(fpd);
    second.open();
    supervise();
    await_end(*fpd.worker);
    drain_worker_messages(card);
    ASSERT_EQ(fpd.state, FpdState::upgrade_done);
    clear_log();
    wake(worker);
    drain_worker_messages(card);
    expect_dropped(worker, 2);
    EXPECT_EQ(fpd.state, FpdState::upgrade_done);
    EXPECT_EQ(card.planned_count, 0U);
}

TEST_F(LateWorker, DiesAtItsCallbackWhenTheLibraryAllowsItAgain) {
    Fpd &fpd = plan("IoFpga");
    fake_platform().brd_fpd_upgrade = [gate = first](auto, auto, BrdFpdUpgradeRequest *request, auto...) {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        gate.pass();
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
        request->progress(request->context, 77);
        ADD_FAILURE() << "the worker went on";
        return 0;
    };
    FpdWorkerCtx &worker = give_up_on_first(fpd);
    wake(worker);
    EXPECT_EQ(waiting_reports(), 0);
}

TEST_F(LateWorker, TouchesNothingOfARunThatIsOver) {
    LocalCard *run_card = nullptr;
    ASSERT_EQ(delete_fpd_mq(card.mq_name, &card.mq, err_msg, sizeof err_msg), 0);
    ASSERT_EQ(context_init(&run_card, err_msg, sizeof err_msg), 0);
    ASSERT_EQ(interface_init(RunLevel::boot, *run_card, err_msg, sizeof err_msg), 0);
    Fpd &fpd = *run_card->queues.seq_queues[0];
    supervise_fpd_upgrades(*run_card);
    FpdWorkerCtx *const worker = fpd.worker;
    first.await_arrival();
    fpd.retries = 1;
    drain_worker_messages(*run_card);
    interpose::advance_clock(60'000'000);
    supervise_fpd_upgrades(*run_card);
    ASSERT_EQ(run_card->planned_count, 0U);
    ASSERT_EQ(interface_deinit(*run_card, err_msg, sizeof err_msg), 0);
    release_retired_workers(*run_card);
    EXPECT_EQ(run_card->hanging_threads, 1U);
    ASSERT_EQ(context_deinit(&run_card, err_msg, sizeof err_msg), 0);
    EXPECT_FALSE(has_ended(*worker));

    wake(*worker);
    expect_log(worker_module, "INFO", "FpdUpgHdlUpgradeSuccess", "FPD IoFpga Upgrade state 'FPD Upgrade Done'");
    std::free(worker);  // kept for the thread that hung; nobody else has it
}

// The run -------------------------------------------------------------------------------------------------------------

struct UpgradeRun : RunTest {
    UpgradeRun() {
        interpose::hold_clock(start_time);
        interpose::on_sleep([this](std::uint64_t microseconds) {
            sleeps.push_back(microseconds);
            on_tick();
            interpose::advance_clock(static_cast<std::int64_t>(microseconds));
        });
    }

    Fpd &plan_marked(const std::string &name, unsigned seq = 0) {
        Fpd &fpd = plan(name, seq);
        EXPECT_EQ(upg_marker_add_fpd(fpd, err_msg, sizeof err_msg), 0);
        return fpd;
    }
    int run(RunLevel run_level = RunLevel::boot) {
        clear_log();
        fake_platform().forget_calls();
        return run_fpd_upgrade(card, run_level);
    }

    void await_workers() {
        for (Fpd *const queue : card.queues.seq_queues)
            for (const Fpd *fpd = queue; fpd; fpd = fpd->next)
                EXPECT_TRUE(!fpd->worker || eventually([fpd] { return has_ended(*fpd->worker); }));
    }
    static std::size_t punches() {
        std::size_t count = 0;
        for (const std::string &line : fake_platform().command_lines())
            count += line == "/usr/local/etc/punch-watchdog-once.sh";
        return count;
    }
    static bool ran(std::string_view prefix) {
        for (const std::string &line : fake_platform().command_lines())
            if (line.starts_with(prefix)) return true;
        return false;
    }
    static bool asked_for_activation() { return ran("grub-reboot") || ran("/usr/local/etc/reset_board.sh"); }

    std::vector<std::uint64_t> sleeps;
    std::function<void()> on_tick = [this] {
        await_workers();
        EXPECT_TRUE(card.planned_count != 0 || eventually([] { return obfl_mount_is_over(); }));
    };
};

TEST_F(UpgradeRun, WithoutAPlanOnlyRemovesTheMarker) {
    write_file(marker_path, "old");
    EXPECT_EQ(run(), 0);
    EXPECT_FALSE(std::filesystem::exists(marker_path));
    EXPECT_THAT(fake_platform().calls(), IsEmpty());
    EXPECT_THAT(fake_platform().command_lines(), IsEmpty());
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_THAT(sleeps, IsEmpty());
}

TEST_F(UpgradeRun, IsNotBegunWhenTheMarkerCannotBeCheckedOrStays) {
    const struct {
        bool planned;
        Call call;
        int error;
        const char *tag;
        const char *text;
    } cases[] = {
        {false, Call::unlink, EROFS, "DeletePreUpgMarkerFail",
         "Failed to remove previously cached Upgrade Marker file, error Unable to remove Upgrade Marker file "
         "/misc/scratch/bootup_fpd_marker.txt, error Read-only file system"},
        {true, Call::access, EACCES, "UpgMarkerCheckFail",
         "Failed to check upgrade marker, error Upgrade marker file /misc/scratch/bootup_fpd_marker.txt doesn't exist, "
         "error Permission denied"},
        {true, Call::unlink, EACCES, "DeletePreUpgMarkerFail",
         "Failed to remove previously cached Upgrade Marker file, error Unable to remove Upgrade Marker file "
         "/misc/scratch/bootup_fpd_marker.txt, error Permission denied"},
    };
    write_file(marker_path, "another");
    for (const auto &[planned, call, error, tag, text] : cases) {
        if (planned && card.planned_count == 0) plan_marked("IoFpga");
        interpose::fail(call, error);
        EXPECT_EQ(run(), -error);
        expect_error(tag, text);
        EXPECT_THAT(fake_platform().command_lines(), IsEmpty());
        EXPECT_EQ(card.planned_count, planned ? 1U : 0U);
    }
}

TEST_F(UpgradeRun, IsNotRepeatedForTheSameFpdsAndVersions) {
    const Fpd &fpd = plan_marked("IoFpga");
    const std::string text = upg_marker().text;
    write_file(marker_path, text);
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(log_lines("UpgMarkerCheck"),
                Contains(log_line(handler_module, "INFO", "UpgMarkerCheck",
                                  "Skipping Upgrade since trying to upgrade same FPDs and Versions")));
    EXPECT_EQ(read_file(marker_path), text);
    EXPECT_EQ(fpd.state, FpdState::queued_for_upgrade);
    EXPECT_THAT(fake_platform().calls(), IsEmpty());
    EXPECT_THAT(fake_platform().command_lines(), IsEmpty());
}

TEST_F(UpgradeRun, UpgradesWhatIsPlannedAndTellsOfIt) {
    const Fpd &fpd = plan_marked("IoFpga");
    write_file(marker_path, "another");
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(fpd.state, FpdState::upgrade_done);
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("IoFpga"));
    EXPECT_THAT(
        events(),
        ElementsAre("started: Auto FPD Upgrade Operation Started", "warning: Auto FPD Upgrade started for 'IoFpga'",
                    "progress: Auto FPD Upgrade Progressing", "warning: Auto FPD Upgrade completed for 'IoFpga'",
                    "ended: Auto FPD Upgrade Operation Ended"));
    EXPECT_THAT(event_log_texts(),
                ElementsAre("FPD 'IoFpga' Start upgrading to version 2.0.0 Run version 1.0.0 Programmed version 1.0.0",
                            "FPD 'IoFpga' Started to upgrade version 2.0.0", "FPD 'IoFpga' Upgraded to version 2.0.0"));
    expect_log(handler_module, "INFO", "AutoFpdUpgMainLoopDone", "No more FPD available in the sequence queue");
    expect_no_log("FpdUpgDoneInfoGetFail");
    EXPECT_FALSE(std::filesystem::exists(marker_path));
    EXPECT_THAT(sleeps, ElementsAre(1'000'000, 1'000'000));
    EXPECT_THAT(fake_platform().calls_of("brd_led_state_and_color_set"),
                ElementsAre(Field(&FakeCall::arguments, "3, 1, 3, 2"), Field(&FakeCall::arguments, "3, 1, 2, 2")));
}

TEST_F(UpgradeRun, SupervisesAndPunchesAtOnceWithRoomFor256BytesOfWhatThePunchPrintsAndOfItsError) {
    plan_marked("IoFpga");
    fake_platform().commands = {{.prefix = "/usr/local/etc/punch", .output = "punched"}};
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(punches(), 1U);
    expect_log(handler_module, "DEBUG", "AutoFpdUpgradeProgressWDPunch", "Punching PD watchdog: punched");
    const std::vector<std::string> lines = fake_platform().command_lines();
    const auto punch = std::find(lines.begin(), lines.end(), "/usr/local/etc/punch-watchdog-once.sh");
    EXPECT_EQ(fake_platform().command_buffers()[static_cast<std::size_t>(punch - lines.begin())],
              (FakeCommandBuffers{256, 256, true}));
}

TEST_F(UpgradeRun, UpgradesQueueAfterQueue) {
    fake_platform().fpds = {make_fpd(1, {"A", "B", "C"})};
    plan_marked("C", 7).region = 2;
    plan_marked("A", 0);
    plan_marked("B", 0).region = 1;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(card.planned_count, 0U);
    std::vector<int> regions;
    for (const BrdFpdUpgradeRequest &request : fake_platform().upgrade_requests()) regions.push_back(request.region);
    EXPECT_THAT(regions, testing::UnorderedElementsAre(0, 1, 2));
    EXPECT_EQ(regions.back(), 2);
}

TEST_F(UpgradeRun, RetriesAFailedUpgradeOnce) {
    const Fpd &fpd = plan_marked("IoFpga");
    fake_platform().brd_fpd_upgrade = [](auto...) { return 1; };
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(fpd.state, FpdState::upgrade_failed);
    EXPECT_THAT(fake_platform().upgrade_requests(), SizeIs(2));
    EXPECT_THAT(
        event_log_texts(),
        ElementsAre("FPD 'IoFpga' Start upgrading to version 2.0.0 Run version 1.0.0 Programmed version 1.0.0",
                    "FPD 'IoFpga' Started to upgrade version 2.0.0", "FPD 'IoFpga' Failed to upgrade version 2.0.0",
                    "FPD 'IoFpga' Retry upgrading to version 2.0.0 Run version 1.0.0 Programmed version 1.0.0",
                    "FPD 'IoFpga' Started to upgrade version 2.0.0", "FPD 'IoFpga' Failed to upgrade version 2.0.0"));
}

TEST_F(UpgradeRun, AsksForActivationAtItsEnd) {
    fake_platform().find_region("IoFpga")->info.activation_kind = 1;
    plan_marked("IoFpga");
    EXPECT_EQ(run(RunLevel::boot), 0);
    EXPECT_THAT(fake_platform().command_lines(),
                testing::IsSupersetOf({"grub-reboot KALDOR-latest",
                                       "/usr/local/etc/reset_board.sh -a -r \"Auto FPD Upgrade activation\" -b 36"}));
    EXPECT_EQ(read_file(marker_path), "FPD: IoFpga           | Version: 2.0.0       \n");
}

TEST_F(UpgradeRun, ByHandAsksForNoActivation) {
    fake_platform().find_region("IoFpga")->info.activation_kind = 1;
    plan_marked("IoFpga");
    EXPECT_EQ(run(RunLevel::backend), 0);
    EXPECT_FALSE(asked_for_activation());
    EXPECT_THAT(fake_platform().calls_of("brd_sb_attribute_flag_set"), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(marker_path));
}

TEST_F(UpgradeRun, LeavesTheFlashBeforeItAsksForActivation) {
    fake_platform().find_region("IoFpga")->info.activation_kind = 1;
    plan_marked("IoFpga");
    fake_platform().commands = {failing_command("mountpoint", "not one"),
                                {.prefix = "timeout 5m", .effect = [] {
                                     const std::lock_guard guard(fake_platform().lock);
                                     fake_platform().commands[0].rc = 0;
                                 }}};
    EXPECT_EQ(run(), 0);
    const std::vector<std::string> lines = fake_platform().command_lines();
    const auto position = [&lines](const std::string &line) { return std::find(lines.begin(), lines.end(), line); };
    const auto unmount = position("timeout 30s /usr/sbin/check-flash stop obfl");
    ASSERT_NE(unmount, lines.end());
    EXPECT_LT(unmount, position("grub-reboot KALDOR-latest"));
    EXPECT_LT(position("/usr/local/etc/send_fpd_doorbell_event.sh  -e ended -m \"Auto FPD Upgrade Operation Ended\""),
              unmount);
    EXPECT_THAT(event_log_texts(), SizeIs(3));
    EXPECT_FALSE(std::filesystem::exists(event_log_path));
}

/// A run whose flash is still being mounted when all FPDs are upgraded.
struct SlowMount : UpgradeRun {
    SlowMount() {
        plan_marked("IoFpga");
        fake_platform().commands = {failing_command("mountpoint", "not one"),
                                    {.prefix = "timeout 5m", .effect = [this] {
                                         gate.pass();
                                         const std::lock_guard guard(fake_platform().lock);
                                         fake_platform().commands[0].rc = 0;
                                     }}};
        on_tick = [this] {
            await_workers();
            if (card.planned_count == 0 && ticks_after_upgrade++ == mount_ends_at) end_mount();
        };
    }
    void end_mount() const {
        gate.open();
        EXPECT_TRUE(eventually([] { return obfl_context().mounted_here.load(); }));
        EXPECT_TRUE(eventually(obfl_mount_is_over));
    }

    const Gate gate;
    /// Stops the clock once the upgrade is over.
    void lose_clock_after_upgrade() {
        on_tick = [this, before = on_tick] {
            before();
            if (ticks_after_upgrade == 1) interpose::fail(Call::clock_gettime, EINVAL, 1, interpose::for_ever);
        };
    }

    int ticks_after_upgrade = 0;
    int mount_ends_at = 100;
};

TEST_F(SlowMount, IsWaitedForWithTheWatchdogPunched) {
    EXPECT_EQ(run(), 0);
    EXPECT_GE(ticks_after_upgrade, 100);
    EXPECT_EQ(punches(), 10U) << "at once, and each 11 s";
    EXPECT_THAT(event_log_texts(), SizeIs(3));
    EXPECT_TRUE(ran("timeout 30s /usr/sbin/check-flash stop obfl"));
    EXPECT_EQ(card.hanging_threads, 0U);
    EXPECT_THAT(events(), Contains("progress: Auto FPD Upgrade Progressing").Times(1));
}

TEST_F(SlowMount, IsPunchedForAtTheDividedPeriod) {
    bootup_fpd_time_div = 10;
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(punches(), testing::AllOf(testing::Ge(9U), testing::Le(11U)));
}

TEST_F(SlowMount, IsPunchedForAllTheMoreWithoutAClock) {
    lose_clock_after_upgrade();
    EXPECT_EQ(run(), 0);
    EXPECT_GE(punches(), 99U);
}

TEST_F(SlowMount, IsGivenUpWithoutAClockToo) {
    mount_ends_at = -1;
    lose_clock_after_upgrade();
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(card.hanging_threads, 1U);
    end_mount();
}

TEST_F(SlowMount, IsGivenUpWhenItNeverEnds) {
    mount_ends_at = -1;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(ticks_after_upgrade, 362) << "the last second of the upgrade, and six minutes";
    EXPECT_EQ(card.hanging_threads, 1U) << "the process must not end around it";
    expect_log(obfl_module, "ERROR", "ObflMountThreadHdlrFlashOperFail",
               "Failed to mount OBFL Flash, error 'Connection timed out'");
    EXPECT_THAT(event_log_texts(event_log_path), SizeIs(3));
    EXPECT_FALSE(ran("timeout 30s /usr/sbin/check-flash stop obfl"));
    end_mount();
}

TEST_F(UpgradeRun, IsNotEndedBySignals) {
    plan_marked("IoFpga");
    unsigned ticks = 0;
    on_tick = [&] {
        if (ticks++ == 0)
            for (const int number : unwanted_signals) raise(number);
        await_workers();
    };
    fake_platform().brd_led_state_and_color_set = [](auto...) {
        raise(SIGTERM);  // the look has to be restored
        return 0;
    };
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(card.planned_count, 0U);
    struct sigaction now {};
    sigaction(SIGTERM, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
}

TEST_F(UpgradeRun, SucceedsWhateverItCannotTell) {
    fake_platform().find_region("IoFpga")->info.activation_kind = 1;
    plan_marked("IoFpga");
    fake_platform().commands = {failing_events(), failing_command("/usr/local/etc/punch", "no dog"),
                                failing_command("grub-reboot", "no loader")};
    fake_platform().brd_led_state_and_color_set = [](auto...) { return 1; };
    EXPECT_EQ(run(), 0);
    const std::string no_event = "Sending FPD event is failed, error no bell";
    expect_error("FpdUpgSendFpdStartedEventFail", no_event);
    expect_error("AutoFpdUpgMainLoopSendFpdEventFail", no_event);
    expect_error("FpdUpgEndedSendFpdEventFail", no_event);
    expect_error("AutoFpdUpgStartLedOnFail",
                 "Auto FPD Upgrade Started LED notification failed Setting LED state and color failed rc:1");
    expect_error("AutoFpdUpgradeProgressWDPunchFail", "Punching PD watchdog failed error no dog");
    expect_error("FpdUpgActivationRequestFailed", "Auto FPD Upgrade Activation request failed no loader");
    EXPECT_EQ(card.queues.fpd_queue->state, FpdState::upgrade_done);
}

TEST_F(UpgradeRun, SucceedsWhenTheLedCannotBeRestored) {
    plan_marked("IoFpga");
    fake_platform().brd_led_state_and_color_set = [](auto, auto, std::uint32_t state, auto) {
        return state == 3 ? 0 : 1;
    };
    EXPECT_EQ(run(), 0);
    expect_error("FpdUpgEndedLedOffFail",
                 "Auto FPD Upgrade Ended LED notification failed Setting LED state and color failed rc:1");
}

TEST_F(UpgradeRun, SupervisesWithoutAClock) {
    const Fpd &fpd = plan_marked("IoFpga");
    interpose::fail(Call::clock_gettime, EINVAL);  // the loop's first reading
    EXPECT_EQ(run(), 0);
    expect_log(handler_module, "DEBUG", "AutoFpdUpgMailLoopClockFail",
               "Auto FPD Upgrade mainloop Clock get failed, error Invalid argument");
    EXPECT_EQ(fpd.state, FpdState::upgrade_done);
    EXPECT_THAT(sleeps, SizeIs(2));  // it was supervised in the iteration without a clock
    EXPECT_EQ(punches(), 1U);        // and only punched in the next
}

TEST_F(UpgradeRun, SupervisesAgainWhenItDoesNotKnowWhenItDid) {
    plan_marked("IoFpga");
    interpose::fail(Call::clock_gettime, EINVAL, 3);  // after the loop's reading and the worker's state
    on_tick = [this] {
        if (sleeps.size() == 1) {
            EXPECT_EQ(time_text(card.last_check_time), "0.0");
        }
        await_workers();
    };
    EXPECT_EQ(run(), 0);
    expect_log(handler_module, "DEBUG", "AutoFpdUpgMailLoopClockFail1",
               "Auto FPD Upgrade mainloop Clock get failed, error Invalid argument");
    EXPECT_EQ(time_text(card.last_check_time), "1001.0");
}

TEST_F(UpgradeRun, SupervisesAtOnceBehindAPassOfWhichItKnowsNoTime) {
    transition(plan_marked("IoFpga"), FpdState::upgrade_done);  // every pass complains of it
    std::size_t passes = 0;
    on_tick = [&] {
        passes += log_lines("FpdUpgProgressCheckInvState").size();
        clear_log();
        if (sleeps.size() == 1) interpose::fail(Call::clock_gettime, EINVAL, 1, 2);
        if (sleeps.size() == 3) card.planned_count = 0;
    };
    EXPECT_EQ(run(RunLevel::backend), 0);
    EXPECT_EQ(passes, 3U);
}

/// The loop's times: an FPD that every supervision pass complains of stays planned for so many iterations.
struct LoopTimes : UpgradeRun {
    /// Runs so many iterations from a clock on; the clock at each pass and each punch, in milliseconds.
    void run_iterations(std::int64_t from_ms, unsigned count) {
        transition(plan_marked("IoFpga"), FpdState::upgrade_done);
        interpose::hold_clock({from_ms / 1000, from_ms % 1000 * 1'000'000});
        on_tick = [this, count] {
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC_RAW, &now);
            const std::int64_t now_ms = now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
            if (!log_lines("FpdUpgProgressCheckInvState").empty()) passes.push_back(now_ms);
            if (punches() > punches_seen) punched.push_back(now_ms);
            punches_seen = punches();
            clear_log();
            if (sleeps.size() == count) card.planned_count = 0;
        };
        EXPECT_EQ(run(RunLevel::backend), 0);
    }

    std::vector<std::int64_t> passes;
    std::vector<std::int64_t> punched;
    std::size_t punches_seen = 0;
};

TEST_F(LoopTimes, SuperviseAfterMoreThan5SecondsAndPunchAfterMoreThan10) {
    run_iterations(5000, 20);
    EXPECT_THAT(passes, ElementsAre(6000, 12000, 18000, 24000));
    EXPECT_THAT(punched, ElementsAre(11000, 22000));
    EXPECT_THAT(sleeps, Each(1'000'000U));
}

/// One iteration, so long after the last pass and the last punch.
struct PeriodCase {
    timespec since;
    std::size_t passes;
    std::size_t punches;
};

void PrintTo(const PeriodCase &one, std::ostream *out) {
    *out << one.since.tv_sec << " s, " << one.since.tv_nsec << " ns";
}

struct LoopPeriod : UpgradeRun, testing::WithParamInterface<PeriodCase> {};

TEST_P(LoopPeriod, IsOverByAMicrosecondMore) {
    const timespec since = GetParam().since;
    transition(plan_marked("IoFpga"), FpdState::upgrade_done);
    card.last_check_time = start_time;
    card.last_punch_time = start_time;
    interpose::hold_clock({start_time.tv_sec + since.tv_sec, since.tv_nsec});
    on_tick = [this] { card.planned_count = 0; };
    EXPECT_EQ(run(RunLevel::backend), 0);
    EXPECT_THAT(log_lines("FpdUpgProgressCheckInvState"), SizeIs(GetParam().passes));
    EXPECT_EQ(punches(), GetParam().punches);
}

INSTANTIATE_TEST_SUITE_P(Around, LoopPeriod,
                         testing::Values(PeriodCase{{4, 999'999'999}, 0, 0}, PeriodCase{{5, 0}, 0, 0},
                                         PeriodCase{{5, 999}, 0, 0}, PeriodCase{{5, 1000}, 1, 0},
                                         PeriodCase{{9, 999'999'999}, 1, 0}, PeriodCase{{10, 0}, 1, 0},
                                         PeriodCase{{10, 999}, 1, 0}, PeriodCase{{10, 1000}, 1, 1}));

TEST_F(LoopTimes, AreDivided) {
    bootup_fpd_time_div = 10;
    run_iterations(500, 20);
    EXPECT_THAT(passes, ElementsAre(600, 1200, 1800, 2400));
    EXPECT_THAT(punched, ElementsAre(1100, 2200));
    EXPECT_THAT(sleeps, Each(100'000U));
}

TEST_F(LoopTimes, TakeThePunchFromTheLoopsReadingAndTheCheckFromAFreshOne) {
    plan_marked("Cpu");
    // The event of the worker's start takes 2 s, and so does the punch.
    const auto take_time = [] { interpose::advance_clock(2'000'000); };
    fake_platform().commands = {
        {.prefix = "/usr/local/etc/send_fpd_doorbell_event.sh  -e warning", .effect = take_time},
        {.prefix = "/usr/local/etc/punch", .rc = 1, .effect = take_time}};
    on_tick = [this] {
        if (sleeps.size() == 1) {
            EXPECT_EQ(time_text(card.last_check_time), "1002.0");
            EXPECT_EQ(time_text(card.last_punch_time), "1000.0");
        }
        await_workers();
    };
    EXPECT_EQ(run(), 0);
}

TEST_F(LoopTimes, BeginAfresh) {
    card.last_check_time = start_time;
    card.last_punch_time = start_time;
    run_iterations(1'000'000, 4);
    EXPECT_THAT(passes, IsEmpty());
    EXPECT_THAT(punched, IsEmpty());
}

TEST_F(Reports, OfAnEndAreKnownOfTheRetiredWorker) {
    for (const FpdState state : {FpdState::upgrade_failed, FpdState::upgrade_done}) {
        FpdWorkerCtx &ending = fpd.worker ? *fpd.worker : attach_worker(fpd, FpdState::worker_created);
        report(&ending, state);
        drain_worker_messages(card);
        ASSERT_EQ(card.retired_workers, &ending);
        EXPECT_TRUE(ending.reported_end) << state_name(state);
    }
}

}  // namespace
