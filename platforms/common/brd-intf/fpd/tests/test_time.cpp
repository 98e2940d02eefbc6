#include <cerrno>
#include <chrono>
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

TEST_F(Sleep, LastsAsLongAsAskedFor) {
    for (const std::uint32_t time : {0U, 1U, 999'999U, 1'000'000U, 4'294'967'295U}) sleep_for(time);
    EXPECT_THAT(slept, testing::ElementsAre(0, 1, 999'999, 1'000'000, 4'294'967'295));
}

TEST_F(Sleep, GoesOnForWhatIsLeftAfterASignal) {
    interpose::on_sleep([this](std::uint64_t microseconds) {
        slept.push_back(microseconds);
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(2);
        while (std::chrono::steady_clock::now() < until) continue;  // what passed before the signal came
    });
    interpose::fail(interpose::Call::usleep, EINTR, 1, 2);
    sleep_for(60'000'000);
    ASSERT_THAT(slept, testing::SizeIs(3));
    EXPECT_EQ(slept[0], 60'000'000U);
    EXPECT_LE(slept[1], 60'000'000U - 2'000U);
    EXPECT_LE(slept[2], slept[1] - 2'000U);
    EXPECT_GT(slept[2], 30'000'000U);
}

TEST_F(Sleep, IsOverWhenItsTimeIsAlthoughASignalCame) {
    interpose::on_sleep([this](std::uint64_t microseconds) {
        slept.push_back(microseconds);
        const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(2 * microseconds);
        while (std::chrono::steady_clock::now() < until) continue;
    });
    interpose::fail(interpose::Call::usleep, EINTR, 1, interpose::for_ever);
    sleep_for(500);
    EXPECT_THAT(slept, testing::SizeIs(1));
}

TEST_F(Sleep, EndsWhenItCannotBe) {
    interpose::fail(interpose::Call::usleep, EINVAL);
    sleep_for(2'000'000);
    EXPECT_THAT(slept, testing::SizeIs(1));
}

}  // namespace
