/// What a run meets that is none of its making: signals, closed descriptors, other runs, limits, threads that do not
/// end.

#include "card_test.h"

using namespace card_tests;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

/// Two parts, the second after the first: each is at work for a second.
class Surroundings : public CardTest {
  protected:
    void SetUp() override {
        CardTest::SetUp();
        describe({.tables = "[obfl]\nmounted = true\n",
                  .fpds = fpd(10, {{.name = "A", .keys = duration(10)},
                                   {.name = "B", .keys = duration(10), .image_keys = depends_on("A")}})});
    }

    /// Shell words: an upgrade by hand in the background, met when A has reported something.
    static std::string begun_upgrade(const std::string &how = "") {
        return how +
               " bootup_fpd -b -c upgrade & until grep -qs 'FpdUpgResponseProgress.*FPD A state' /var/log/fpd.log; "
               "do sleep 0.01; done; ";
    }
    void expect_upgraded() const {
        EXPECT_EQ(state().region("A").programmed, "1.1.0");
        EXPECT_EQ(state().region("B").programmed, "1.1.0");
        EXPECT_THAT(errors(), IsEmpty());
    }
};

TEST_F(Surroundings, SignalsDoNotEndAnUpgrade) {
    const Result result = shell(begun_upgrade() +
                                "for signal in HUP INT TERM QUIT PIPE XFSZ; do kill -s $signal $!; sleep 0.02; done; "
                                "wait $!; echo status $?; ls /dev/mqueue");
    EXPECT_EQ(result.out, "Auto FPD Upgrade done\nstatus 0\n");
    expect_upgraded();
    EXPECT_EQ(of_function(calls(), "brd_led_state_and_color_set").size(), 2U) << "blinking, and as it was before";
}

TEST_F(Surroundings, ALogAtItsLimitDoesNotEndTheRun) {
    const Result result = shell(
        "truncate -s 100M /var/log/fpd.log && ulimit -f 204800 && bootup_fpd -b -c upgrade; echo status $?; "
        "stat -c %s /var/log/fpd.log; truncate -s 0 /var/log/fpd.log");
    EXPECT_EQ(result.out, "Auto FPD Upgrade done\nstatus 0\n104857600\n");
    expect_upgraded();
}

TEST_F(Surroundings, ClosedStandardDescriptorsAreNobodyElses) {
    const std::string probe = "for fd in 0 1 2; do readlink /proc/$!/fd/$fd; done >/misc/scratch/found; wait $!; ";
    const std::string awkward = "AWKWARD_DEVICE=/misc/scratch/device LD_PRELOAD=" AWKWARD_LIBRARY;
    const Result result =
        shell("( exec <&- >&- 2>&-; " + begun_upgrade(awkward) + probe + "); cat /misc/scratch/found");
    EXPECT_EQ(result.out, "/dev/null\n/dev/null\n/dev/null\n");
    EXPECT_EQ(read_file(state_ / "scratch/device"), "");
    expect_upgraded();
}

TEST_F(Surroundings, ASecondRunLeavesTheQueueOfTheFirstAlone) {
    const Result result = shell(begun_upgrade() +
                                "for word in check_upgrade list_upgrade upgrade; do bootup_fpd -b -c $word; "
                                "echo status $?; done; wait $!; bootup_fpd -b -c check_upgrade; echo status $?");
    EXPECT_EQ(result.out, "status 255\nstatus 255\nstatus 255\nAuto FPD Upgrade done\nstatus 0\n");
    const std::string busy =
        "Local Card Auto FPD Upgrade Interface Init failed err_msg Couldn't open FPD msg queue err_msg Device or "
        "resource busy\n";
    EXPECT_EQ(result.err, busy + busy + busy);
    EXPECT_THAT(errors(), Each(HasSubstr("Device or resource busy")));
    EXPECT_EQ(state().region("A").programmed, "1.1.0");
    EXPECT_EQ(state().region("B").programmed, "1.1.0");
}

TEST_F(Surroundings, AnOrdinaryEndLeavesByExit) {
    const Result result = shell("AWKWARD_EXIT=/misc/scratch/exit LD_PRELOAD=" AWKWARD_LIBRARY
                                " bootup_fpd -b -c upgrade; echo status $?; ls /misc/scratch");
    EXPECT_EQ(result.out, "Auto FPD Upgrade done\nstatus 0\nexit\n");
    expect_upgraded();
}

/// A thread that was left in the library must not have the library's own end about it.
TEST_F(Surroundings, AThreadThatHangsAtItsEndDoesNotKeepTheRun) {
    const std::string awkward = "AWKWARD_EXIT=/misc/scratch/exit AWKWARD_THREAD_END=1 LD_PRELOAD=" AWKWARD_LIBRARY;
    const Result result = shell(awkward + " bootup_fpd -b -c upgrade; echo status $?; ls /misc/scratch");
    EXPECT_EQ(result.out, "Auto FPD Upgrade done\nstatus 0\n");
    expect_upgraded();
}

TEST_F(Surroundings, AThreadThatHangsIsNotForgottenOverAQueueThatCannotBeClosed) {
    const std::string awkward =
        "AWKWARD_EXIT=/misc/scratch/exit AWKWARD_THREAD_END=1 LD_PRELOAD='" AWKWARD_LIBRARY " " UNCLOSED_QUEUE "'";
    const Result result = shell(awkward + " bootup_fpd -b -c upgrade; echo status $?; ls /misc/scratch");
    EXPECT_EQ(result.out, "Auto FPD Upgrade done\nstatus 255\n");
    EXPECT_THAT(result.err, HasSubstr("Interface Deinit failed"));
}

}  // namespace
