#include "card_state.h"

#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "library_test_support.h"

namespace cardsim {
namespace {

using card_tests::names_in;
using card_tests::read_file;
using card_tests::write_file;

const std::string two_regions = R"(
[[fpd]]
id = 10
[[fpd.region]]
name = "A"
running = "1.0.0"
programmed = "1.1.0"
[[fpd.region]]
name = "B"
running = "2.0.0"
)";

using ::testing::_;
using ::testing::ElementsAre;
using ::testing::FieldsAre;
using ::testing::Optional;

const auto none = ::testing::Eq(std::nullopt);

class StateTest : public ::testing::Test {
  protected:
    StateTest() { describe(card_table + leds + two_regions); }

    void describe(const std::string &toml) {
        write_file(directory.path() / "card.toml", toml);
        card = load_card_description(directory.path() / "card.toml");
        state = initial_state(card);
    }
    /// Why the state file is refused; empty: it is not.
    std::string refusal() const {
        try {
            load_state(place, card);
        } catch (const Error &reason) {
            return reason.what();
        }
        return {};
    }

    card_tests::TemporaryDirectory directory{"cardsim-test"};
    StateDirectory place{directory.path()};
    const std::filesystem::path file = directory.path() / state_file;
    CardDescription card;
    CardState state;
};

TEST_F(StateTest, ADirectoryWithoutAStateHoldsACardAsDescribed) {
    state = load_state(place, card);
    EXPECT_EQ(state.boot, 1U);
    EXPECT_EQ(state.auto_upgrade, 1);
    EXPECT_EQ(state.upgrade_mode, 0);
    EXPECT_THAT(state.regions,
                ElementsAre(FieldsAre(10U, 0, "A", FirmwareVersion{1, 0, 0}, FirmwareVersion{1, 1, 0}, none, 0U),
                            FieldsAre(10U, 1, "B", FirmwareVersion{2, 0, 0}, FirmwareVersion{2, 0, 0}, none, 0U)));
    EXPECT_THAT(state.leds, ElementsAre(FieldsAre(3U, 2U, 4U), FieldsAre(4U, 0U, 0U)));
}

TEST_F(StateTest, KeepsAllThatOutlastsARun) {
    state.boot = 4;
    state.auto_upgrade = -1;
    state.upgrade_mode = 7;
    state.regions[0].running = {1, 2, 65535};
    state.regions[0].programmed = {1, 3, 0};
    state.regions[0].falls_back = FirmwareVersion{1, 2, 3};
    state.regions[1].attempts = 2;
    state.leds[1].state = 3;
    state.leds[1].color = 4294967295U;
    save_state(place, state);
    const CardState loaded = load_state(place, card);
    EXPECT_EQ(loaded.boot, 4U);
    EXPECT_EQ(loaded.auto_upgrade, -1);
    EXPECT_EQ(loaded.upgrade_mode, 7);
    EXPECT_THAT(loaded.regions, ElementsAre(FieldsAre(10U, 0, "A", FirmwareVersion{1, 2, 65535},
                                                      FirmwareVersion{1, 3, 0}, Optional(FirmwareVersion{1, 2, 3}), 0U),
                                            FieldsAre(10U, 1, "B", _, _, none, 2U)));
    EXPECT_THAT(loaded.leds, ElementsAre(FieldsAre(3U, 2U, 4U), FieldsAre(4U, 3U, 4294967295U)));
}

TEST_F(StateTest, FollowsADescriptionThatChanged) {
    state.regions[0].programmed = {1, 9, 0};
    state.regions[1].programmed = {2, 9, 0};
    state.leds[0].state = 1;
    save_state(place, state);
    describe(card_table + R"(
[[led]]
id = 5
name = "New"
state = 6
[[led]]
id = 3
name = "Status"
[[fpd]]
id = 10
[[fpd.region]]
name = "Other"
running = "7.0.0"
[[fpd.region]]
name = "B"
running = "2.0.0"
[[fpd.region]]
name = "C"
running = "3.0.0"
)");
    state = load_state(place, card);
    ASSERT_EQ(state.regions.size(), 3U);
    EXPECT_EQ(version_text(state.regions[0].programmed), "7.0.0");
    EXPECT_EQ(version_text(state.regions[1].programmed), "2.9.0");
    EXPECT_EQ(version_text(state.regions[2].programmed), "3.0.0");
    ASSERT_EQ(state.leds.size(), 2U);
    EXPECT_EQ(state.leds[0].state, 6U);
    EXPECT_EQ(state.leds[1].state, 1U);
}

TEST_F(StateTest, ABrokenStateIsRefusedWithFileLineAndReason) {
    write_file(file, "auto_upgrade = 1\nboot = 0\n");
    EXPECT_EQ(refusal(), file.string() + ":2: the state: boot: expected a whole number from 1 to 4294967295, found 0");
    write_file(file,
               "auto_upgrade = 1\nboot = 1\nupgrade_mode = 0\n[[region]]\nfpd = 1\nregion = 0\nname = \"A\"\n"
               "running = [1, 2, 65536]\n");
    EXPECT_EQ(refusal(),
              file.string() + ":8: [[region]]: running: expected [major, minor, debug], each from 0 to 65535");
}

TEST_F(StateTest, AReloadRunsWhatIsProgrammed) {
    state.regions[0].attempts = 2;
    state.regions[1].programmed = {2, 5, 0};
    state.regions[1].running = {2, 5, 0};
    state.regions[1].falls_back = FirmwareVersion{2, 0, 0};
    state.leds[0].state = 3;
    reload(state);
    EXPECT_EQ(state.boot, 2U);
    EXPECT_EQ(version_text(state.regions[0].running), "1.1.0");
    EXPECT_EQ(state.regions[0].attempts, 0U);
    EXPECT_EQ(version_text(state.regions[1].running), "2.0.0");
    EXPECT_EQ(version_text(state.regions[1].programmed), "2.0.0");
    EXPECT_FALSE(state.regions[1].falls_back.has_value());
    EXPECT_EQ(state.leds[0].state, 3U);
}

TEST_F(StateTest, AnybodyMayReadTheStateFileWhichIsTheOnlyOne) {
    save_state(place, state);
    EXPECT_EQ(place.status(state_file)->st_mode & 07777, 0644U);
    EXPECT_THAT(names_in(directory.path()), ElementsAre("card.toml", "state.toml"));
}

/// No file may grow beyond a few bytes while it exists, as on a full disk.
struct FullDisk {
    rlimit earlier = {};

    FullDisk() {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &earlier);
        const rlimit small = {16, earlier.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
    }
    ~FullDisk() {
        setrlimit(RLIMIT_FSIZE, &earlier);
        signal(SIGXFSZ, SIG_DFL);
    }
};

TEST_F(StateTest, ASaveThatFailsLeavesTheEarlierState) {
    save_state(place, state);
    const std::string earlier = read_file(file);
    state.boot = 2;
    std::string reason;
    try {
        const FullDisk full;
        save_state(place, state);
    } catch (const Error &refused) {
        reason = refused.what();
        EXPECT_EQ(refused.code, EFBIG);
    }
    EXPECT_EQ(reason, file.string() + ": cannot be written: File too large");
    EXPECT_EQ(read_file(file), earlier);
    EXPECT_THAT(names_in(directory.path()), ElementsAre("card.toml", "state.toml"));
}

TEST_F(StateTest, AReaderNeverMeetsHalfAState) {
    save_state(place, state);
    std::atomic<bool> is_done = false;
    std::thread writer([&] {
        for (state.boot = 1; state.boot <= 50; ++state.boot) save_state(place, state);
        is_done = true;
    });
    while (!is_done) EXPECT_EQ(refusal(), "");
    writer.join();
}

TEST_F(StateTest, OneHolderOfTheLockAtATime) {
    std::atomic<bool> is_second = false;
    std::thread second;
    {
        const StateLock lock(place);
        second = std::thread([&] {
            const StateLock waiting(place);
            is_second = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(is_second);
    }
    second.join();
    EXPECT_TRUE(is_second);
}

}  // namespace
}  // namespace cardsim
