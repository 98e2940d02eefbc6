#include <fcntl.h>
#include <mqueue.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "brd_intf_auto_fpd_upgrade_msg_queue.h"
#include "brd_intf_auto_fpd_upgrade_worker.h"
#include "interpose.h"
#include "run_support.h"

namespace {

using interpose::Call;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *name = "/auto_fpd_upg_mq_localcard";
constexpr const char *too_many = "Couldn't open FPD msg queue err_msg Too many open files";
constexpr const char *not_closed = "Couldn't close FPD msg queue err_msg Bad file descriptor";
constexpr int no_descriptor = 999;

/// The card's queue does not exist when a test begins, and nothing of it stays.
struct MsgQueue : CardTest {
    MsgQueue() {
        worker.mq = -7;
        mq_unlink(name);
    }
    ~MsgQueue() override {
        if (driver >= 0) mq_close(driver);
        if (worker.mq >= 0) mq_close(worker.mq);
        mq_unlink(name);
    }

    int create() { return create_fpd_mq(name, &driver, err_msg, sizeof err_msg); }
    int remove() { return delete_fpd_mq(name, &driver, err_msg, sizeof err_msg); }
    int open() { return open_fpd_mq(name, worker, err_msg, sizeof err_msg); }

    static bool exists() {
        const mqd_t probe = mq_open(name, O_RDONLY);
        if (probe >= 0) mq_close(probe);
        return probe >= 0;
    }
    static mq_attr attributes(int mqd) {
        mq_attr found{};
        EXPECT_EQ(mq_getattr(mqd, &found), 0);
        return found;
    }
    static int open_mode(int mqd) { return fcntl(mqd, F_GETFL) & O_ACCMODE; }

    int driver = -7;
    FpdWorkerCtx worker{};
};

// Creation ------------------------------------------------------------------------------------------------------------

TEST_F(MsgQueue, IsCreatedForTheDriver) {
    const mode_t mask = umask(0);
    EXPECT_EQ(create(), 0);
    umask(mask);
    ASSERT_GE(driver, 0);
    EXPECT_STREQ(err_msg, "");
    const mq_attr found = attributes(driver);
    EXPECT_EQ(found.mq_maxmsg, 256);
    EXPECT_EQ(found.mq_msgsize, 24);
    EXPECT_EQ(found.mq_curmsgs, 0);
    EXPECT_EQ(found.mq_flags, O_NONBLOCK);
    EXPECT_EQ(open_mode(driver), O_RDONLY);
    struct stat status;
    ASSERT_EQ(fstat(driver, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0770U);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(MsgQueue, IsReadWithoutWaiting) {
    ASSERT_EQ(create(), 0);
    char message[24];
    EXPECT_EQ(mq_receive(driver, message, sizeof message, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(MsgQueue, OfACrashedRunIsReplacedByAnEmptyOneWithItsOwnAttributes) {
    mq_attr old_attributes{};
    old_attributes.mq_maxmsg = 3;
    old_attributes.mq_msgsize = 100;
    const mqd_t old = mq_open(name, O_RDWR | O_CREAT, 0600, &old_attributes);
    ASSERT_GE(old, 0);
    ASSERT_EQ(mq_send(old, "stale", 5, 0), 0);
    ASSERT_EQ(create(), 0);
    EXPECT_EQ(attributes(driver).mq_maxmsg, 256);
    EXPECT_EQ(attributes(driver).mq_msgsize, 24);
    EXPECT_EQ(attributes(driver).mq_curmsgs, 0);
    EXPECT_EQ(attributes(old).mq_curmsgs, 1);
    mq_close(old);
}

TEST_F(MsgQueue, IsNotCreatedWhenTheSystemRefuses) {
    interpose::fail(Call::mq_open, EMFILE);
    EXPECT_EQ(create(), -5);
    EXPECT_LT(driver, 0);
    EXPECT_STREQ(err_msg, too_many);
    EXPECT_THAT(log_lines(),
                ElementsAre(log_line(mq_module, "ERROR", "FpdMQOpenFail", too_many),
                            log_line(mq_module, "ERROR", "CreateFpdMqFail",
                                     std::string("Creating Auto FPD Upgrade msg queue failed err_msg ") + too_many)));
    EXPECT_FALSE(exists());
}

TEST_F(MsgQueue, IsNotCreatedUnderAnImpossibleName) {
    EXPECT_EQ(create_fpd_mq("no_slash", &driver, err_msg, sizeof err_msg), -5);
    EXPECT_LT(driver, 0);
    EXPECT_STREQ(err_msg, "Couldn't open FPD msg queue err_msg Invalid argument");
}

TEST_F(MsgQueue, NeedsNoErrorText) {
    ASSERT_EQ(create_fpd_mq(name, &driver, nullptr, 0), 0);
    ASSERT_EQ(open_fpd_mq(name, worker, nullptr, 0), 0);
    EXPECT_EQ(close_fpd_mq(worker.mq, nullptr, 0), 0);
    worker.mq = -7;
    EXPECT_EQ(delete_fpd_mq(name, &driver, nullptr, 0), 0);
    interpose::fail(Call::mq_open, EMFILE, 1, 2);
    EXPECT_EQ(create_fpd_mq(name, &driver, nullptr, 0), -5);
    EXPECT_EQ(open_fpd_mq(name, worker, nullptr, 0), -5);
    EXPECT_EQ(close_fpd_mq(no_descriptor, nullptr, 0), -5);
    driver = no_descriptor;
    EXPECT_EQ(delete_fpd_mq(name, &driver, nullptr, 0), -5);
    driver = -7;
    expect_log(mq_module, "ERROR", "FpdMQOpenFail", too_many);
    expect_log(mq_module, "ERROR", "MQOpenFail", too_many);
}

// Ownership -----------------------------------------------------------------------------------------------------------

constexpr const char *busy = "Couldn't open FPD msg queue err_msg Device or resource busy";

/// Another run of the tool, as far as the queue is concerned, and a stranger.
struct OwnQueue : MsgQueue {
    ~OwnQueue() override {
        interpose::reset();
        for (const int mqd : {other, strangers})
            if (mqd >= 0) mq_close(mqd);
    }

    int other_creates() { return create_fpd_mq(name, &other, nullptr, 0); }
    /// A queue of another user under the name, in the place of what is there.
    void stranger_makes_one() {
        mq_unlink(name);
        if (strangers >= 0) mq_close(strangers);
        mq_attr made{};
        made.mq_maxmsg = 3;
        made.mq_msgsize = 24;
        strangers = mq_open(name, O_RDWR | O_CREAT | O_EXCL | O_NONBLOCK, 0666, &made);
        ASSERT_GE(strangers, 0);
        if (fchown(strangers, 65534, 65534) != 0) GTEST_SKIP() << "only root can pass for another user";
    }
    /// Whether what has the name is the queue of that descriptor.
    static bool has_the_name(int mqd) {
        const mqd_t probe = mq_open(name, O_RDONLY);
        struct stat one {};
        struct stat two {};
        const bool same = probe >= 0 && fstat(probe, &one) == 0 && fstat(mqd, &two) == 0 && one.st_ino == two.st_ino;
        if (probe >= 0) mq_close(probe);
        return same;
    }

    int other = -7;
    int strangers = -7;
};

TEST_F(OwnQueue, IsLeftAloneByAnotherRun) {
    ASSERT_EQ(other_creates(), 0);
    EXPECT_EQ(create(), -5);
    EXPECT_EQ(driver, -1);
    EXPECT_STREQ(err_msg, busy);
    expect_log(mq_module, "ERROR", "FpdMQOpenFail", busy);
    EXPECT_TRUE(has_the_name(other));
    EXPECT_EQ(open(), 0) << "the workers of the other run still find it";
    ASSERT_EQ(delete_fpd_mq(name, &other, nullptr, 0), 0);
    EXPECT_EQ(create(), 0);
}

TEST_F(OwnQueue, OfARunThatEndedIsReplaced) {
    ASSERT_EQ(other_creates(), 0);
    mq_close(other);  // as the end of a process does
    other = -7;
    EXPECT_EQ(create(), 0);
}

TEST_F(OwnQueue, StaysOwnedUntilItsNameIsGone) {
    ASSERT_EQ(create(), 0);
    int result = 0;
    interpose::before_each(Call::mq_unlink, [&] { result = other_creates(); });
    ASSERT_EQ(remove(), 0);
    EXPECT_EQ(result, -5);
    EXPECT_EQ(other_creates(), 0);
}

TEST_F(OwnQueue, OfARunThatBeganMeanwhileIsLeftAlone) {
    ASSERT_EQ(mq_close(mq_open(name, O_RDONLY | O_CREAT, 0600, nullptr)), 0);
    interpose::before_each(Call::flock, [this] {
        if (other < 0) other_creates();
    });
    EXPECT_EQ(create(), -5);
    EXPECT_STREQ(err_msg, busy);
    ASSERT_GE(other, 0);
    EXPECT_TRUE(has_the_name(other));
}

TEST_F(OwnQueue, IsGivenUpToARunThatOwnsItFirst) {
    const auto before = open_descriptors();
    bool made = false;
    interpose::before_each(Call::flock, [&] {
        if (!std::exchange(made, true)) other_creates();  // between the making of ours and its locking
    });
    EXPECT_EQ(create(), -5);
    EXPECT_STREQ(err_msg, busy);
    ASSERT_GE(other, 0);
    EXPECT_TRUE(has_the_name(other));
    ASSERT_EQ(delete_fpd_mq(name, &other, nullptr, 0), 0);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(OwnQueue, IsMadeInThePlaceOfAStrangers) {
    ASSERT_NO_FATAL_FAILURE(stranger_makes_one());
    if (IsSkipped()) return;
    EXPECT_EQ(create(), 0);
    EXPECT_TRUE(has_the_name(driver));
    EXPECT_FALSE(has_the_name(strangers));
    struct stat status {};
    ASSERT_EQ(fstat(driver, &status), 0);
    EXPECT_EQ(status.st_uid, geteuid());
    EXPECT_EQ(attributes(driver).mq_maxmsg, 256);
}

TEST_F(OwnQueue, IsWonFromAStrangerWhoMakesOneAgainAndAgain) {
    int left = 5;
    interpose::before_each(Call::mq_open, [&] {
        if (left-- > 0) stranger_makes_one();
    });
    EXPECT_EQ(create(), 0);
    if (IsSkipped()) return;
    EXPECT_LT(left, 0);
    EXPECT_TRUE(has_the_name(driver));
}

TEST_F(OwnQueue, IsGivenUpToAStrangerAfterASecond) {
    interpose::hold_clock({1000, 0});
    int openings = 0;
    interpose::before_each(Call::mq_open, [&] {
        stranger_makes_one();
        // Three openings are one try.
        if (++openings % 3 == 0) interpose::advance_clock(100'000);
    });
    EXPECT_EQ(create(), -5);
    if (IsSkipped()) return;
    EXPECT_STREQ(err_msg, "Couldn't open FPD msg queue err_msg File exists");
    EXPECT_EQ(driver, -1);
    EXPECT_EQ(openings, 30) << "until a second is over";
}

TEST_F(OwnQueue, IsNotFoughtForWithoutAClock) {
    for (const unsigned nth : {1U, 2U}) {
        interpose::reset();
        interpose::fail(Call::clock_gettime, EINVAL, nth, interpose::for_ever);
        interpose::fail(Call::mq_open, EEXIST, 2, interpose::for_ever);
        mq_unlink(name);
        EXPECT_EQ(create(), -5);
    }
}

TEST_F(OwnQueue, ThatCannotBeOpenedIsRemovedAsAStrangers) {
    ASSERT_EQ(mq_close(mq_open(name, O_RDONLY | O_CREAT, 0600, nullptr)), 0);
    interpose::fail(Call::mq_open, EACCES);
    EXPECT_EQ(create(), 0);
    EXPECT_TRUE(has_the_name(driver));
}

TEST_F(OwnQueue, IsNotRemovedForWantOfDescriptors) {
    ASSERT_EQ(other_creates(), 0);
    interpose::fail(Call::mq_open, EMFILE);
    EXPECT_EQ(create(), -5);
    EXPECT_STREQ(err_msg, too_many);
    EXPECT_TRUE(has_the_name(other));
}

TEST_F(OwnQueue, IsUsedWhereTheSystemHasNoLocks) {
    interpose::fail(Call::flock, ENOLCK, 1, interpose::for_ever);
    EXPECT_EQ(create(), 0);
}

TEST_F(MsgQueue, IsOpenedWhateverSignalsInterrupt) {
    ASSERT_EQ(mq_close(mq_open(name, O_RDONLY | O_CREAT, 0600, nullptr)), 0);
    for (unsigned nth = 1; nth <= 4; ++nth) {
        interpose::fail(Call::mq_open, EINTR, nth, 2);
        interpose::fail(Call::flock, EINTR, 1, 2);
        ASSERT_EQ(create(), 0) << nth;
        ASSERT_EQ(remove(), 0);
    }
    ASSERT_EQ(create(), 0);
    interpose::fail(Call::mq_open, EINTR, 1, 2);
    EXPECT_EQ(open(), 0);
}

// Deletion ------------------------------------------------------------------------------------------------------------

TEST_F(MsgQueue, IsClosedAndRemoved) {
    const auto before = open_descriptors();
    ASSERT_EQ(create(), 0);
    std::strcpy(err_msg, "earlier");
    EXPECT_EQ(remove(), 0);
    EXPECT_EQ(driver, -1);
    EXPECT_STREQ(err_msg, "");
    EXPECT_FALSE(exists());
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(MsgQueue, IsRemovedWhenItsNameIsGoneAlready) {
    ASSERT_EQ(create(), 0);
    ASSERT_EQ(mq_unlink(name), 0);
    EXPECT_EQ(remove(), 0);
    EXPECT_EQ(driver, -1);
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(MsgQueue, StaysWithItsDescriptorWhenItCannotBeClosed) {
    ASSERT_EQ(create(), 0);
    const int before = driver;
    interpose::fail(Call::mq_close, EBADF);
    EXPECT_EQ(remove(), -5);
    EXPECT_EQ(driver, before);
    EXPECT_TRUE(exists());
    EXPECT_STREQ(err_msg, not_closed);
    EXPECT_THAT(log_lines(),
                ElementsAre(log_line(mq_module, "ERROR", "MQClodeFail", not_closed),
                            log_line(mq_module, "ERROR", "DeleteFpdMqFail",
                                     std::string("Deleting Auto FPD Upgrade msg queue failed err_msg ") + not_closed)));
}

// Workers' ends -------------------------------------------------------------------------------------------------------

TEST_F(MsgQueue, IsOpenedByAWorkerForSendingAndWaiting) {
    ASSERT_EQ(create(), 0);
    EXPECT_EQ(open(), 0);
    ASSERT_GE(worker.mq, 0);
    EXPECT_NE(worker.mq, driver);
    EXPECT_STREQ(err_msg, "");
    EXPECT_EQ(open_mode(worker.mq), O_WRONLY);
    EXPECT_EQ(attributes(worker.mq).mq_flags, 0);
    EXPECT_EQ(attributes(driver).mq_flags, O_NONBLOCK);
    const std::string report(24, 'r');
    ASSERT_EQ(mq_send(worker.mq, report.data(), report.size(), 0), 0);
    char message[24];
    EXPECT_EQ(mq_receive(driver, message, sizeof message, nullptr), 24);
    EXPECT_EQ(std::string(message, sizeof message), report);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(MsgQueue, IsNotCreatedByAWorker) {
    EXPECT_EQ(open(), -5);
    EXPECT_LT(worker.mq, 0);
    EXPECT_STREQ(err_msg, "Couldn't open FPD msg queue err_msg No such file or directory");
    EXPECT_THAT(log_lines(), ElementsAre(log_line(mq_module, "ERROR", "MQOpenFail", err_msg)));
    EXPECT_FALSE(exists());
}

TEST_F(MsgQueue, OfTheDriverIsUnaffectedByAWorkerThatCannotOpenIt) {
    ASSERT_EQ(create(), 0);
    interpose::fail(Call::mq_open, EMFILE);
    EXPECT_EQ(open(), -5);
    EXPECT_LT(worker.mq, 0);
    EXPECT_STREQ(err_msg, too_many);
    EXPECT_THAT(log_lines(), ElementsAre(log_line(mq_module, "ERROR", "MQOpenFail", too_many)));
    EXPECT_EQ(open(), 0);
    EXPECT_STREQ(err_msg, "");
    ASSERT_EQ(mq_send(worker.mq, "r", 1, 0), 0);
    EXPECT_EQ(attributes(driver).mq_curmsgs, 1);
}

TEST_F(MsgQueue, IsClosedByAWorkerAloneForItself) {
    ASSERT_EQ(create(), 0);
    const auto before = open_descriptors();
    ASSERT_EQ(open(), 0);
    std::strcpy(err_msg, "earlier");
    EXPECT_EQ(close_fpd_mq(worker.mq, err_msg, sizeof err_msg), 0);
    worker.mq = -7;
    EXPECT_STREQ(err_msg, "");
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_TRUE(exists());
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(MsgQueue, TellsOfADescriptorThatCannotBeClosed) {
    EXPECT_EQ(close_fpd_mq(no_descriptor, err_msg, sizeof err_msg), -5);
    EXPECT_STREQ(err_msg, not_closed);
    EXPECT_THAT(log_lines(), ElementsAre(log_line(mq_module, "ERROR", "MQClodeFail", not_closed)));
}

TEST_F(MsgQueue, MayHaveAnyDescriptor) {
    const StandardInputClosed closed;
    for (const bool left_behind : {false, true}) {
        if (left_behind) mq_close(mq_open(name, O_RDONLY | O_CREAT, 0600, nullptr));
        EXPECT_EQ(create(), 0) << err_msg;
        EXPECT_EQ(driver, STDIN_FILENO);
        EXPECT_EQ(attributes(driver).mq_maxmsg, 256);
        EXPECT_EQ(remove(), 0);
        EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    }
}

TEST_F(MsgQueue, IsComparedWithWhatHasItsNameWhateverTheDescriptor) {
    const int input = dup(STDIN_FILENO);
    interpose::before_each(Call::flock, [] { close(STDIN_FILENO); });
    EXPECT_EQ(create(), 0) << err_msg;
    dup2(input, STDIN_FILENO);
    close(input);
}

TEST_F(OwnQueue, LeftBehindIsReplacedWhateverFailedBefore) {
    mq_close(mq_open(name, O_RDONLY | O_CREAT, 0600, nullptr));
    errno = EWOULDBLOCK;
    EXPECT_EQ(create(), 0) << err_msg;
}

TEST_F(OwnQueue, IsMadeInThePlaceOfAStrangersWhoHoldsItsLock) {
    ASSERT_NO_FATAL_FAILURE(stranger_makes_one());
    if (IsSkipped()) return;
    ASSERT_EQ(flock(strangers, LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(create(), 0) << err_msg;
    EXPECT_TRUE(has_the_name(driver));
}

}  // namespace
