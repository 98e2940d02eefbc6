/// The order of things: every call of the closed libraries, every script and every line of both logs, thread by thread,
/// against the sequence that is written down in order/, a file for each run. order/README.md tells how to read and to
/// change them.

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <stdexcept>

#include "card_test.h"
#include "comparison_record.h"
#include "order_text.h"
#include "order_trace.h"

namespace fs = std::filesystem;
using namespace card_tests;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const std::string mounted = "[obfl]\nmounted = true\n";

/// The tightest limit, 3 s for a worker to begin, is looked at every 250 ms.
constexpr unsigned fast = 20;
/// Where a limit of 180 s is waited for.
constexpr unsigned faster = 40;

class Order : public CardTest {
  protected:
    /// Runs the tool on the described card and compares what it did with order/NAME.txt.
    void expect_order(const std::string &name, const std::vector<std::string> &arguments, unsigned speed = fast) {
        begin_trace();
        compare(name, tool(arguments, speed));
    }

    /// All records of the card, and its event log on flash, get one file; it begins empty.
    void begin_trace(const std::string &event_log = "flash/fpd_local_log_1.txt") {
        if (!fs::exists(state_)) shell("true");
        names_ = {"calls.log", "scripts.log", "log/fpd.log", event_log};
        fs::remove(trace());
        write_file(trace(), "");
        for (const std::string &name : names_) {
            fs::remove(state_ / name);
            fs::create_hard_link(trace(), state_ / name);
        }
    }

    void compare(const std::string &name, const Result &result) {
        for (const std::string &file : names_) ASSERT_TRUE(fs::equivalent(state_ / file, trace())) << file;
        const std::vector<Step> steps = read_trace(trace());
        EXPECT_THAT(broken_causes(steps), IsEmpty());
        const std::string text = threads_text(promised_order(steps)) + end_text(result);
        const fs::path file = fs::path(ORDER_TEXTS) / (name + ".txt");
        const std::vector<OrderEntry> order = read_order(file);
        if (std::getenv("ORDER_UPDATE") != nullptr) {
            write_file(file, updated_order(order, text));
        } else {
            if (text == compared_text(order)) put_on_record(result);
            EXPECT_EQ(text, compared_text(order)) << "if this is right: ORDER_UPDATE=1, see order/README.md";
        }
    }

  private:
    fs::path trace() const { return root_ / "trace"; }
    /// For the message catalogue: they were compared whole.
    static void put_on_record(const Result &result) {
        if (!catalogue::recording()) return;
        catalogue::record({"stdout", result.out});
        catalogue::record({"stderr", result.err});
    }
    static std::string end_text(const Result &result) {
        std::string text = "== exit status " + std::to_string(result.status) + "\n";
        static const std::regex duration(" after [0-9.]+ s\n");
        const std::string out = std::regex_replace(result.out, duration, " after <seconds>\n");
        if (!out.empty()) text += "== standard output\n" + out;
        if (!result.err.empty()) text += "== standard error\n" + result.err;
        return text;
    }

    std::vector<std::string> names_;
};

/// An image for another type of upgrade than the regular one.
std::string other_image(const std::string &name, int type, const std::string &version) {
    return "[[fpd.region.image]]\ntype = " + std::to_string(type) + "\nversion = \"" + version +
           "\"\nsize = 4096\nfile = \"type" + std::to_string(type) + "-" + image_of(name) + "\"\n";
}

/// Takes hardly longer than the loop's sleep, with two reports, and needs no reload.
Region quick_region(const std::string &name) {
    return {.name = name, .keys = "reports = 2\n" + duration(0.5)};
}

/// A card with one region to upgrade.
Card card_of_one(const std::string &tables = {}) {
    return {.tables = mounted + tables, .fpds = fpd(10, {quick_region("IoFpga")})};
}

// ---- configuration commands

TEST_F(Order, GetConfig) {
    describe(card_of_one());
    expect_order("get_config", {"-c", "get_config"});
}

TEST_F(Order, SetConfigThatWasNeitherOnNorOff) {
    describe({.keys = "auto_upgrade = 2"});
    expect_order("set_config", {"-b", "-c", "set_config=enable"});
}

TEST_F(Order, ConfigurationThatCannotBeRead) {
    describe({.tables = call_fault("brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config", 5, "text = \"no store\"")});
    expect_order("config_unreadable", {"-c", "upgrade"});
}

TEST_F(Order, GetUpgradeMode) {
    describe(card_of_one());
    expect_order("get_upgrade_mode", {"-c", "get_upgrade_mode"});
}

TEST_F(Order, SetUpgradeMode) {
    describe(card_of_one());
    expect_order("set_upgrade_mode", {"-b", "-c", "set_upgrade_mode=mfg"});
}

TEST_F(Order, CardCommandOfADisabledCard) {
    describe({.keys = "auto_upgrade = 0", .fpds = fpd(10, {quick_region("IoFpga")})});
    expect_order("disabled", {"-c", "check_upgrade"});
}

// ---- planning

TEST_F(Order, CheckWithNothingPlanned) {
    describe({.fpds = fpd(10, {{.name = "IoFpga", .running = "1.1.0"}})});
    expect_order("check_nothing", {"-c", "check_upgrade"});
}

TEST_F(Order, CheckWithSomethingPlanned) {
    describe(card_of_one());
    expect_order("check_something", {"-b", "-c", "check_upgrade"});
}

TEST_F(Order, ListWithNothingPlanned) {
    describe({.fpds = fpd(10, {{.name = "IoFpga", .image_keys = "need_upgrade = false"}})});
    expect_order("list_nothing", {"-b", "-c", "list_upgrade"});
}

/// Every fork of the road: skipped, refused, waiting for a dependency, pulled in by a dependent.
TEST_F(Order, ListWithSomethingPlanned) {
    describe({.fpds = fpd(10, {{.name = "Never", .keys = "capabilities = 0x9"},
                               {.name = "NotAtBoot", .keys = "capabilities = 0x0"},
                               {.name = "NoImage", .packaged = ""},
                               {.name = "BadSum", .image_keys = "md5 = \"00\""},
                               {.name = "TooLarge", .running = "1.0.300"}}) +
                      fpd(11, {{.name = "TooOld", .image_keys = "minimum = \"1.0.1\""},
                               {.name = "Fixed", .keys = "upgrade_type = 2"},
                               {.name = "MfgOnly", .keys = "upgrade_type = 5"},
                               {.name = "Lost", .image_keys = depends_on("Nobody")},
                               {.name = "Self", .image_keys = depends_on("Self")},
                               {.name = "Upon", .image_keys = depends_on("BadSum")}}) +
                      fpd(12, {{.name = "Top", .image_keys = depends_on("Base")},
                               {.name = "Base", .keys = "sequence = 2"},
                               {.name = "Pulling", .image_keys = depends_on("Pulled")},
                               {.name = "Pulled", .image_keys = "need_upgrade = false"}})});
    expect_order("list_something", {"-c", "list_upgrade"});
}

TEST_F(Order, ACardWithoutFpds) {
    describe({.fpds = ""});
    expect_order("no_fpds", {"-b", "-c", "upgrade"});
}

TEST_F(Order, ManufacturingWithNothingToUnlock) {
    describe({.keys = "upgrade_mode = \"mfg\"",
              .fpds = fpd(10, {{.name = "IoFpga", .tables = other_image("IoFpga", 1, "2.0.0")},
                               {.name = "Bios", .tables = other_image("Bios", 1, "2.0.0")}})});
    expect_order("mfg_nothing_to_unlock", {"-b", "-c", "upgrade"});
}

/// The plan of the first stage is given up for that of the second.
TEST_F(Order, ManufacturingThatUnlocks) {
    describe({.keys = "upgrade_mode = \"mfg\"",
              .tables = mounted,
              .fpds = fpd(
                  10, {{.name = "IoFpga",
                        .keys = "capabilities = 0x808",
                        .tables = other_image("IoFpga", 1, "2.0.0") + other_image("IoFpga", 2, "0.5.0")},
                       {.name = "Bios", .keys = "capabilities = 0x1008", .tables = other_image("Bios", 1, "2.0.0")}})});
    expect_order("mfg_unlocks", {"-c", "list_upgrade"});
}

TEST_F(Order, ManufacturingWhenNothingCanUnlock) {
    describe({.keys = "upgrade_mode = \"mfg\"",
              .fpds = fpd(
                  10, {{.name = "Bios", .keys = "capabilities = 0x1008", .tables = other_image("Bios", 1, "2.0.0")},
                       {.name = "Golden", .keys = "upgrade_type = 5", .tables = other_image("Golden", 1, "2.0.0")}})});
    expect_order("mfg_stage_2", {"-b", "-c", "list_upgrade"});
}

// ---- upgrade runs

TEST_F(Order, ABootWithNothingToDo) {
    describe({.fpds = fpd(10, {{.name = "IoFpga", .running = "1.1.0"}})});
    expect_order("boot_nothing", {"-c", "upgrade"});
}

/// Two regions in two sequence queues, and the boot after it.
TEST_F(Order, ABootThatReloadsAndTheNext) {
    const auto region = [](const std::string &name, const std::string &image_keys) {
        return Region{.name = name, .keys = "activation = 5\nreports = 2\n" + duration(0.5), .image_keys = image_keys};
    };
    describe({.tables = mounted, .fpds = fpd(10, {region("Bios", depends_on("IoFpga")), region("IoFpga", "")})});
    begin_trace();
    compare("boot_reloads", boot(fast, {"--max-boots", "1"}));
    begin_trace();
    compare("boot_after_reload", boot(fast, {"--max-boots", "1"}));
}

/// Bios is through long before IoFpga is, which stands in front of it.
TEST_F(Order, RegionsSideBySide) {
    describe({.tables = mounted,
              .fpds = fpd(10, {{.name = "IoFpga", .keys = "reports = 1\n" + duration(15)}, quick_region("Bios")})});
    expect_order("side_by_side", {"-b", "-c", "upgrade"});
}

/// A marker of another plan does not stop the run.
TEST_F(Order, ARunByHandBehindAnotherMarker) {
    describe(card_of_one());
    begin_trace();
    write_file(marker_file(), marker_line("Bios", "1.1.0"));
    compare("by_hand", tool({"-b", "-c", "upgrade"}, fast));
}

TEST_F(Order, ARunThatTheMarkerStops) {
    describe(card_of_one());
    begin_trace();
    write_file(marker_file(), marker_line("IoFpga", "1.1.0"));
    compare("same_marker", tool({"-c", "upgrade"}, fast));
}

TEST_F(Order, AMarkerThatCannotBeRead) {
    describe(card_of_one());
    begin_trace();
    compare("marker_unreadable", shell("ln -s bootup_fpd_marker.txt /misc/scratch/bootup_fpd_marker.txt; "
                                       "exec bootup_fpd -b -c upgrade",
                                       fast));
}

TEST_F(Order, AFailureAndItsRetry) {
    describe({.tables = mounted,
              .fpds = fpd(10, {{.name = "IoFpga",
                                .keys = "reports = 2\n" + duration(0.5),
                                .tables = region_fault("fail", "attempt = 1\nat = 50\ncode = 5\ntext = \"worn\"")}})});
    expect_order("fails_once", {"-b", "-c", "upgrade"});
}

/// What depends on it is given up with it, and nothing is activated.
TEST_F(Order, AFailureForGood) {
    describe({.tables = mounted,
              .fpds = fpd(10, {{.name = "IoFpga",
                                .keys = "activation = 5\nreports = 2\n" + duration(0.5),
                                .tables = region_fault("fail", "code = 5\ntext = \"worn\"")},
                               {.name = "Bios", .keys = "activation = 5", .image_keys = depends_on("IoFpga")}})});
    expect_order("fails_for_good", {"-c", "upgrade"});
}

/// The first attempt never reports, for 60 s; its retry falls silent half-way, for 180 s.
TEST_F(Order, AHangAndItsRetryThatHangsToo) {
    describe({.tables = mounted,
              .fpds = fpd(10, {{.name = "IoFpga",
                                .keys = "reports = 2\n" + duration(0.5),
                                .tables = region_fault("hang", "attempt = 1") +
                                          region_fault("hang", "attempt = 2\nat = 50")}})});
    expect_order("hangs", {"-b", "-c", "upgrade"}, faster);
}

TEST_F(Order, InformationThatCannotBeReadAgain) {
    describe(card_of_one(call_fault("brd_fpd_info_get", 5, "nth = 2\ntext = \"bus\"")));
    expect_order("info_unreadable", {"-b", "-c", "upgrade"});
}

// ---- steps that fail on the way to a plan

TEST_F(Order, NoKeyFile) {
    describe(card_of_one());
    begin_trace();
    compare("context_no_key_file", shell("rm /dev/kd_bootstrap; exec bootup_fpd -c upgrade"));
}

struct MissingKey {
    const char *name;
    const char *keys;  // of the file
};

TEST_F(Order, AKeyFileThatLacksAKey) {
    for (const MissingKey &missing :
         {MissingKey{"context_no_card_type", "HW_MAJOR_VERSION=1"},
          {"context_no_hw_minor", "PD_CARD_TYPE=12560\\nHW_MAJOR_VERSION=1"},
          {"context_no_slot", "PD_CARD_TYPE=12560\\nHW_MAJOR_VERSION=1\\nHW_MINOR_VERSION=2"},
          {"context_no_pid", "PD_CARD_TYPE=12560\\nHW_MAJOR_VERSION=1\\nHW_MINOR_VERSION=2\\nPD_SLOT_NUM=4"}}) {
        describe({.keys = std::string("bootstrap = \"") + missing.keys + "\\n\""});
        expect_order(missing.name, {"-b", "-c", "upgrade"});
    }
}

struct FailingCall {
    const char *name;
    const char *function;
    const char *keys = "";
};

TEST_F(Order, ACallThatFailsOnTheWayToAPlan) {
    for (const FailingCall &failing : {
             FailingCall{"context_hw_data_init_fails", "brd_fru_hw_data_init"},
             {"context_hw_init_fails", "brd_fru_hw_init"},
             {"context_group_id_fails", "brd_local_card_group_id_get"},
             {"context_led_count_fails", "brd_group_led_num_leds_get"},
             {"context_led_list_fails", "brd_group_led_obj_id_list_get"},
             {"context_led_type_fails", "brd_led_type_get"},
             {"context_led_name_fails", "brd_led_name_get"},
             {"interface_mode_fails", "brd_intf_fpd_upgrade_cookie_get_upgrade_mode", "text = \"no store\""},
             {"interface_fpd_count_fails", "brd_group_fpd_num_fpds_get"},
             {"interface_fpd_list_fails", "brd_group_fpd_obj_id_list_get"},
         }) {
        describe(card_of_one(call_fault(failing.function, 5, failing.keys)));
        expect_order(failing.name, {"-b", "-c", "upgrade"});
    }
}

TEST_F(Order, AHardwareVersionThatIsTooLarge) {
    std::string text = card_text(card_of_one());
    text.replace(text.find("[1, 2]"), 6, "[1, 65536]");
    describe_text(text);
    expect_order("context_hw_version_too_large", {"-b", "-c", "upgrade"});
}

TEST_F(Order, NoStatusLed) {
    describe({.leds = ""});
    expect_order("context_no_status_led", {"-b", "-c", "upgrade"});
}

TEST_F(Order, AnLedGroupThatIsNotReady) {
    describe({.tables = call_fault("brd_group_led_init", 5)});
    expect_order("led_group_not_ready", {"-b", "-c", "check_upgrade"});
}

TEST_F(Order, NoMessageQueue) {
    describe(card_of_one());
    begin_trace();
    compare("interface_no_queue", shell("echo 10 >/proc/sys/fs/mqueue/msg_max && exec bootup_fpd -b -c upgrade"));
}

TEST_F(Order, AnUnknownMode) {
    describe({.keys = "upgrade_mode = 7"});
    expect_order("interface_unknown_mode", {"-b", "-c", "upgrade"});
}

TEST_F(Order, AMarkerWithoutRoom) {
    describe({.fpds = fpd(10, {quick_region("IoFpga"), {.name = "Abcdefghijklmnopqrstuvwxyz"}})});
    expect_order("interface_no_room_in_marker", {"-b", "-c", "upgrade"});
}

TEST_F(Order, ObjectsAndRegionsThatCannotBeRead) {
    describe(
        {.tables = call_fault("brd_fpd_num_regions_get", 5, "nth = 1") +
                   call_fault("brd_fpd_num_regions_get", 6, "nth = 3") +
                   call_fault("brd_fpd_regions_get", 7, "nth = 1") +
                   call_fault("brd_fpd_info_get", 8, "nth = 1\ntext = \"bus\""),
         .fpds = fpd(10, {{.name = "Object"}}) + fpd(11, {{.name = "Count"}, {.name = "Name"}, {.name = "Info"}})});
    expect_order("regions_unreadable", {"-b", "-c", "check_upgrade"});
}

// ---- LED and scripts that fail during a run

TEST_F(Order, ALedThatFailsDuringTheRun) {
    for (const FailingCall &failing : {FailingCall{"led_start_fails", "brd_led_state_and_color_set", "nth = 1"},
                                       {"led_end_fails", "brd_led_state_and_color_set", "nth = 2"},
                                       {"led_color_unreadable", "brd_led_current_color_get"},
                                       {"led_state_unreadable", "brd_led_current_state_get"}}) {
        fs::remove_all(state_);
        describe(card_of_one(call_fault(failing.function, 5, failing.keys)));
        expect_order(failing.name, {"-b", "-c", "upgrade"});
    }
}

TEST_F(Order, ScriptsThatFail) {
    describe({.tables = mounted + "[scripts]\nevent = 3\nwatchdog = 4\ngrub_reboot = 6\n",
              .fpds = fpd(10, {{.name = "IoFpga",
                                .keys = "activation = 3\nreports = 1\n" + duration(0.5),
                                .tables = region_fault("fail", "attempt = 1\ncode = 5\ntext = \"worn\"")}})});
    expect_order("scripts_fail", {"-c", "upgrade"});
}

TEST_F(Order, AResetThatFails) {
    describe({.tables = mounted + "[scripts]\nreset = 6\n",
              .fpds = fpd(10, {{.name = "IoFpga", .keys = "activation = 3\nreports = 0\n" + duration(0.5)}})});
    expect_order("reset_fails", {"-c", "upgrade"});
}

// ---- the flash of the event log

/// The mount outlasts the run by far: the lines go to the flash at the run's end.
TEST_F(Order, AFlashThatIsMountedByTheRun) {
    describe({.tables = "[obfl]\nmount_time = 4.0\n", .fpds = fpd(10, {quick_region("IoFpga")})});
    expect_order("flash_mounted_by_the_run", {"-b", "-c", "upgrade"});
}

/// The mount ends in the midst of an upgrade: the lines so far go to the flash before the next one.
TEST_F(Order, AFlashThatIsMountedDuringTheRunAndCannotBeUnmounted) {
    describe({.tables = "[obfl]\nmount_time = 20.0\nunmount_fails = true\n",
              .fpds = fpd(10, {{.name = "IoFpga", .keys = "reports = 0\n" + duration(40)}})});
    expect_order("flash_not_unmounted", {"-b", "-c", "upgrade"});
}

TEST_F(Order, AFlashThatCannotBeMounted) {
    describe({.tables = "[obfl]\nmount_fails = true\nmount_time = 0.0\n", .fpds = fpd(10, {quick_region("IoFpga")})});
    begin_trace("log/fpd_obfl_log.txt");
    compare("flash_not_mounted", tool({"-b", "-c", "upgrade"}, fast));
}

// ---- what the comparison itself sees

Step handled(const std::string &region, const std::string &report) {
    return {"main thread", "FpdUpgResponse", "[FPD] [FPD " + region + " received response state " + report + "]"};
}

const Step punched = {"main thread", "AutoFpdUpgradeProgressWDPunch", "punched"};
const Step progress_event = {"main thread", "", "event.sh '-e' 'progress' '-m'"};
const Step created = {"main thread", "", "FPD A transitioning to 'FPD worker created for Upgrade' at <seconds>"};
const Step worker_began = {"worker 1 of A", "FpdUpgHdl", "began"};
const Step queue_opened = {"worker 1 of A", "", "Worker MQ id <descriptor>"};

TEST(OrderTrace, ReportsOfWorkersSideBySideComeInAnyOrder) {
    const Step a = handled("A", "'FPD Upgrade Started' progress 0");
    const Step b = handled("B", "'FPD Upgrade Started' progress 0");
    EXPECT_EQ(threads_text(promised_order({created, a, b})), threads_text(promised_order({created, b, a})));
    EXPECT_NE(threads_text(promised_order({a, created, b})), threads_text(promised_order({b, created, a})));
}

TEST(OrderTrace, TheProgressEventComesWithItsPunchBetweenOtherThings) {
    const Step a = handled("A", "'FPD Upgrade Started' progress 0");
    const Step rest = {"main thread", "FpdUpgResponseStarted", "rest"};
    const std::vector<Step> once = {progress_event, punched, a, rest};
    EXPECT_EQ(threads_text(promised_order({progress_event, punched, a, rest, progress_event, punched})),
              threads_text(once));
    EXPECT_THROW(promised_order({progress_event, punched, a, progress_event, punched, rest}), std::runtime_error);
    EXPECT_THROW(promised_order({progress_event, punched, a, rest, progress_event}), std::runtime_error);
}

TEST(OrderTrace, NothingComesBeforeItsCause) {
    const Step announced = {"main thread", "", "announced"};
    const Step a = handled("A", "'FPD Upgrade Started' progress 0");
    EXPECT_THAT(broken_causes({announced, worker_began, created, queue_opened, a}), IsEmpty());
    EXPECT_THAT(broken_causes({worker_began, announced, created, queue_opened, a}), SizeIs(1));
    EXPECT_THAT(broken_causes({announced, worker_began, created, a, queue_opened}), SizeIs(1));
    EXPECT_THAT(broken_causes({announced, worker_began, created, queue_opened, a, a}), SizeIs(1));
}

}  // namespace
