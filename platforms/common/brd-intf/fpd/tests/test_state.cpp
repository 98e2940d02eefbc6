#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "interpose.h"
#include "run_support.h"

namespace {

using interpose::Call;
using testing::ElementsAre;

constexpr Module state_module{"FPD", "brd_intf_auto_fpd_upgrade_state"};

TEST(VersionMake, StoresEveryPartInItsPlaceAndLeavesTheKindAlone) {
    FpdVersion out = version(9, 9, 9, 253);
    EXPECT_EQ(fpd_version_make(1, 0x0203, 4, &out), &out);
    EXPECT_EQ(bytes_of(out), std::string("\xFD\x01\x03\x02\x04\x00", 6));
    EXPECT_EQ(fpd_version_make(255, 65535, 255, &out), &out);
    EXPECT_EQ(bytes_of(out), bytes_of(version(255, 65535, 255, 253)));
}

TEST(VersionMake, RefusesAPartThatIsTooLargeAndLeavesTheVersionAlone) {
    FpdVersion out = version(1, 2, 3);
    EXPECT_EQ(fpd_version_make(256, 0, 0, &out), nullptr);
    EXPECT_EQ(fpd_version_make(0, 65536, 0, &out), nullptr);
    EXPECT_EQ(fpd_version_make(0, 0, 256, &out), nullptr);
    EXPECT_EQ(fpd_version_make(0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, &out), nullptr);
    EXPECT_EQ(bytes_of(out), bytes_of(version(1, 2, 3)));
}

/// The text in a buffer of that size; nullopt when the buffer was not touched.
std::optional<std::string> version_text(const FpdVersion &of, std::size_t size) {
    char buffer[32];
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(fpd_version_to_text(of, buffer, size), buffer);
    EXPECT_EQ(std::string(buffer + size, sizeof buffer - size), std::string(sizeof buffer - size, '#'));
    if (buffer[0] == '#') return std::nullopt;
    return buffer;
}

TEST(VersionText, HasTheThreePartsCutTo10CharactersOrWhatTheKindTells) {
    const std::pair<FpdVersion, const char *> cases[] = {
        {version(1, 2, 3), "1.2.3"},
        {version(0, 0, 0), "0.0.0"},
        {version(255, 65535, 9), "255.65535."},
        {version(100, 2000, 99), "100.2000.9"},
        {version(10, 2000, 99), "10.2000.99"},
        {version(1, 2, 3, 1), "1.2.3"},
        {version(1, 2, 3, 252), "1.2.3"},
        {version(1, 2, 3, 253), "1.2"},
        {version(255, 65535, 3, 253), "255.65535"},
        {version(1, 2, 3, 254), "1.2.3"},
        {version(1, 2, 3, 255), "Unknown"},
        {version(0, 0, 0, 255), "Unknown"},
    };
    for (const auto &[of, text] : cases)
        for (const std::size_t room : {12U, 32U}) EXPECT_EQ(version_text(of, room), text);
}

TEST(VersionText, IsEmptyInARoomOfLessThan12) {
    for (const std::size_t room : {1U, 11U}) {
        EXPECT_EQ(version_text(version(1, 2, 3), room), "");
        EXPECT_EQ(version_text(version(1, 2, 3, 255), room), "");
    }
    EXPECT_EQ(version_text(version(1, 2, 3), 0), std::nullopt);
}

TEST(VersionText, IsNullInNoRoom) {
    EXPECT_EQ(fpd_version_to_text(version(1, 2, 3), nullptr, 12), nullptr);
}

TEST(VersionPacked, HoldsThePartsInDisjointBitsWhateverTheKind) {
    for (const std::uint8_t kind : {std::uint8_t{0}, std::uint8_t{253}, std::uint8_t{255}})
        EXPECT_EQ(fpd_version_packed(version(1, 2, 3, kind)), 0x01000203U);
    EXPECT_EQ(fpd_version_packed(version(255, 0, 0)), 0xFF000000U);
    EXPECT_EQ(fpd_version_packed(version(0, 65535, 0)), 0x00FFFF00U);
    EXPECT_EQ(fpd_version_packed(version(0, 0, 255)), 0x000000FFU);
}

TEST(DescriptionRecords, BeginAsZeroesWithMagicAndVersion) {
    FpdDescRequest request;
    std::memset(&request, 0xAA, sizeof request);
    fpd_desc_init(request);
    EXPECT_EQ(bytes_of(request), RawRecord(56).put(44, 0xf9dde5c1U).put(48, std::uint8_t{3}).bytes);
    FpdDesc desc;
    std::memset(static_cast<void *>(&desc), 0xAA, sizeof desc);
    fpd_desc_init(desc);
    EXPECT_EQ(bytes_of(desc), RawRecord(576).put(556, 0xf9dde5c1U).put(560, std::uint8_t{3}).bytes);
}

const char *name_of_state(unsigned value) {
    return state_name(static_cast<FpdState>(value));
}

TEST(StateName, IsThatOfEachOfThe19) {
    std::vector<std::string> found;
    for (unsigned value = 1; value <= 19; ++value) found.emplace_back(name_of_state(value));
    EXPECT_THAT(
        found,
        ElementsAre("'FPD Created'", "'FPD INITIALIZED'", "'FPD Capability get Failed'", "'FPD Capability Received'",
                    "'FPD Info get Failed'", "'FPD Info Received'", "'FPD Description Failed'",
                    "'FPD Description Received'", "'FPD Can't be Upgraded'", "'FPD Dependency Failed'",
                    "'FPD Upgrade Available'", "'FPD Dependent Upgrade required'", "'FPD Upgrade not needed'",
                    "'FPD Queued for Upgrade'", "'FPD worker created for Upgrade'", "'FPD Upgrade Started'",
                    "'FPD Upgrade Progressing'", "'FPD Upgrade Failed'", "'FPD Upgrade Done'"));
}

TEST(StateName, ShowsTheNumberOfAnyOtherValue) {
    EXPECT_STREQ(name_of_state(0), "'Unknown state 0'");
    EXPECT_STREQ(name_of_state(20), "'Unknown state 20'");
    EXPECT_STREQ(name_of_state(0x7FFFFFFF), "'Unknown state 2147483647'");
    EXPECT_STREQ(name_of_state(0xFFFFFFFF), "'Unknown state -1'");
    EXPECT_STREQ(name_of_state(0x80000000), "'Unknown state -2147483648'");
}

TEST(StateName, OfAnUnknownValueIsOverwrittenByTheNext) {
    const char *const first = name_of_state(0);
    EXPECT_EQ(name_of_state(20), first);
    EXPECT_STREQ(first, "'Unknown state 20'");
    name_of_state(1);
    EXPECT_STREQ(first, "'Unknown state 20'");
}

TEST(StageName, IsThatOfEachOfThe6AndUnknownForAnyOtherValue) {
    std::vector<std::string> found;
    for (unsigned value = 0; value <= 6; ++value) found.emplace_back(stage_name(static_cast<UpgradeStage>(value)));
    EXPECT_THAT(found, ElementsAre("'Required a Golden Unlocked Primary firmware'", "'firmware can unlock Golden'",
                                   "'Manufacturing firmware'", "'Regular firmware'", "'Dummy Minor verion firmware'",
                                   "'Dummy Major verion firmware'", "'Unknown stage'"));
    EXPECT_STREQ(stage_name(static_cast<UpgradeStage>(0xFFFFFFFF)), "'Unknown stage'");
}

TEST(StageUpgradeType, IsThatOfEachStage) {
    std::vector<std::uint32_t> found;
    for (unsigned value = 0; value <= 5; ++value) found.push_back(stage_upgrade_type(static_cast<UpgradeStage>(value)));
    EXPECT_THAT(found, ElementsAre(1U, 2U, 1U, 0U, 3U, 4U));
}

TEST(UpgradeModes, HaveTheNumbersOfTheStore) {
    EXPECT_EQ(static_cast<int>(UpgradeMode::regular), 0);
    EXPECT_EQ(static_cast<int>(UpgradeMode::manufacturing), 1);
    EXPECT_EQ(static_cast<int>(UpgradeMode::dummy_minor_version), 2);
    EXPECT_EQ(static_cast<int>(UpgradeMode::dummy_major_version), 3);
}

struct Transition : CardTest {
    Transition() {
        std::strcpy(fpd.info.name, "IoFpga");
        interpose::hold_clock({4711, 123'456'789});
    }
    Fpd fpd{};
};

TEST_F(Transition, ChangesTheStateStampsAndLogsItFromAnyStateToAnyOther) {
    for (unsigned from = 0; from <= 20; ++from)
        for (unsigned to = 1; to <= 19; ++to) {
            clear_log();
            fpd.state_time = {};
            fpd.state = static_cast<FpdState>(from);
            transition(fpd, static_cast<FpdState>(to));
            ASSERT_EQ(fpd.state, static_cast<FpdState>(to)) << from;
            ASSERT_EQ(fpd.state_time.tv_sec, 4711);
            ASSERT_EQ(fpd.state_time.tv_nsec, 123'456'789);
            const std::string before = name_of_state(from);
            expect_only_log(state_module, "DEBUG", "UpdateFpdTransitionState",
                            "FPD IoFpga transitioning state from " + before + " to " + name_of_state(to) + " at 4711");
        }
}

TEST_F(Transition, StampsTheTimeThatNoOneSets) {
    interpose::reset();
    timespec before{}, after{};
    clock_gettime(CLOCK_MONOTONIC_RAW, &before);
    transition(fpd, FpdState::created);
    clock_gettime(CLOCK_MONOTONIC_RAW, &after);
    const auto ns = [](const timespec &time) { return time.tv_sec * 1'000'000'000 + time.tv_nsec; };
    EXPECT_LE(ns(before), ns(fpd.state_time));
    EXPECT_LE(ns(fpd.state_time), ns(after));
}

TEST_F(Transition, IsMadeWithoutAClockAndKeepsTheEarlierTime) {
    fpd.state = FpdState::upgrade_started;
    fpd.state_time = {77, 88};
    interpose::fail(Call::clock_gettime, EINVAL);
    transition(fpd, FpdState::upgrade_failed);
    EXPECT_EQ(fpd.state, FpdState::upgrade_failed);
    EXPECT_EQ(fpd.state_time.tv_sec, 77);
    EXPECT_EQ(fpd.state_time.tv_nsec, 88);
    EXPECT_THAT(log_lines(),
                ElementsAre(log_line(state_module, "ERROR", "UpdateFpdTransitionStateTimeFail",
                                     "Updating FPD IoFpga state transition Clock get failed, error Invalid argument"),
                            log_line(state_module, "DEBUG", "UpdateFpdTransitionState",
                                     "FPD IoFpga transitioning state from 'FPD Upgrade Started' to "
                                     "'FPD Upgrade Failed' at 77")));
}

}  // namespace
