/// What an upgrade does, reports, outlives and leaves.
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "library_test_support.h"

namespace cardsim {
namespace {

using ::testing::ElementsAre;
using Clock = std::chrono::steady_clock;

/// Something that one thread does and others wait for.
class Signal {
  public:
    void set() {
        const std::lock_guard guard(lock_);
        is_set_ = true;
        changed_.notify_all();
    }
    bool wait() {
        std::unique_lock guard(lock_);
        return changed_.wait_for(guard, std::chrono::seconds(10), [&] { return is_set_; });
    }

  private:
    std::mutex lock_;
    std::condition_variable changed_;
    bool is_set_ = false;
};

/// A thread that may be cancelled.
class Worker {
  public:
    explicit Worker(std::function<void()> work) : work_(std::move(work)) {
        pthread_create(
            &thread_, nullptr,
            [](void *worker) -> void * {
                static_cast<Worker *>(worker)->work_();
                return nullptr;
            },
            this);
    }
    void cancel() { pthread_cancel(thread_); }
    /// True when the thread was cancelled.
    bool join() {
        void *result = nullptr;
        pthread_join(thread_, &result);
        return result == PTHREAD_CANCELED;
    }

  private:
    std::function<void()> work_;
    pthread_t thread_ = {};
};

class UpgradeTest : public LibraryTest {
  protected:
    void describe_io_fpga_with(const std::string &more) {
        describe(card_table + io_fpga + more);
        start_hardware();
    }

    /// A card with the one region "A", running 1.0.0, and its image 1.3.0.
    void describe_region_with(const std::string &lines, const std::string &file = "io.img") {
        describe(card_table + "[[fpd]]\nid = 10\n[[fpd.region]]\nname = \"A\"\nrunning = \"1.0.0\"\n" + lines +
                 "[[fpd.region.image]]\ntype = 0\nversion = \"1.3.0\"\nfile = \"" + file + "\"\n");
    }
    int upgrade() { return upgrade(library(), reports); }
    int upgrade(Library &on, Reports &receiver) {
        BrdFpdUpgradeRequest request = upgrade_request(0, package(), "io.img", receiver);
        return on.brd_fpd_upgrade(7, 10, &request, err_msg, sizeof err_msg);
    }
    /// The signal that the first report of this percentage sets.
    static void signal_at(Reports &receiver, int percent, Signal &signal) {
        receiver.then = [&signal, percent](int reported) {
            if (reported == percent) signal.set();
        };
    }
    std::string running() const { return version_text(saved_state().regions.at(0).running); }
    std::string programmed() const { return version_text(saved_state().regions.at(0).programmed); }
    void reload_card() { change_saved_state(reload); }

    Reports reports;
};

TEST_F(UpgradeTest, ProgramsTheImagesVersion) {
    describe_io_fpga_with("");
    EXPECT_EQ(upgrade(), 0);
    EXPECT_THAT(reports.percents, ElementsAre(25, 50, 75, 100));
    EXPECT_EQ(programmed(), "1.3.0");
    EXPECT_EQ(running(), "1.2.0");
    BrdFpdInfo info = {};
    ASSERT_EQ(library().brd_fpd_info_get(7, 10, 0, &info, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(info.programmed_minor, 3);
    EXPECT_EQ(info.running_minor, 2);
    const std::string call =
        "brd_fpd_upgrade group=7 obj=10 region=0 directory=\"" + package().string() + "\" file=\"io.img\"";
    EXPECT_THAT(recorded(), ::testing::IsSupersetOf({call + " begin", call + " -> 0"}));
    reload_card();
    EXPECT_EQ(running(), "1.3.0");
}

TEST_F(UpgradeTest, TheActivationKindSaysWhenItRuns) {
    for (const int kind : {0, 1, 2, 3, 4, 5, 6, 7, 255}) {
        const card_tests::TemporaryDirectory place{"cardsim-test"};
        const bool needs_reload = kind == 1 || (kind >= 3 && kind <= 6);
        std::filesystem::remove(state_directory() / state_file);
        describe_region_with("duration = 0\nactivation = " + std::to_string(kind) + "\n");
        Library fresh(place.path() / "libcardsim.so");
        start_hardware(fresh);
        ASSERT_EQ(upgrade(fresh, reports), 0);
        EXPECT_EQ(running(), needs_reload ? "1.0.0" : "1.3.0") << "activation kind " << kind;
        EXPECT_EQ(programmed(), "1.3.0");
    }
}

TEST_F(UpgradeTest, TakesItsTimeDividedByTheSpeed) {
    setenv("CARDSIM_SPEED", "100", 1);
    describe_region_with("duration = 20\nreports = 0\n");
    start_hardware();
    const auto start = Clock::now();
    EXPECT_EQ(upgrade(), 0);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(200));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
    EXPECT_TRUE(reports.percents.empty());
}

TEST_F(UpgradeTest, AnAttemptMayFail) {
    describe_io_fpga_with(
        "[[fpd.region.fault]]\nkind = \"fail\"\nattempt = 1\nat = 60\ncode = 5\ntext = \"flash timeout\"\n"
        "[[fpd.region.fault]]\nkind = \"fail\"\nattempt = 2\ncode = -6\ntext = \"no flash\"\n");
    EXPECT_EQ(upgrade(), 5);
    EXPECT_STREQ(err_msg, "flash timeout");
    EXPECT_THAT(reports.percents, ElementsAre(25, 50, 60));
    EXPECT_EQ(programmed(), "1.2.0");
    reports.percents.clear();
    EXPECT_EQ(upgrade(), -6);
    EXPECT_STREQ(err_msg, "no flash");
    EXPECT_TRUE(reports.percents.empty());
    EXPECT_EQ(upgrade(), 0);
    EXPECT_EQ(programmed(), "1.3.0");
}

TEST_F(UpgradeTest, AFailureAtNoPercentIsOneThatHadBegun) {
    describe_io_fpga_with("[[fpd.region.fault]]\nkind = \"fail\"\nat = 0\ncode = 5\n");
    EXPECT_EQ(upgrade(), 5);
    EXPECT_THAT(reports.percents, ElementsAre(0));
    EXPECT_STREQ(err_msg, "upgrade failed");
}

TEST_F(UpgradeTest, AttemptsCountUntilTheReload) {
    describe_io_fpga_with("[[fpd.region.fault]]\nkind = \"fail\"\nattempt = 2\ncode = 5\n");
    EXPECT_EQ(upgrade(), 0);
    EXPECT_EQ(saved_state().regions.at(0).attempts, 1U);
    // Another process on the same boot goes on counting.
    const card_tests::TemporaryDirectory place{"cardsim-test"};
    Library fresh(place.path() / "libcardsim.so");
    start_hardware(fresh);
    EXPECT_EQ(upgrade(fresh, reports), 5);
    reload_card();
    EXPECT_EQ(upgrade(fresh, reports), 0);
}

TEST_F(UpgradeTest, AnAttemptMayBeSlow) {
    setenv("CARDSIM_SPEED", "100", 1);
    describe_io_fpga_with("[[fpd.region.fault]]\nkind = \"slow\"\nevery = 10.0\n");
    std::vector<Clock::time_point> times = {Clock::now()};
    reports.then = [&](int) { times.push_back(Clock::now()); };
    EXPECT_EQ(upgrade(), 0);
    EXPECT_THAT(reports.percents, ElementsAre(25, 50, 75, 100));
    ASSERT_EQ(times.size(), 5U);
    for (size_t report = 1; report < times.size(); ++report) {
        EXPECT_GE(times[report] - times[0], std::chrono::milliseconds(100) * report);
    }
    EXPECT_LT(times[4] - times[0], std::chrono::seconds(10));
}

TEST_F(UpgradeTest, AVersionMayNotStick) {
    describe_io_fpga_with("[[fpd.region.fault]]\nkind = \"does_not_stick\"\nattempt = 1\n");
    EXPECT_EQ(upgrade(), 0);
    EXPECT_EQ(programmed(), "1.3.0");
    reload_card();
    EXPECT_EQ(programmed(), "1.2.0");
    EXPECT_EQ(running(), "1.2.0");
    // The second attempt of a boot sticks, whatever became of the first.
    EXPECT_EQ(upgrade(), 0);
    EXPECT_EQ(upgrade(), 0);
    reload_card();
    EXPECT_EQ(programmed(), "1.3.0");
}

TEST_F(UpgradeTest, VersionsThatNeverStickFallBackToTheLastThatDid) {
    describe_io_fpga_with("[[fpd.region.fault]]\nkind = \"does_not_stick\"\n");
    EXPECT_EQ(upgrade(), 0);
    EXPECT_EQ(upgrade(), 0);
    reload_card();
    EXPECT_EQ(programmed(), "1.2.0");
}

TEST_F(UpgradeTest, AnImageThatCannotBeReadIsAFailure) {
    // A file that even the superuser can open but not read from its start.
    describe_region_with("", "mem");
    start_hardware();
    BrdFpdUpgradeRequest request = upgrade_request(0, "/proc/self", "mem", reports);
    EXPECT_EQ(library().brd_fpd_upgrade(7, 10, &request, err_msg, sizeof err_msg), EIO);
    EXPECT_STREQ(err_msg, "/proc/self/mem: cannot be read: Input/output error");
    EXPECT_TRUE(reports.percents.empty());
    EXPECT_EQ(programmed(), "1.0.0");
}

TEST_F(UpgradeTest, AHangIsEndedByCancellation) {
    describe_io_fpga_with("[[fpd.region.fault]]\nkind = \"hang\"\nattempt = 1\nat = 50\n");
    Signal is_halfway;
    signal_at(reports, 50, is_halfway);
    Worker worker([&] { upgrade(); });
    ASSERT_TRUE(is_halfway.wait());
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    worker.cancel();
    EXPECT_TRUE(worker.join());
    EXPECT_THAT(reports.percents, ElementsAre(25, 50));
    EXPECT_EQ(programmed(), "1.2.0");
    EXPECT_THAT(recorded().back(), ::testing::EndsWith("file=\"io.img\" -> cancelled"));
    // The region is free again, and the attempt counted.
    EXPECT_EQ(saved_state().regions.at(0).attempts, 1U);
    EXPECT_EQ(upgrade(), 0);
    EXPECT_EQ(programmed(), "1.3.0");
}

TEST_F(UpgradeTest, AHangMayComeBeforeAnyReport) {
    describe_io_fpga_with("[[fpd.region.fault]]\nkind = \"hang\"\nattempt = 1\n");
    std::atomic<bool> is_over = false;
    Worker worker([&] {
        upgrade();
        is_over = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_FALSE(is_over);
    worker.cancel();
    EXPECT_TRUE(worker.join());
    EXPECT_TRUE(reports.percents.empty());
    EXPECT_EQ(upgrade(), 0);
}

TEST_F(UpgradeTest, ACancellationMayCatchItOnItsWay) {
    describe_region_with("duration = 60\n");
    start_hardware();
    const size_t files = open_files();
    Worker worker([&] { upgrade(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    worker.cancel();
    EXPECT_TRUE(worker.join());
    EXPECT_EQ(open_files(), files);
    EXPECT_EQ(programmed(), "1.0.0");
}

TEST_F(UpgradeTest, ACancellationMayCatchItInAReport) {
    describe_io_fpga_with("");
    Signal is_reporting;
    reports.then = [&](int) {
        is_reporting.set();
        sleep(10);
    };
    const auto start = Clock::now();
    Worker worker([&] { upgrade(); });
    ASSERT_TRUE(is_reporting.wait());
    worker.cancel();
    EXPECT_TRUE(worker.join());
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
    EXPECT_THAT(reports.percents, ElementsAre(25));
    reports.then = nullptr;
    EXPECT_EQ(upgrade(), 0);
}

TEST_F(UpgradeTest, AThreadThatMayNotBeCancelledIsNot) {
    describe_io_fpga_with("");
    int result = -1;
    Signal is_reporting;
    signal_at(reports, 25, is_reporting);
    Worker worker([&] {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        result = upgrade();
    });
    ASSERT_TRUE(is_reporting.wait());
    worker.cancel();
    EXPECT_FALSE(worker.join());
    EXPECT_EQ(result, 0);
    EXPECT_EQ(programmed(), "1.3.0");
}

TEST_F(UpgradeTest, AHangMayIgnoreCancellationAndEndLate) {
    setenv("CARDSIM_SPEED", "100", 1);
    describe_io_fpga_with(
        "[[fpd.region.fault]]\nkind = \"hang\"\nattempt = 1\nat = 50\ncancellable = false\nhang_time = 100\n");
    Signal is_halfway;
    Reports late;
    late.then = [&](int percent) {
        if (percent == 50) is_halfway.set();
        // Where a cancellation would strike.
        pthread_testcancel();
    };
    std::atomic<int> result = -1;
    std::atomic<int> is_cancellable = -1;
    const auto start = Clock::now();
    Worker worker([&] {
        result = upgrade(library(), late);
        int state = PTHREAD_CANCEL_DISABLE;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
        is_cancellable = state == PTHREAD_CANCEL_ENABLE;
    });
    ASSERT_TRUE(is_halfway.wait());
    // Once it hangs it has let go of the region.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    worker.cancel();
    EXPECT_EQ(upgrade(), 0);
    EXPECT_EQ(result, -1);
    EXPECT_FALSE(worker.join());
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(1));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(is_cancellable, 1);
    EXPECT_THAT(late.percents, ElementsAre(25, 50, 100));
    EXPECT_EQ(programmed(), "1.3.0");
}

TEST_F(UpgradeTest, DifferentRegionsAreUpgradedAtTheSameTime) {
    std::string second = io_fpga;
    second.replace(second.find("id = 10"), 7, "id = 11").replace(second.find("IoFpga"), 6, "Second");
    second.replace(second.find("1.3.0"), 5, "1.4.0");
    describe_io_fpga_with(second);
    Signal began[2];
    Reports received[2];
    bool met[2] = {};
    int results[2] = {-1, -1};
    // Each one's first report waits for the other one's.
    for (int side = 0; side < 2; ++side) {
        received[side].then = [&, side](int) {
            began[side].set();
            met[side] = began[1 - side].wait();
        };
    }
    std::thread threads[2];
    for (uint32_t side = 0; side < 2; ++side) {
        threads[side] = std::thread([&, side] {
            char reason[64];
            BrdFpdUpgradeRequest request = upgrade_request(0, package(), "io.img", received[side]);
            results[side] = library().brd_fpd_upgrade(7, 10 + side, &request, reason, sizeof reason);
        });
    }
    // The main thread's calls do not wait for the workers' either.
    BrdFpdInfo info = {};
    EXPECT_EQ(library().brd_fpd_info_get(7, 10, 0, &info, err_msg, sizeof err_msg), 0);
    threads[0].join();
    threads[1].join();
    EXPECT_TRUE(met[0]);
    EXPECT_TRUE(met[1]);
    EXPECT_EQ(results[0], 0);
    EXPECT_EQ(results[1], 0);
    EXPECT_EQ(programmed(), "1.3.0");
    EXPECT_EQ(version_text(saved_state().regions.at(1).programmed), "1.4.0");
}

TEST_F(UpgradeTest, ReportsComeOnTheCallersThread) {
    describe_io_fpga_with("");
    std::thread::id reporter;
    reports.then = [&](int) { reporter = std::this_thread::get_id(); };
    std::thread::id worker;
    std::thread thread([&] {
        worker = std::this_thread::get_id();
        EXPECT_EQ(upgrade(), 0);
    });
    thread.join();
    EXPECT_EQ(reporter, worker);
}

}  // namespace
}  // namespace cardsim
