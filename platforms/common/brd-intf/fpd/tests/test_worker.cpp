#include <fcntl.h>
#include <mqueue.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>

#include "interpose.h"
#include "os_owner.h"
#include "os_thread.h"
#include "run_support.h"

namespace {

using interpose::Call;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

struct Worker : RunTest {
    int start(Fpd &of) { return start_fpd_upgrade_worker(card, of, err_msg, sizeof err_msg); }
    int start() { return start(fpd); }

    /// Makes a worker's context as a start makes it, without the thread.
    FpdWorkerCtx &context() {
        interpose::fail(Call::pthread_create, EAGAIN);
        EXPECT_EQ(start(), EAGAIN);
        interpose::reset();
        FpdWorkerCtx &worker = attach_worker(fpd, FpdState::worker_created);
        worker.group_id = card.group_id;
        worker.obj_id = fpd.obj_id;
        std::strcpy(worker.name, fpd.info.name);
        std::strcpy(worker.mq_name, card.mq_name);
        return worker;
    }

    /// The reports so far as pairs of state and progress; each is checked to come from the worker.
    std::vector<std::pair<FpdState, unsigned>> reports(const FpdWorkerCtx *worker) {
        std::vector<std::pair<FpdState, unsigned>> found;
        while (waiting_reports() > 0) {
            const WorkerMsg msg = receive();
            EXPECT_EQ(msg.magic, 0xA670F9D4U);
            EXPECT_EQ(msg.worker, worker);
            found.emplace_back(msg.state, msg.progress);
        }
        return found;
    }

    /// Starts the FPD's worker and waits for the end of its thread.
    FpdWorkerCtx &run_to_its_end() {
        EXPECT_EQ(start(), 0) << err_msg;
        FpdWorkerCtx &worker = *fpd.worker;
        await_thread(worker);
        return worker;
    }

    Fpd &fpd = plan("IoFpga");
};

constexpr std::pair started(FpdState::upgrade_started, 0U);
constexpr std::pair halfway(FpdState::upgrade_progressing, 50U);
constexpr std::pair done(FpdState::upgrade_done, 100U);

// Start ---------------------------------------------------------------------------------------------------------------

TEST_F(Worker, IsStartedForAQueuedFpd) {
    const Gate gate;
    gate.hold_upgrades();
    expect_result(start(), 0);
    ASSERT_NE(fpd.worker, nullptr);
    EXPECT_EQ(fpd.worker->fpd, &fpd);
    EXPECT_EQ(fpd.worker->card, &card);
    EXPECT_NE(fpd.worker_thread, pthread_t{});
    EXPECT_EQ(fpd.state, FpdState::worker_created);
    EXPECT_EQ(card.planned_count, 1U);
    gate.open();
}

TEST_F(Worker, IsToldOfAsStartedAndAsRetrying) {
    std::strcpy(fpd.running_text, "1.1.1");
    std::strcpy(fpd.programmed_text, "1.1.2");
    run_to_its_end();
    retire_worker(card, fpd, true);
    fpd.retries = 1;
    run_to_its_end();
    EXPECT_THAT(events(), ElementsAre("warning: Auto FPD Upgrade started for 'IoFpga'",
                                      "warning: Auto FPD Upgrade retrying for 'IoFpga'"));
    const std::string versions = " upgrading to version 2.0.0 Run version 1.1.1 Programmed version 1.1.2";
    EXPECT_THAT(event_log_texts(), ElementsAre("FPD 'IoFpga' Start" + versions, "FPD 'IoFpga' Retry" + versions));
}

TEST_F(Worker, RunsWhenItsEventCannotBeSent) {
    fake_platform().commands = {{.prefix = "/usr/local/etc/send_fpd", .rc = 1, .error = "no bell"}};
    run_to_its_end();
    expect_log(worker_module, "ERROR", "FpdUpgSendFpdStartedEventMsgFail",
               "Sending FPD event is failed, error no bell");
    EXPECT_EQ(fpd.state, FpdState::worker_created);
    EXPECT_THAT(event_log_texts(), SizeIs(1));
}

struct WorkerOfADependent : Worker, testing::WithParamInterface<int> {};

TEST_P(WorkerOfADependent, IsStartedOnlyBehindAGoodDependency) {
    const auto state = static_cast<FpdState>(GetParam());
    Fpd &dependency = discover("Cpu", state);
    fpd.dependency = &dependency;
    const int rc = start();
    if (state == FpdState::upgrade_not_needed || state == FpdState::upgrade_done) {
        EXPECT_EQ(rc, 0);
        EXPECT_NE(fpd.worker, nullptr);
        return;
    }
    const std::string text =
        std::string("FPD IoFpga can't be upgraded without dependecny FPD Cpu upgrade state ") + state_name(state);
    expect_result(rc, -53, text);
    expect_log(worker_module, "ERROR", "StartFpdUpgWorkerDepFpdFail", text);
    EXPECT_EQ(fpd.state, FpdState::cant_be_upgraded);
    EXPECT_EQ(card.queues.seq_queues[0], nullptr);
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("Cpu", "IoFpga"));
    EXPECT_EQ(card.planned_count, 0U);
    EXPECT_EQ(fpd.worker, nullptr);
    EXPECT_THAT(events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(InEveryState, WorkerOfADependent, testing::Range(1, 20));

TEST_F(Worker, IsNotStartedBesideAnother) {
    FpdWorkerCtx &other = attach_worker(fpd, FpdState::queued_for_upgrade);
    const std::string text = "A worker context already created for this FPD " + address_text(&other);
    expect_result(start(), -17, text);
    expect_log(worker_module, "ERROR", "StartFpdUpgWorkerAlreadyExist", text);
    EXPECT_EQ(fpd.worker, &other);
    EXPECT_EQ(fpd.state, FpdState::queued_for_upgrade);
}

TEST_F(Worker, IsNotStartedWithoutMemory) {
    interpose::fail(Call::calloc, ENOMEM);
    const std::string text = "No memory available to create worker context error Cannot allocate memory";
    expect_result(start(), -12, text);
    expect_log(worker_module, "ERROR", "WorkerCtxNoMem", text);
    expect_log(worker_module, "ERROR", "StartFpdUpgWorkerCreateCtxFail", "Creating Worker context failed " + text);
    EXPECT_EQ(fpd.worker, nullptr);
    EXPECT_EQ(fpd.state, FpdState::queued_for_upgrade);
}

TEST_F(Worker, StaysQueuedWithoutAThread) {
    interpose::fail(Call::pthread_create, EAGAIN);
    const std::string text =
        "Creating worker thread to upgrade FPD IoFpga is failed err_msg Resource temporarily unavailable";
    expect_result(start(), EAGAIN, text);
    expect_log(worker_module, "ERROR", "StartFpdUpgradeThreadCreateFail", text);
    EXPECT_EQ(fpd.worker, nullptr);
    EXPECT_EQ(fpd.state, FpdState::queued_for_upgrade);
    EXPECT_EQ(card.planned_count, 1U);
    EXPECT_THAT(names(card.queues.seq_queues[0]), ElementsAre("IoFpga"));
    EXPECT_THAT(events(), IsEmpty());
    run_to_its_end();
}

// The thread ----------------------------------------------------------------------------------------------------------

TEST_F(Worker, ReportsStartedProgressAndDone) {
    FpdWorkerCtx &worker = run_to_its_end();
    EXPECT_THAT(reports(&worker), ElementsAre(started, halfway, done));
    expect_log(worker_module, "INFO", "FpdUpgHdl", "Started Worker thread for FPD IoFpga");
    expect_log(worker_module, "DEBUG", "FpdUpgradeProgress", "FPD IoFpga upgrade progressing percent 50");
    expect_log(worker_module, "INFO", "FpdUpgHdlUpgradeSuccess", "FPD IoFpga Upgrade state 'FPD Upgrade Done'");
    EXPECT_THAT(log_lines("FpdUpgHdlrWorkerMq"),
                ElementsAre(Field(&LogLine::message, testing::MatchesRegex("Worker MQ id [0-9]+"))));
    EXPECT_NE(log_lines("FpdUpgHdl").front().tid, getpid());
}

TEST_F(Worker, ReportsAFailureWithoutProgress) {
    fake_platform().brd_fpd_upgrade = [](auto, auto, BrdFpdUpgradeRequest *request, char *text, std::size_t size) {
        request->progress(request->context, 70);
        std::snprintf(text, size, "verify failed at 0x1000");
        return 0x99;
    };
    FpdWorkerCtx &worker = run_to_its_end();
    EXPECT_THAT(reports(&worker),
                ElementsAre(started, Pair(FpdState::upgrade_progressing, 70U), Pair(FpdState::upgrade_failed, 0U)));
    expect_log(worker_module, "ERROR", "FpdUpgHdlUpgradeFail",
               "FPD IoFpga upgrade failed err_msg verify failed at 0x1000");
    expect_log(worker_module, "INFO", "FpdUpgHdlUpgradeSuccess", "FPD IoFpga Upgrade state 'FPD Upgrade Failed'");
}

TEST_F(Worker, ReportsRecordsOf24BytesWithZeroedPadding) {
    FpdWorkerCtx &worker = run_to_its_end();
    for (const auto &[state, progress] : {std::pair(16U, 0U), std::pair(17U, 50U), std::pair(19U, 100U)}) {
        const RawRecord expected =
            RawRecord(24).put(0, std::uint32_t{0xA670F9D4}).put(8, &worker).put(16, progress).put(20, state);
        std::string received(24, 'x');
        unsigned priority = 99;
        ASSERT_EQ(mq_receive(card.mq, received.data(), received.size(), &priority), 24);
        EXPECT_EQ(received, expected.bytes);
        EXPECT_EQ(priority, 0U);
    }
}

TEST_F(Worker, HandsItsRequestToThePlatformByteForByte) {
    card.group_id = 9;
    fpd.obj_id = 0x10203;
    fpd.region = 7;
    std::strcpy(fpd.desc.image, "io_fpga_2.0.0.bit");
    std::size_t room = 0;
    fake_platform().brd_fpd_upgrade = [&room](auto, auto, auto, char *text, std::size_t size) {
        room = size;
        text[size - 1] = '\0';
        return 0;
    };
    FpdWorkerCtx &worker = run_to_its_end();
    ASSERT_THAT(fake_platform().upgrade_requests(), SizeIs(1));
    const BrdFpdUpgradeRequest request = fake_platform().upgrade_requests()[0];
    const RawRecord expected = RawRecord(600)
                                   .put(0, std::uint8_t{7})
                                   .put(8, &worker)
                                   .put(16, request.progress)
                                   .put_text(24, "/pkg/fpd/ucode")
                                   .put_text(280, "io_fpga_2.0.0.bit");
    EXPECT_EQ(bytes_of(request), expected.bytes);
    EXPECT_NE(request.progress, nullptr);
    EXPECT_THAT(fake_platform().calls_of("brd_fpd_upgrade"), ElementsAre(FakeCall{"brd_fpd_upgrade", "9, 66051, 7"}));
    EXPECT_EQ(room, 256U);
}

TEST_F(Worker, RunsWithTheReservedSignalsBlocked) {
    std::atomic<bool> blocked{false};
    fake_platform().brd_fpd_upgrade = [&blocked](auto...) {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        blocked = sigismember(&mask, SIGRTMIN + 6) == 1 && sigismember(&mask, SIGRTMIN + 10) == 1;
        return 0;
    };
    run_to_its_end();
    EXPECT_TRUE(blocked);
}

TEST_F(Worker, HandsOnAnImageNameOf254Characters) {
    std::memset(fpd.desc.image, 'i', sizeof fpd.desc.image - 1);
    run_to_its_end();
    ASSERT_THAT(fake_platform().upgrade_requests(), SizeIs(1));
    EXPECT_EQ(fake_platform().upgrade_requests()[0].file_name, std::string(254, 'i'));
}

TEST_F(Worker, KeepsItsOwnCopiesOfWhatItNeeds) {
    const Gate gate;
    fake_platform().brd_fpd_upgrade = [gate](auto, auto, BrdFpdUpgradeRequest *request, auto...) {
        gate.pass();
        request->progress(request->context, 10);
        return 0;
    };
    ASSERT_EQ(start(), 0);
    FpdWorkerCtx &worker = *fpd.worker;
    gate.await_arrival();
    std::strcpy(fpd.info.name, "Another");
    retire_worker(card, fpd, false);
    free_queues(card);
    gate.open();
    await_end(worker);
    expect_log(worker_module, "DEBUG", "FpdUpgradeProgress", "FPD IoFpga upgrade progressing percent 10");
    EXPECT_THAT(reports(&worker), SizeIs(3));
}

TEST_F(Worker, MindsNoErrorThatThePlatformLibraryLeavesBehind) {
    fake_platform().brd_fpd_upgrade = [](auto, auto, BrdFpdUpgradeRequest *request, auto...) {
        errno = EIO;
        request->progress(request->context, 50);
        errno = EIO;
        return 0;
    };
    run_to_its_end();
    expect_no_log("FpdUpgradeProgressMqSendFail");
    expect_no_log("FpdUpgHdlMqSendFail1");
}

TEST_F(Worker, ClosesItsQueueEndWhenItIsDone) {
    write_file(diagnostic_log_path, "");
    const std::vector<std::string> before = open_descriptors();
    run_to_its_end();
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Worker, TellsWhenItsQueueEndCannotBeClosed) {
    const Gate gate;
    gate.hold_upgrades();
    ASSERT_EQ(start(), 0);
    gate.await_arrival();
    interpose::fail(Call::mq_close, EIO);
    gate.open();
    await_end(*fpd.worker);
    expect_log(
        worker_module, "ERROR", "FpdUpgHdlMqCloseFail",
        "Worker thread message queue close failed error Couldn't close FPD msg queue err_msg Input/output error");
    EXPECT_EQ(interpose::calls(Call::mq_close), 1U) << "a descriptor that was closed once may be another's";
}

TEST_F(Worker, GoesOnWhenAReportCannotBeSent) {
    const std::string state_failed = "Sending worker thread FPD IoFpga upgrade state failed error Bad message";
    const struct {
        unsigned failing;
        const char *tag;
        std::string text;
        std::vector<std::pair<FpdState, unsigned>> sent;
    } cases[] = {
        {1, "FpdUpgHdlMqSendFail", state_failed, {halfway, done}},
        {2,
         "FpdUpgradeProgressMqSendFail",
         "Sending worker thread FPD IoFpga upgrade progress failed error Bad message",
         {started, done}},
        {3, "FpdUpgHdlMqSendFail1", state_failed, {started, halfway}},
    };
    for (const auto &[failing, tag, text, sent] : cases) {
        interpose::fail(Call::mq_send, EBADMSG, failing);
        FpdWorkerCtx &worker = run_to_its_end();
        expect_log(worker_module, "ERROR", tag, text);
        EXPECT_EQ(reports(&worker), sent);
        retire_worker(card, fpd, true);
    }
}

TEST_F(Worker, SendsEveryReportWhateverSignalsInterrupt) {
    interpose::fail(Call::mq_send, EINTR, 1, 5);
    FpdWorkerCtx &worker = run_to_its_end();
    EXPECT_THAT(reports(&worker), SizeIs(3));
}

TEST_F(Worker, WaitsWhileTheQueueIsFull) {
    for (int i = 0; i < 256; ++i) report(nullptr, FpdState::upgrade_progressing, 1);
    ASSERT_EQ(start(), 0);
    FpdWorkerCtx &worker = *fpd.worker;
    ASSERT_TRUE(eventually([] { return interpose::calls(Call::mq_send) == 257; }));
    usleep(20'000);
    EXPECT_THAT(fake_platform().calls_of("brd_fpd_upgrade"), IsEmpty());
    for (int i = 0; i < 256; ++i) EXPECT_EQ(receive().worker, nullptr);
    await_end(worker);
    EXPECT_THAT(reports(&worker), SizeIs(3));
}

TEST_F(Worker, FailsWithoutItsQueueAndLeavesItsContextToItsOwner) {
    interpose::fail(Call::mq_open, EMFILE);
    FpdWorkerCtx &worker = run_to_its_end();
    expect_log(worker_module, "DEBUG", "FpdUpgHdlrWorkerMq", "Worker MQ id -1");
    expect_log(worker_module, "ERROR", "FpdUpgHdlMqOpenFail",
               "FPD IoFpga Worker thread message queue open failed error Couldn't open FPD msg queue err_msg Too many "
               "open files");
    EXPECT_EQ(fpd.worker, &worker);
    EXPECT_STREQ(worker.name, "IoFpga");
    EXPECT_EQ(waiting_reports(), 0);
    EXPECT_THAT(fake_platform().calls_of("brd_fpd_upgrade"), IsEmpty());
}

TEST_F(Worker, ReturnsMinus5WithoutItsQueueAnd0WithIt) {
    FpdWorkerCtx &worker = context();
    ASSERT_EQ(pthread_join(worker.thread, nullptr), 0);
    void *result = nullptr;
    for (const std::intptr_t expected : {-5, 0}) {
        if (expected != 0) interpose::fail(Call::mq_open, ENOENT);
        ASSERT_EQ(pthread_create(&worker.thread, nullptr, fpd_upg_handler, &worker), 0);
        ASSERT_EQ(pthread_join(worker.thread, &result), 0);
        EXPECT_EQ(reinterpret_cast<std::intptr_t>(result), expected);
    }
    ASSERT_EQ(pthread_create(&worker.thread, nullptr, fpd_upg_handler, &worker), 0);  // for the end of the test
}

// Cancellation --------------------------------------------------------------------------------------------------------

struct CancelledWorker : Worker {
    CancelledWorker() {
        write_file(diagnostic_log_path, "");
        descriptors = open_descriptors();
    }

    /// Expects that the cancelled worker ends, and that nothing of it stays open.
    void expect_end(FpdWorkerCtx &worker) {
        await_end(worker);
        void *result = nullptr;
        ASSERT_EQ(pthread_join(worker.thread, &result), 0);
        EXPECT_EQ(result, PTHREAD_CANCELED);
        EXPECT_EQ(open_descriptors(), descriptors);
        pthread_create(
            &worker.thread, nullptr, [](void *) -> void * { return nullptr; }, nullptr);
    }

    std::vector<std::string> descriptors;
};

TEST_F(CancelledWorker, LeavesNothingOpenInsideThePlatformLibrary) {
    const Gate gate;
    gate.hang_upgrades();
    ASSERT_EQ(start(), 0);
    gate.await_arrival();
    ASSERT_NE(open_descriptors(), descriptors);
    ASSERT_EQ(pthread_cancel(fpd.worker_thread), 0);
    expect_end(*fpd.worker);
}

TEST_F(CancelledWorker, LeavesNothingOpenOfTheLowestDescriptorEither) {
    FpdWorkerCtx &worker = attach_worker(fpd, FpdState::worker_created);
    ASSERT_EQ(pthread_join(worker.thread, nullptr), 0);
    worker.ended = false;
    std::snprintf(worker.mq_name, sizeof worker.mq_name, "%s", card.mq_name);
    const Gate gate;
    gate.hang_upgrades();
    const Descriptor standard_input(dup(STDIN_FILENO));
    close(STDIN_FILENO);
    ASSERT_EQ(pthread_create(&worker.thread, nullptr, fpd_upg_handler, &worker), 0);
    gate.await_arrival();
    EXPECT_EQ(worker.mq, STDIN_FILENO);
    ASSERT_EQ(pthread_cancel(worker.thread), 0);
    await_end(worker);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    dup2(standard_input.fd, STDIN_FILENO);
    void *result = nullptr;
    ASSERT_EQ(pthread_join(worker.thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    pthread_create(
        &worker.thread, nullptr, [](void *) -> void * { return nullptr; }, nullptr);
}

TEST_F(CancelledWorker, LeavesNoHalfLineInTheLog) {
    const Gate gate;
    fake_platform().brd_fpd_upgrade = [gate](auto, auto, BrdFpdUpgradeRequest *request, auto...) {
        gate.pass();  // the cancellation comes here, and takes effect in the callback
        request->progress(request->context, 10);
        return 0;
    };
    ASSERT_EQ(start(), 0);
    gate.await_arrival();
    ASSERT_EQ(pthread_cancel(fpd.worker_thread), 0);
    gate.open();
    expect_end(*fpd.worker);
    expect_no_log("FpdUpgradeProgress");
    EXPECT_THAT(log_lines(), testing::Not(IsEmpty()));
    EXPECT_THAT(reports(fpd.worker), ElementsAre(started));
}

TEST_F(CancelledWorker, LeavesNothingOpenWhereverTheCancellationStrikes) {
    for (int round = 0; round < 20; ++round) {
        Fpd &each = plan("IoFpga" + std::to_string(round));
        const Gate gate;
        fake_platform().brd_fpd_upgrade = [gate](auto, auto, BrdFpdUpgradeRequest *request, auto...) {
            gate.shared->arrived.release();
            for (;;) request->progress(request->context, 10);
            return 0;
        };
        ASSERT_EQ(start(each), 0);
        gate.await_arrival();
        for (int i = 0; i < round; ++i) sched_yield();
        FpdWorkerCtx &worker = *each.worker;
        ASSERT_EQ(pthread_cancel(each.worker_thread), 0);
        expect_end(worker);
        while (waiting_reports() > 0) receive();
        // Every line is a whole one.
        log_lines();
        clear_log();
        write_file(diagnostic_log_path, "");
        retire_worker(card, each, true);
        free_queues(card);
    }
}

TEST_F(CancelledWorker, LeavesNothingOpenInAFullQueue) {
    for (int i = 0; i < 256; ++i) report(nullptr, FpdState::upgrade_progressing, 1);
    ASSERT_EQ(start(), 0);
    ASSERT_TRUE(eventually([] { return interpose::calls(Call::mq_send) == 257; }));
    usleep(5'000);
    ASSERT_EQ(pthread_cancel(fpd.worker_thread), 0);
    expect_end(*fpd.worker);
    EXPECT_EQ(waiting_reports(), 256);
}

TEST_F(CancelledWorker, LeavesNothingOpenWhenTheCancellationComesFirst) {
    FpdWorkerCtx &worker = context();
    ASSERT_EQ(pthread_join(worker.thread, nullptr), 0);
    ASSERT_EQ(pthread_create(
                  &worker.thread, nullptr,
                  [](void *context) -> void * {
                      pthread_cancel(pthread_self());
                      return fpd_upg_handler(context);
                  },
                  &worker),
              0);
    expect_end(worker);
}

// Release of contexts -------------------------------------------------------------------------------------------------

TEST_F(Worker, IsAStrangerOnceItIsRetired) {
    FpdWorkerCtx &worker = run_to_its_end();
    retire_worker(card, fpd, true);
    EXPECT_EQ(fpd.worker, nullptr);
    EXPECT_EQ(card.retired_workers, &worker);
    retire_worker(card, fpd, true);  // has none
    EXPECT_EQ(card.retired_workers, &worker);
    EXPECT_EQ(worker.next, nullptr);
    release_retired_workers(card);
    EXPECT_EQ(card.retired_workers, nullptr);
}

/// A worker whose last report arrived, and whose thread is held up by `gate`.
struct EndingWorker : Worker {
    FpdWorkerCtx &make(const std::string &name) {
        Fpd &ending = plan(name);
        gate.hold_upgrades();
        EXPECT_EQ(start(ending), 0);
        gate.await_arrival();
        FpdWorkerCtx &worker = *ending.worker;
        retire_worker(card, ending, true);
        return worker;
    }
    void let_end(FpdWorkerCtx &worker) {
        gate.open();
        await_thread(worker);
    }

    const Gate gate{};
};

TEST_F(EndingWorker, IsWaitedForWhenItsLastReportArrived) {
    FpdWorkerCtx &worker = make("Phy");
    unsigned sleeps = 0;
    interpose::on_sleep([&](std::uint64_t) {
        if (++sleeps == 3) let_end(worker);
    });
    release_retired_workers(card);
    EXPECT_GE(sleeps, 3U);
    EXPECT_EQ(card.retired_workers, nullptr);
    EXPECT_EQ(card.hanging_threads, 0U);
}

TEST_F(EndingWorker, IsWaitedForASecondAtMost) {
    const std::vector<FpdWorkerCtx *> workers = {&make("Phy"), &make("Bios"), &make("Cpu")};
    std::uint64_t slept = 0;
    interpose::on_sleep([&](std::uint64_t microseconds) { slept += microseconds; });
    release_retired_workers(card);
    EXPECT_EQ(slept, 1'000'000U) << "for all of them together";
    EXPECT_EQ(card.hanging_threads, 3U);
    EXPECT_EQ(card.retired_workers, nullptr);
    for (std::size_t i = 0; i < workers.size(); ++i) gate.open();
    for (FpdWorkerCtx *const worker : workers) {
        EXPECT_TRUE(eventually([&] { return has_ended(*worker); })) << "its context was kept for it";
        std::free(worker);
    }
}

/// What the platform library does at the end of a thread that called it.
struct EndOfThread {
    ~EndOfThread() {
        if (at_end) at_end();
    }
    std::function<void()> at_end;
};

TEST_F(EndingWorker, IsNotWaitedForForEverBehindItsEnd) {
    fake_platform().brd_fpd_upgrade = [gate = gate](auto...) {
        thread_local EndOfThread end;
        end.at_end = [gate] { gate.pass(); };
        return 0;
    };
    ASSERT_EQ(start(), 0);
    gate.await_arrival();
    FpdWorkerCtx *const worker = fpd.worker;
    EXPECT_TRUE(has_ended(*worker));
    retire_worker(card, fpd, false);
    interpose::on_sleep([](std::uint64_t) {});
    release_retired_workers(card);
    EXPECT_EQ(card.hanging_threads, 1U);
    EXPECT_EQ(interpose::calls(Call::pthread_detach), 1U);
    gate.open();
    std::free(worker);
}

TEST_F(Worker, KeepsItsContextWhileItHangsInThePlatformLibrary) {
    const Gate gate;
    fake_platform().brd_fpd_upgrade = [gate](auto, auto, BrdFpdUpgradeRequest *request, auto...) {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        gate.pass();
        request->progress(request->context, 80);
        return 0;
    };
    ASSERT_EQ(start(), 0);
    FpdWorkerCtx *const worker = fpd.worker;
    gate.await_arrival();
    ASSERT_EQ(pthread_cancel(worker->thread), 0);
    retire_worker(card, fpd, false);
    release_retired_workers(card);
    EXPECT_EQ(card.retired_workers, nullptr);
    EXPECT_EQ(card.hanging_threads, 1U);
    EXPECT_FALSE(has_ended(*worker));
    gate.open();
    await_end(*worker);
    EXPECT_STREQ(worker->name, "IoFpga");
    std::free(worker);  // nobody else has it any more
}

TEST_F(Worker, IsReleasedOnceItsThreadEnded) {
    run_to_its_end();
    retire_worker(card, fpd, false);
    const unsigned joins = interpose::calls(Call::pthread_tryjoin_np);
    release_retired_workers(card);
    EXPECT_EQ(interpose::calls(Call::pthread_tryjoin_np), joins + 1);
    EXPECT_EQ(card.retired_workers, nullptr);
    EXPECT_EQ(card.hanging_threads, 0U);
}

TEST_F(Worker, MayBeAThreadWithoutAHandle) {
    static std::atomic<bool> ran;
    ran = false;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(os_thread_create(
                  nullptr, &attributes,
                  [](void *) -> void * {
                      ran = true;
                      return nullptr;
                  },
                  nullptr),
              0);
    pthread_attr_destroy(&attributes);
    EXPECT_TRUE(eventually([] { return ran.load(); }));
}

TEST_F(Worker, HasNoDescriptorBeforeItOpensTheQueue) {
    const Gate gate;
    interpose::before_each(Call::mq_open, [gate] { gate.pass(); });
    ASSERT_EQ(start(), 0);
    gate.await_arrival();
    EXPECT_EQ(fpd.worker->mq, -1);
    gate.open();
    await_end(*fpd.worker);
}

}  // namespace
