#include <cerrno>
#include <vector>

#include "interpose.h"
#include "os_time.h"
#include "test_support.h"

namespace {

TEST(Elapsed, IsInWholeMicroseconds) {
    EXPECT_EQ(elapsed({10, 0}, {10, 0}), 0);
    EXPECT_EQ(elapsed({10, 0}, {12, 1'999}), 2'000'001);
    EXPECT_EQ(elapsed({10, 999'999'000}, {11, 0}), 1);
    EXPECT_EQ(elapsed({12, 0}, {10, 500'000'000}), -1'500'000);
    EXPECT_EQ(elapsed({0, 0}, {5'000'000'000, 0}), 5'000'000'000'000'000);
}

struct Sleep : CardTest {
    Sleep() {
        interpose::on_sleep([this](std::uint64_t microseconds) { slept.push_back(microseconds); });
    }

    std::vector<std::uint64_t> slept;
};

TEST_F(Sleep, LastsAsLongAsAskedForWhateverErrnoHeldBefore) {
    for (const std::uint32_t time : {0U, 1U, 999'999U, 1'000'000U, 4'294'967'295U}) {
        errno = EINTR;
        sleep_for(time);
    }
    EXPECT_THAT(slept, testing::ElementsAre(0, 1, 999'999, 1'000'000, 4'294'967'295));
}

TEST_F(Sleep, GoesOnForWhatIsLeftAfterASignalUntilItsTimeIsOver) {
    interpose::hold_clock({1000, 0});
    interpose::on_sleep([this](std::uint64_t microseconds) {
        slept.push_back(microseconds);
        interpose::advance_clock(slept.size() == 1 ? 499 : 1);
    });
    interpose::fail(interpose::Call::usleep, EINTR, 1, interpose::for_ever);
    sleep_for(501);
    EXPECT_THAT(slept, testing::ElementsAre(501, 2, 1));
}

TEST_F(Sleep, EndsWhenItCannotBe) {
    interpose::fail(interpose::Call::usleep, EINVAL);
    sleep_for(2'000'000);
    EXPECT_THAT(slept, testing::SizeIs(1));
}

}  // namespace
