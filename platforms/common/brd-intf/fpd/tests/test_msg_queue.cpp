#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

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
    EXPECT_EQ(std::string(err_msg), std::string("Creating Auto FPD Upgrade msg queue failed err_msg ") + too_many);
    EXPECT_THAT(log_lines(), ElementsAre(log_line(mq_module, "ERROR", "FpdMQOpenFail", too_many),
                                         log_line(mq_module, "ERROR", "CreateFpdMqFail", err_msg)));
    EXPECT_FALSE(exists());
}

TEST_F(MsgQueue, IsNotCreatedUnderAnImpossibleName) {
    EXPECT_EQ(create_fpd_mq("no_slash", &driver, err_msg, sizeof err_msg), -5);
    EXPECT_LT(driver, 0);
    EXPECT_STREQ(err_msg,
                 "Creating Auto FPD Upgrade msg queue failed err_msg "
                 "Couldn't open FPD msg queue err_msg Invalid argument");
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
    EXPECT_EQ(std::string(err_msg), std::string("Deleting Auto FPD Upgrade msg queue failed err_msg ") + not_closed);
    EXPECT_THAT(log_lines(), ElementsAre(log_line(mq_module, "ERROR", "MQClodeFail", not_closed),
                                         log_line(mq_module, "ERROR", "DeleteFpdMqFail", err_msg)));
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

}  // namespace
