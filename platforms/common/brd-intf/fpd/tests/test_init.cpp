#include <cerrno>
#include <cstring>

#include "interpose.h"
#include "run_support.h"

namespace {

using interpose::Call;
using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;

// The context of a run ------------------------------------------------------------------------------------------------

struct ContextInit : CardTest {
    ~ContextInit() override {
        char ignored[16];
        if (card != untouched) context_deinit(&card, ignored, sizeof ignored);
    }

    int init() { return context_init(&card, err_msg, sizeof err_msg); }

    /// Expects the failure everywhere it is to be told, and that the caller's pointer stays.
    void expect_failure(int rc, const char *tag, const std::string &text) {
        EXPECT_EQ(init(), rc);
        EXPECT_EQ(err_msg, text);
        expect_log(init_module, "ERROR", tag, text);
        EXPECT_EQ(card, untouched);
    }

    /// Changes the bootstrap file once the platform's hardware layer has read what it needs.
    static void change_bootstrap(const std::string &text) {
        fake_platform().brd_local_card_group_id_get = [text](std::uint32_t *group_id) {
            *group_id = 3;
            write_file(bootstrap_path, text);
            return 0;
        };
    }

    LocalCard *const untouched = reinterpret_cast<LocalCard *>(&fake_platform());
    LocalCard *card = untouched;
};

TEST_F(ContextInit, ReadsWhatARunKnowsOfItsCard) {
    fake_platform().group_id = 9;
    fake_platform().leds = {{.obj_id = 4, .name = "Fan"}, {.obj_id = 6}};
    write_file(bootstrap_path,
               "PD_CARD_TYPE=12545\nHW_MAJOR_VERSION=2\nHW_MINOR_VERSION=500\nPD_SLOT_NUM=2\n"
               "MY_CARD_PID=CARD-36H\n");
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(card->group_id, 9U);
    EXPECT_EQ(card->led_obj_id, 6U);
    EXPECT_EQ(card->board_type, 12545U);
    EXPECT_EQ(bytes_of(card->hw_version), RawRecord(6).put_version(0, 2, 500, 0).bytes);
    EXPECT_STREQ(err_msg, "");
}

TEST_F(ContextInit, NamesTheQueueOfTheLocalCard) {
    ASSERT_EQ(init(), 0);
    EXPECT_STREQ(card->mq_name, "/auto_fpd_upg_mq_localcard");
}

TEST_F(ContextInit, StartsWithAnEmptyPlanAndTimesOfZero) {
    ASSERT_EQ(init(), 0);
    for (const Fpd *const queue : card->queues.seq_queues) EXPECT_EQ(queue, nullptr);
    EXPECT_EQ(card->queues.fpd_queue, nullptr);
    EXPECT_EQ(card->planned_count, 0U);
    EXPECT_EQ(bytes_of(card->last_check_time), std::string(sizeof(timespec), '\0'));
    EXPECT_EQ(bytes_of(card->last_punch_time), std::string(sizeof(timespec), '\0'));
    EXPECT_EQ(card->retired_workers, nullptr);
}

TEST_F(ContextInit, StartsTheHardwareLayerBeforeItAsksForTheGroupAndTheLed) {
    ASSERT_EQ(init(), 0);
    std::vector<std::string> functions;
    for (const FakeCall &call : fake_platform().calls())
        if (!call.function.starts_with("brd_group_led_init")) functions.push_back(call.function);
    EXPECT_THAT(functions, ElementsAre("brd_fru_hw_data_init", "brd_fru_hw_init", "brd_local_card_group_id_get",
                                       "brd_group_led_num_leds_get", "brd_group_led_obj_id_list_get",
                                       "brd_led_type_get", "brd_led_name_get"));
}

TEST_F(ContextInit, HandsTheIdentityToTheHardwareLayerByteForByte) {
    write_file(bootstrap_path,
               "PD_CARD_TYPE=16896\nHW_MAJOR_VERSION=70000\nHW_MINOR_VERSION=3\nPD_SLOT_NUM=11\n"
               "MY_CARD_PID=CARD-36H\n");
    init();
    const RawRecord expected = RawRecord(104)
                                   .put(0, std::uint32_t{4})
                                   .put(4, std::uint32_t{70000})
                                   .put(8, std::uint32_t{3})
                                   .put(12, std::uint32_t{11})
                                   .put_text(16, "CARD-36H")
                                   .put(80, std::uint32_t{0x4200})
                                   .put(96, std::uint8_t{1});
    ASSERT_THAT(fake_platform().hardware_data(), SizeIs(1));
    EXPECT_EQ(bytes_of(fake_platform().hardware_data()[0]), expected.bytes);
    EXPECT_THAT(fake_platform().calls_of("brd_fru_hw_init"), ElementsAre(FakeCall{"brd_fru_hw_init", "7"}));
}

TEST_F(ContextInit, FailsWithoutMemory) {
    interpose::fail(Call::calloc, ENOMEM);
    expect_failure(-12, "InitLocalCardMallocFail", "Initialize local card calloc() failed Cannot allocate memory");
    EXPECT_THAT(fake_platform().calls(), IsEmpty());
}

TEST_F(ContextInit, FailsWithoutAnyPartOfTheCard) {
    const struct {
        void (*arrange)();
        const char *tag;
        const char *text;
    } cases[] = {
        {[] { fake_platform().brd_fru_hw_init = [](auto) { return 5; }; }, "InitLocalCardBrdIntfInitFail",
         "BRD init failed rc -38"},
        {[] { write_file(bootstrap_path, "HW_MAJOR_VERSION=1\n"); }, "InitLocalCardBrdIntfInitFail",
         "BRD init failed rc -2"},
        {[] { fake_platform().brd_local_card_group_id_get = [](auto) { return 0x501; }; },
         "InitLocalCardGetBrdGrpIdFail", "Local Card BRD group get get failed 1281"},
        {[] { change_bootstrap("HW_MAJOR_VERSION=1\nHW_MINOR_VERSION=0\n"); }, "InitLocalCardPlatBoardTypeFail",
         "Local Card Platform HW board type get failed -2"},
        {[] { change_bootstrap("PD_CARD_TYPE=12544\nHW_MAJOR_VERSION=1\nHW_MINOR_VERSION=A\n"); },
         "InitLocalCardPlatHwVerFail", "Local Card Platform card HW version get failed -22"},
        {[] { change_bootstrap("PD_CARD_TYPE=12544\nHW_MAJOR_VERSION=256\nHW_MINOR_VERSION=65535\n"); },
         "InitLocalCardHWVerMakeFail", "Local Card Failed to make fpd_version for HW major 0x100 minor oxffff"},
        {[] { change_bootstrap("PD_CARD_TYPE=12544\nHW_MAJOR_VERSION=255\nHW_MINOR_VERSION=65536\n"); },
         "InitLocalCardHWVerMakeFail", "Local Card Failed to make fpd_version for HW major 0xff minor ox10000"},
        {[] { fake_platform().leds.clear(); }, "InitLocalCardGetLedBrdObjIdFail",
         "Local Card BRD group get get failed 0"},  // the group's words
    };
    for (const auto &[arrange, tag, text] : cases) {
        clear_log();
        fake_platform().reset();
        write_file(bootstrap_path, default_bootstrap_text());
        arrange();
        expect_failure(-13, tag, text);
        EXPECT_EQ(fake_platform().calls_of("brd_local_card_group_id_get").empty(),
                  std::string_view(tag) == "InitLocalCardBrdIntfInitFail");
    }
}

TEST_F(ContextInit, IsUndoneByDeinit) {
    ASSERT_EQ(init(), 0);
    std::strcpy(err_msg, "left by an earlier call");
    EXPECT_EQ(context_deinit(&card, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(card, nullptr);
    EXPECT_STREQ(err_msg, "");
    card = untouched;
}

struct FreeQueues : RunTest {};

TEST_F(FreeQueues, LeavesEveryQueueEmptyAndNothingPlanned) {
    discover("Known", FpdState::upgrade_not_needed);
    discover("AlsoKnown", FpdState::upgrade_not_needed);
    plan("First", 0);
    plan("AlsoFirst", 0);
    plan("Last", 15);
    EXPECT_EQ(free_queues(card), 0);
    EXPECT_EQ(card.queues.fpd_queue, nullptr);
    for (const Fpd *const queue : card.queues.seq_queues) EXPECT_EQ(queue, nullptr);
    EXPECT_EQ(card.planned_count, 0U);
}

TEST_F(FreeQueues, HasNothingToDoOnEmptyQueues) {
    EXPECT_EQ(free_queues(card), 0);
    EXPECT_EQ(free_queues(card), 0);
}

// Names of regions ----------------------------------------------------------------------------------------------------

struct FpdName : CardTest {
    int get(std::uint8_t region) { return get_fpd_name(3, 1, region, name, sizeof name, err_msg, sizeof err_msg); }

    char name[64] = "untouched";
};

TEST_F(FpdName, IsThatOfTheRegion) {
    fake_platform().fpds = {make_fpd(1, {"Primary", "Golden", "Config"})};
    expect_result(get(2), 0);
    EXPECT_STREQ(name, "Config");
}

TEST_F(FpdName, FailsWithTheCodeOfWhatItAsksFor) {
    const struct {
        void (*arrange)();
        std::uint8_t region;
        int rc;
        const char *tag;
        const char *text;
        std::size_t lists;  // of regions that are asked for
    } cases[] = {
        {[] { fake_platform().brd_fpd_num_regions_get = [](auto...) { return 0x77; }; }, 0, 0x77,
         "FpdNamgeGetNumRegionFail", "BRD GET FPD num of region failed rc 119", 0},
        {[] { fake_platform().brd_fpd_num_regions_get = [](auto...) { return 0; }; }, 0, -22, "FpdNameInvalidRegion",
         "Invalid region 0 num_regions 0", 0},  // none told of
        {[] {}, 1, -22, "FpdNameInvalidRegion", "Invalid region 1 num_regions 1", 0},
        {[] { interpose::fail(Call::calloc, ENOMEM); }, 0, -12, "FpdNameGetMallocFail", "Memory alloc failed", 0},
        {[] { fake_platform().brd_fpd_regions_get = [](auto...) { return -7; }; }, 0, -7, "FpdNameGetRegionsFail",
         "BRD GET FPD Region failed rc -7", 1},
    };
    for (const auto &[arrange, region, rc, tag, text, lists] : cases) {
        clear_log();
        fake_platform().reset();
        arrange();
        expect_logged(get(region), rc, init_module, tag, text);
        EXPECT_STREQ(name, "untouched");
        EXPECT_THAT(fake_platform().calls_of("brd_fpd_regions_get"), SizeIs(lists));
    }
}

TEST_F(FpdName, AsksForAllRegionsInZeroedRecordsOf104Bytes) {
    fake_platform().fpds = {make_fpd(1, {"Primary", "Golden"})};
    std::string asked;
    fake_platform().brd_fpd_regions_get = [&asked](auto, auto, BrdFpdRegion *regions, std::uint8_t count) {
        char *const bytes = reinterpret_cast<char *>(regions);
        asked.assign(bytes, std::size_t{count} * 104);
        std::memcpy(bytes + 104 + 1, "AtByteOne", sizeof "AtByteOne");
        return 0;
    };
    EXPECT_EQ(get(1), 0);
    EXPECT_EQ(asked, std::string(208, '\0'));
    EXPECT_STREQ(name, "AtByteOne");
}

TEST_F(FpdName, IsCutToTheCallersRoom) {
    const std::string long_name(80, 'n');
    fake_platform().fpds = {make_fpd(1, {long_name})};
    EXPECT_EQ(get(0), 0);
    EXPECT_EQ(name, long_name.substr(0, 63));
    char small[4];
    EXPECT_EQ(get_fpd_name(3, 1, 0, small, sizeof small, err_msg, sizeof err_msg), 0);
    EXPECT_STREQ(small, "nnn");
}

TEST_F(FpdName, EndsWithItsRecordWhenTheLibraryDoesNotEndIt) {
    fake_platform().brd_fpd_regions_get = [](std::uint32_t, std::uint32_t, BrdFpdRegion *regions, std::uint8_t) {
        std::memset(regions->name, 'n', sizeof regions->name);
        return 0;
    };
    char large[300];
    EXPECT_EQ(get_fpd_name(3, 1, 0, large, sizeof large, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(large, std::string(102, 'n'));
}

// The information block -----------------------------------------------------------------------------------------------

struct FpdInfo : CardTest {
    FpdInfo() {
        fpd.obj_id = 1;
        std::strcpy(fpd.info.name, "IoFpga");
    }

    int get() { return fpd_info_get(3, fpd, err_msg, sizeof err_msg); }
    BrdFpdInfo &answer() { return fake_platform().fpds[0].regions[0].info; }

    Fpd fpd{};
};

TEST_F(FpdInfo, MakesBothVersionsAndTheirTexts) {
    answer().running_major = 1;
    answer().running_minor = 65535;
    answer().running_debug = 255;
    answer().programmed_major = 255;
    answer().programmed_minor = 7;
    answer().programmed_debug = 0;
    ASSERT_EQ(get(), 0);
    EXPECT_EQ(bytes_of(fpd.running_version), RawRecord(6).put_version(0, 1, 65535, 255).bytes);
    EXPECT_STREQ(fpd.running_text, "1.65535.25");  // at most 10 characters
    EXPECT_EQ(bytes_of(fpd.programmed_version), RawRecord(6).put_version(0, 255, 7, 0).bytes);
    EXPECT_STREQ(fpd.programmed_text, "255.7.0");
    EXPECT_STREQ(err_msg, "");
}

TEST_F(FpdInfo, FailsAsThePlatformDoesAndShowsNoEarlierTextWhenItGivesNone) {
    for (const char *const why : {"bus timeout", ""}) {
        clear_log();
        fake_platform().brd_fpd_info_get = [why](auto, auto, auto, BrdFpdInfo *, char *text, std::size_t size) {
            if (*why) std::snprintf(text, size, "%s", why);
            return 4;
        };
        std::strcpy(err_msg, "left by an earlier call");
        expect_result(get(), -13, why);
        expect_log(init_module, "ERROR", "FpdInfoGetBrdFail", std::string("Failed to get FPD info, error ") + why);
        EXPECT_STREQ(fpd.info.name, "IoFpga");
    }
}

TEST_F(FpdInfo, FailsForAVersionOutOfRangeAndKeepsTheProgrammedOneBeforeIt) {
    answer().programmed_major = 256;
    answer().programmed_minor = 2;
    answer().programmed_debug = 3;
    expect_logged(get(), -13, init_module, "InfoGetMakeFpdVerFail",
                  "Failed to make FPD Programmed version for name IoFpga major 0x100 minor 0x2 debug 0x3");
    EXPECT_STREQ(fpd.programmed_text, "");
    answer().programmed_major = 9;
    answer().running_major = 1;
    answer().running_minor = 0xffff;
    answer().running_debug = 0x1ff;
    clear_log();
    expect_logged(get(), -13, init_module, "InfoGetMakeFpdRunVerFail",
                  "Failed to make FPD Running version for name IoFpga major 0x1 minor 0xffff debug 0x1ff");
    EXPECT_STREQ(fpd.programmed_text, "9.2.3");
    EXPECT_STREQ(fpd.running_text, "");
}

TEST_F(FpdInfo, EndsANameThatTheLibraryDoesNotEnd) {
    std::memset(answer().name, 'n', sizeof answer().name);
    ASSERT_EQ(get(), 0);
    EXPECT_EQ(fpd.info.name, std::string(63, 'n'));
}

TEST_F(FpdInfo, IsAskedForInABlockThatHoldsTheNameAndZeroesElse) {
    fpd.region = 2;
    fpd.info.initial_seq = 200;  // of an earlier reading
    std::memset(fpd.info.reserved83, 0x5a, sizeof fpd.info.reserved83);
    std::string asked;
    fake_platform().brd_fpd_info_get = [&asked](auto, auto, auto, BrdFpdInfo *info, auto...) {
        asked = bytes_of(*info);
        return 0;
    };
    ASSERT_EQ(get(), 0);
    EXPECT_EQ(asked, RawRecord(256).put_text(0, "IoFpga").bytes);
    EXPECT_THAT(fake_platform().calls_of("brd_fpd_info_get"), ElementsAre(FakeCall{"brd_fpd_info_get", "3, 1, 2"}));
    EXPECT_STREQ(fpd.info.name, "IoFpga");
}

// Discovery -----------------------------------------------------------------------------------------------------------

struct LoadFpds : RunTest {
    int load(UpgradeStage stage = UpgradeStage::regular, RunLevel run_level = RunLevel::boot) {
        return load_fpds(run_level, stage, card, err_msg, sizeof err_msg);
    }
    FakeRegion &region(unsigned number = 0) { return fake_platform().fpds[0].regions[number]; }
    Fpd &first() { return *card.queues.fpd_queue; }

    /// Loads, and expects the first record to end in this state.
    void expect_state(FpdState state, UpgradeStage stage = UpgradeStage::regular, RunLevel run_level = RunLevel::boot) {
        ASSERT_EQ(load(stage, run_level), 0);
        ASSERT_NE(card.queues.fpd_queue, nullptr);
        EXPECT_EQ(first().state, state) << state_name(first().state);
    }
};

TEST_F(LoadFpds, LoadsNothingWithoutFpdsOrTheirIds) {
    const struct {
        void (*arrange)();
        int rc;
        const char *level;
        const char *tag;
        const char *text;
        std::size_t lists;  // of ids that are asked for
    } cases[] = {
        {[] { fake_platform().fpds.clear(); }, 0, "INFO", "LoadFpdsNoFpds", "No FPDs Defined", 0},
        {[] { fake_platform().brd_group_fpd_num_fpds_get = [](auto...) { return 0; }; }, 0, "INFO", "LoadFpdsNoFpds",
         "No FPDs Defined", 0},  // their number is left out
        {[] { fake_platform().brd_group_fpd_num_fpds_get = [](auto...) { return 6; }; }, -13, "ERROR",
         "LoadFpdsNumFpdsGetFail", "Failed to get No. of FPDs for group id 3", 0},
        {[] { interpose::fail(Call::calloc, ENOMEM); }, -12, "ERROR", "LoadFpdsMemoryNotAvail", "Memory alloc failed",
         0},
        {[] { fake_platform().brd_group_fpd_obj_id_list_get = [](auto...) { return 6; }; }, -13, "ERROR",
         "LoadFpdsBrdObjGetFail", "Failed to get FPD object ids", 1},
    };
    for (const auto &[arrange, rc, level, tag, text, lists] : cases) {
        clear_log();
        fake_platform().reset();
        arrange();
        expect_result(load(), rc, text);
        expect_log(init_module, level, tag, text);
        EXPECT_EQ(card.queues.fpd_queue, nullptr);
        EXPECT_THAT(fake_platform().calls_of("brd_group_fpd_obj_id_list_get"), SizeIs(lists));
    }
}

TEST_F(LoadFpds, MakesOneRecordOfEachRegionNamedByIt) {
    fake_platform().fpds = {make_fpd(8, {"Primary", "Golden", "Config"}), make_fpd(5, {"Cpu"})};
    EXPECT_EQ(load(), 0);
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("Primary", "Golden", "Config", "Cpu"));
    std::vector<std::pair<std::uint32_t, int>> places;
    for (const Fpd *fpd = card.queues.fpd_queue; fpd; fpd = fpd->next) {
        places.emplace_back(fpd->obj_id, fpd->region);
        EXPECT_EQ(fpd->state, FpdState::description_received);
    }
    EXPECT_THAT(places, ElementsAre(std::pair(8U, 0), std::pair(8U, 1), std::pair(8U, 2), std::pair(5U, 0)));
    EXPECT_EQ(card.planned_count, 0U);
}

TEST_F(LoadFpds, EndsWithTheRegionsOfAnFpdThatHas255) {
    std::vector<std::string> all;
    for (int i = 0; i < 255; ++i) all.push_back("Region" + std::to_string(i));
    fake_platform().fpds = {make_fpd(1, all)};
    EXPECT_EQ(load(), 0);
    EXPECT_EQ(names(card.queues.fpd_queue), all);
}

TEST_F(LoadFpds, GoesOnWithTheNextFpdWhenTheRegionsOfOneCannotBeCounted) {
    fake_platform().fpds = {make_fpd(1, {"One"}), make_fpd(2, {"Two"})};
    fake_platform().brd_fpd_num_regions_get = [](std::uint32_t, std::uint32_t obj_id, std::uint8_t *count) {
        *count = 1;
        return obj_id == 1 ? 9 : 0;
    };
    EXPECT_EQ(load(), 0);
    expect_log(init_module, "ERROR", "LoadFpdsBrdNumRegionGetFail",
               "Failed to get No. of Regions for group id 3 fpd obj id 1");
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("Two"));
}

TEST_F(LoadFpds, KeepsTheRecordsMadeBeforeMemoryRanOut) {
    fake_platform().fpds = {make_fpd(1, {"One", "Two", "Three"})};
    interpose::fail(Call::calloc, ENOMEM, 4);  // ids, One, its regions, Two
    EXPECT_EQ(load(), -12);
    EXPECT_STREQ(err_msg, "Memory allocation failed err_msg Cannot allocate memory");
    expect_log(init_module, "ERROR", "InitNewFpdNoMem", std::string("Failed to create new FPD err_msg ") + err_msg);
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("One"));
}

TEST_F(LoadFpds, DropsARegionWithoutAName) {
    fake_platform().fpds = {make_fpd(2, {"One", "Two"})};
    interpose::fail(Call::calloc, ENOMEM, 3);  // ids, One, its regions
    EXPECT_EQ(load(), 0);
    expect_log(init_module, "ERROR", "InitFpdGetNameFail",
               "Failed to get FPD name for group id 3 fpd obj id 2 region 0");
    EXPECT_THAT(log_lines("UpdateFpdTransitionState"),
                testing::Contains(Field(&LogLine::message, testing::HasSubstr("to 'FPD Capability get Failed'"))));
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("Two"));
}

TEST_F(LoadFpds, RefusesEveryKnownNameInASecondLoad) {
    fake_platform().fpds = {make_fpd(1, {"One", "Two"})};
    ASSERT_EQ(load(), 0);
    const Fpd *const one = card.queues.fpd_queue;
    clear_log();
    fake_platform().forget_calls();
    EXPECT_EQ(load(), 0);
    EXPECT_THAT(log_lines("InitFpdAddQFail"),
                ElementsAre(log_line(init_module, "ERROR", "InitFpdAddQFail",
                                     "Failed to add FPD into upg_queue.queue err_msg Duplicate FPD One found"),
                            log_line(init_module, "ERROR", "InitFpdAddQFail",
                                     "Failed to add FPD into upg_queue.queue err_msg Duplicate FPD Two found")));
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("One", "Two"));
    EXPECT_EQ(card.queues.fpd_queue, one);
    EXPECT_THAT(fake_platform().calls_of("get_fpd_capability_info"), IsEmpty());
}

TEST_F(LoadFpds, WalksARecordThroughItsStates) {
    ASSERT_EQ(load(), 0);
    std::vector<std::string> states;
    for (const LogLine &line : log_lines("UpdateFpdTransitionState"))
        states.push_back(line.message.substr(line.message.find(" to '") + 4));
    for (std::string &state : states) state.erase(state.find(" at "));
    EXPECT_THAT(states, ElementsAre("'FPD Created'", "'FPD INITIALIZED'", "'FPD Capability Received'",
                                    "'FPD Info Received'", "'FPD Description Received'"));
}

// Evaluation ----------------------------------------------------------------------------------------------------------

TEST_F(LoadFpds, AsksForTheCapabilitiesOnThisCard) {
    region().capabilities = 0x808;
    ASSERT_EQ(load(), 0);
    EXPECT_THAT(fake_platform().calls_of("get_fpd_capability_info"),
                ElementsAre(FakeCall{"get_fpd_capability_info", "IoFpga, 12544, 0, 1, 0, 0"}));
    EXPECT_EQ(first().capabilities, 0x808U);
    expect_log(init_module, "DEBUG", "InitFpdCapabilities", "FPD IoFpga capabilities 0x808");
}

/// Which FPDs are evaluated, and why not the others.
struct CapabilityCase {
    const char *behaviour;
    unsigned capabilities;
    std::vector<UpgradeStage> stages;
    RunLevel run_level = RunLevel::boot;
    const char *skip_tag = nullptr;  // null: the FPD is evaluated
    const char *skip_text = nullptr;
};

constexpr UpgradeStage needs_golden = UpgradeStage::requires_golden_unlocked_primary;
const std::vector<UpgradeStage> ungilded = {UpgradeStage::manufacturing, UpgradeStage::regular,
                                            UpgradeStage::dummy_minor, UpgradeStage::dummy_major};

const CapabilityCase capability_cases[] = {
    {"SkipsAnFpdThatIsNeverUpgradedAutomatically",
     0x1809,
     {UpgradeStage::regular},
     RunLevel::backend,
     "InitFpdSkipAutoFpdUpgNotSupported",
     "FPD IoFpga Auto upgrade is not supported"},
    {"SaysOnlyTheFirstReasonToSkip",
     0x1,
     {UpgradeStage::can_unlock_golden},
     RunLevel::boot,
     "InitFpdSkipAutoFpdUpgNotSupported",
     "FPD IoFpga Auto upgrade is not supported"},
    {"SkipsAtBootAnFpdThatIsNotForBoot",
     0,
     {UpgradeStage::regular},
     RunLevel::boot,
     "InitFpdSkipAutoFpdUpgNotBootUp",
     "FPD IoFpga Bootup Auto upgrade is not supported"},
    {"EvaluatesByHandAnFpdThatIsNotForBoot", 0, {UpgradeStage::regular}, RunLevel::backend},
    {"SkipsInItsStageAnFpdThatNeedsNoGoldenUnlockedPrimary",
     0x808,
     {needs_golden},
     RunLevel::boot,
     "InitFpdSkipNotAUpgdReqGoldenUnlockPrimary",
     "FPD upgrade stage 'Required a Golden Unlocked Primary firmware' is looking for FPDs that are required Golden "
     "unlock primary and FPD IoFpga is not marked for this stage"},
    {"SkipsInItsStageAnFpdThatCannotUnlockGolden",
     0x1008,
     {UpgradeStage::can_unlock_golden},
     RunLevel::boot,
     "InitFpdSkipNotACanUnlockGolden",
     "FPD upgrade stage 'firmware can unlock Golden' is looking for FPDs that can unlock Golden and FPD IoFpga is not "
     "marked for this"},
    {"EvaluatesAnFpdThatNeedsGoldenUnlocked", 0x1008, {needs_golden}},
    {"EvaluatesAnFpdThatUnlocksGolden", 0x808, {UpgradeStage::can_unlock_golden}},
    {"AsksNoGoldenBitOfOtherStages", 0x8, ungilded},
};

struct EachCapability : LoadFpds, testing::WithParamInterface<CapabilityCase> {};

TEST_P(EachCapability, DecidesWhetherAnFpdIsEvaluated) {
    const CapabilityCase &one = GetParam();
    region().capabilities = one.capabilities;
    for (const UpgradeStage stage : one.stages) {
        expect_state(one.skip_tag ? FpdState::capability_received : FpdState::description_received, stage,
                     one.run_level);
        for (const char *tag : {"InitFpdSkipAutoFpdUpgNotSupported", "InitFpdSkipAutoFpdUpgNotBootUp",
                                "InitFpdSkipNotAUpgdReqGoldenUnlockPrimary", "InitFpdSkipNotACanUnlockGolden"})
            if (!one.skip_tag || std::string_view(tag) != one.skip_tag) expect_no_log(tag);
        if (one.skip_tag) expect_log(init_module, "INFO", one.skip_tag, one.skip_text);
        EXPECT_EQ(fake_platform().calls_of("brd_fpd_info_get").empty(), one.skip_tag != nullptr);
        free_queues(card);
    }
}

INSTANTIATE_TEST_SUITE_P(Evaluation, EachCapability, testing::ValuesIn(capability_cases),
                         [](const auto &instance) { return std::string(instance.param.behaviour); });

TEST_F(LoadFpds, LeavesAnFpdWithoutInformationInItsState) {
    fake_platform().brd_fpd_info_get = [](auto, auto, auto, BrdFpdInfo *info, char *text, std::size_t size) {
        std::memset(info, 0, sizeof *info);  // what a failed call left of it
        std::snprintf(text, size, "bus timeout");
        return 4;
    };
    expect_state(FpdState::info_get_failed);
    expect_log(init_module, "ERROR", "FpdInfoGetBrdFail", "Failed to get FPD info, error bus timeout");
    expect_log(init_module, "ERROR", "InitFpdInfoGetFail", "Failed to get FPD info, error bus timeout");
    EXPECT_STREQ(first().info.name, "IoFpga");
    EXPECT_THAT(fake_platform().calls_of("check_and_get_upgrade_image"), IsEmpty());
}

TEST_F(LoadFpds, TakesTheNameOfTheInformationBlock) {
    std::strcpy(region().info.name, "IoFpgaRevB");
    fake_platform().check_and_get_upgrade_image = [](auto...) { return 0; };
    expect_state(FpdState::description_received);
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("IoFpgaRevB"));
}

TEST_F(LoadFpds, RefusesAnInformationBlockWithTheNameOfAnotherRegion) {
    fake_platform().fpds = {make_fpd(1, {"One", "Two"})};
    std::strcpy(region(1).info.name, "One");
    ASSERT_EQ(load(), 0);
    expect_log(init_module, "ERROR", "InitFpdInfoGetFail", "Failed to get FPD info, error Duplicate FPD One found");
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("One", "Two"));
    EXPECT_EQ(first().state, FpdState::description_received);
    EXPECT_EQ(first().next->state, FpdState::info_get_failed);
}

TEST_F(LoadFpds, KeepsTheNameOfAnFpdWhoseInformationIsRefusedForItsVersionsToo) {
    fake_platform().fpds = {make_fpd(1, {"One", "Two"})};
    std::strcpy(region(1).info.name, "One");
    region(1).info.programmed_major = 256;
    ASSERT_EQ(load(), 0);
    expect_log(init_module, "ERROR", "InitFpdInfoGetFail",
               "Failed to get FPD info, error Failed to make FPD Programmed version for name One major 0x100 minor 0x0 "
               "debug 0x0");
    EXPECT_THAT(names(card.queues.fpd_queue), ElementsAre("One", "Two"));
    EXPECT_EQ(first().next->state, FpdState::info_get_failed);
}

TEST_F(LoadFpds, LeavesAnFpdWithAVersionOutOfRangeInTheSameState) {
    region().info.running_debug = 256;
    expect_state(FpdState::info_get_failed);
    expect_log(init_module, "ERROR", "InitFpdInfoGetFail",
               "Failed to get FPD info, error Failed to make FPD Running version for name IoFpga major 0x1 minor 0x0 "
               "debug 0x100");
}

/// What the description library is asked, per stage.
struct StageCase {
    UpgradeStage stage;
    std::uint32_t upgrade_type;
};

struct DescriptionRequest : LoadFpds, testing::WithParamInterface<StageCase> {};

TEST_P(DescriptionRequest, IsRightByteForByte) {
    card.board_type = 0x42c3;
    card.hw_version = version(2, 0x1234, 0);
    fake_platform().fpds = {make_fpd(1, {"FpdOfTwentyLetters12"})};
    region().capabilities = 0x1808;
    BrdFpdInfo &info = region().info;
    info.running_major = 3;
    info.running_minor = 0xfedc;
    info.running_debug = 5;
    info.programmed_major = 6;
    info.programmed_minor = 7;
    info.programmed_debug = 255;
    info.info_flag = 0xa5;
    std::memset(info.reserved79, 0xee, sizeof info.reserved79);
    std::memset(info.reserved83, 0xee, sizeof info.reserved83);
    expect_state(FpdState::description_received, GetParam().stage);
    const RawRecord expected = RawRecord(56)
                                   .put(0, std::uint32_t{0x42c3})
                                   .put_version(4, 2, 0x1234, 0)
                                   .put_version(10, 6, 7, 255)
                                   .put_version(16, 3, 0xfedc, 5)
                                   .put_text(22, "FpdOfTwentyLette")
                                   .put(39, std::uint8_t{0xa5})
                                   .put(44, std::uint32_t{0xf9dde5c1})
                                   .put(48, std::uint8_t{3})
                                   .put(52, GetParam().upgrade_type);
    ASSERT_THAT(fake_platform().description_requests(), SizeIs(1));
    EXPECT_EQ(bytes_of(fake_platform().description_requests()[0]), expected.bytes);
}

INSTANTIATE_TEST_SUITE_P(OfEveryStage, DescriptionRequest,
                         testing::Values(StageCase{UpgradeStage::requires_golden_unlocked_primary, 1},
                                         StageCase{UpgradeStage::can_unlock_golden, 2},
                                         StageCase{UpgradeStage::manufacturing, 1}, StageCase{UpgradeStage::regular, 0},
                                         StageCase{UpgradeStage::dummy_minor, 3},
                                         StageCase{UpgradeStage::dummy_major, 4}));

TEST_F(LoadFpds, HandsInAResultOfMagicVersionAndZeroes) {
    std::string asked;
    fake_platform().check_and_get_upgrade_image = [&asked](FpdDescRequest *, FpdDesc *result, char *, std::size_t) {
        asked = bytes_of(*result);
        return 0;
    };
    ASSERT_EQ(load(), 0);
    EXPECT_EQ(asked, RawRecord(576).put(556, std::uint32_t{0xf9dde5c1}).put(560, std::uint8_t{3}).bytes);
}

TEST_F(LoadFpds, LeavesAnFpdWithoutAPackagedImageInItsState) {
    fake_platform().check_and_get_upgrade_image = [](FpdDescRequest *, FpdDesc *, char *text, std::size_t size) {
        std::snprintf(text, size, "no such image");
        return 0x101;
    };
    expect_state(FpdState::description_failed);
    expect_log(init_module, "ERROR", "InitFpdDescFail",
               "Does not have a Firmware packaged for FPD IoFpga err_msg no such image");
    EXPECT_THAT(fake_platform().calls_of("brd_intf_fpd_image_md5_validate"), IsEmpty());
}

TEST_F(LoadFpds, HeedsOnlyTheLowBitsOfTheDescriptionsResult) {
    fake_platform().check_and_get_upgrade_image = [](auto...) { return 0x7ff00; };
    expect_state(FpdState::description_received);
}

TEST_F(LoadFpds, ValidatesTheImageInThePackagedDirectory) {
    ASSERT_EQ(load(), 0);
    EXPECT_THAT(fake_platform().calls_of("brd_intf_fpd_image_md5_validate"),
                ElementsAre(FakeCall{"brd_intf_fpd_image_md5_validate",
                                     "/pkg/fpd/ucode, IoFpga.bin, 0123456789abcdef0123456789abcdef"}));
    expect_log(init_module, "INFO", "InitMd5CalInfo",
               "FPD: IoFpga Dir: /pkg/fpd/ucode Image: IoFpga.bin MD5: 0123456789abcdef0123456789abcdef");
}

TEST_F(LoadFpds, LeavesAnFpdWithAWrongSumInItsStateSoThatItIsNeverPlanned) {
    fake_platform().image_md5_validate = [](const char *, const char *, const char *, char *text, std::size_t size) {
        std::snprintf(text, size, "sums differ");
        return 1;
    };
    expect_state(FpdState::description_failed);
    expect_log(init_module, "ERROR", "InitFpdMd5SumFailed", "md5 checksum validation failed, sums differ");
    ASSERT_EQ(build_upgrade_queue(UpgradeStage::regular, card, err_msg, sizeof err_msg), 0);
    EXPECT_EQ(card.planned_count, 0U);
    EXPECT_EQ(first().state, FpdState::description_failed);
}

TEST_F(LoadFpds, TellsTheVerdict) {
    region().info.running_minor = 4;
    region().info.programmed_minor = 5;
    region().desc.need_upgrade = 2;
    region().desc.packaged_version = version(7, 8, 9, FPD_VERSION_NO_DEBUG);
    region().desc.status_msg = "too old";
    ASSERT_EQ(load(), 0);
    expect_log(init_module, "INFO", "InitFpdVerion",
               "FPD IoFpga run version 1.4.0 program verson 1.5.0 packaged version 7.8 need_upgrade 2 status_msg "
               "too old");
    EXPECT_STREQ(first().packaged_text, "7.8");
}

TEST_F(LoadFpds, TellsAVerdictWithoutWords) {
    region().desc.status_msg = nullptr;
    expect_state(FpdState::description_received);
    expect_log(init_module, "INFO", "InitFpdVerion",
               "FPD IoFpga run version 1.0.0 program verson 1.0.0 packaged version 2.0.0 need_upgrade 1 status_msg ");
}

TEST_F(LoadFpds, EndsTextsThatTheDescriptionLibraryDoesNotEnd) {
    fake_platform().check_and_get_upgrade_image = [](FpdDescRequest *, FpdDesc *result, char *, std::size_t) {
        std::memset(result->dependency, 'd', sizeof result->dependency);
        std::memset(result->image, 'i', sizeof result->image);
        std::memset(result->md5, 'm', sizeof result->md5);
        result->need_upgrade = 'n';
        return 0;
    };
    ASSERT_EQ(load(), 0);
    EXPECT_EQ(first().desc.dependency, std::string(16, 'd'));
    EXPECT_EQ(first().desc.image, std::string(254, 'i'));
    EXPECT_EQ(first().desc.md5, std::string(254, 'm'));
    EXPECT_EQ(first().desc.need_upgrade, 'n');
}

TEST_F(LoadFpds, GoesOnBehindAnFpdThatFails) {
    fake_platform().fpds = {make_fpd(1, {"Bad", "Good"})};
    region(0).info.programmed_major = 999;
    EXPECT_EQ(load(), 0);
    EXPECT_EQ(first().state, FpdState::info_get_failed);
    EXPECT_EQ(first().next->state, FpdState::description_received);
}

// An FPD's information read again -------------------------------------------------------------------------------------

struct InfoRefresh : RunTest {};

TEST_F(InfoRefresh, KeepsTheNameOfAnFpdThatTurnsIntoAPlannedOneAndTakesOneThatNobodyHas) {
    Fpd &fpd = plan("IoFpga");
    plan("Bios", 3);
    std::string name = "Bios";
    fake_platform().brd_fpd_info_get = [&name](auto, auto, auto, BrdFpdInfo *info, auto...) {
        *info = make_region(name).info;
        return 0;
    };
    expect_result(fpd_info_refresh(card, fpd, err_msg, sizeof err_msg), -17, "Duplicate FPD Bios found");
    EXPECT_STREQ(fpd.info.name, "IoFpga");
    name = "NewName";
    EXPECT_EQ(fpd_info_refresh(card, fpd, err_msg, sizeof err_msg), 0);
    EXPECT_STREQ(fpd.info.name, "NewName");
}

TEST_F(LoadFpds, LoadsNothingOfAnFpdWhoseRegionsAreNotCounted) {
    fake_platform().brd_fpd_num_regions_get = [](auto...) { return 0; };
    expect_result(load(), 0);
    EXPECT_EQ(card.queues.fpd_queue, nullptr);
    EXPECT_THAT(fake_platform().calls_of("brd_fpd_regions_get"), IsEmpty());
}

}  // namespace
