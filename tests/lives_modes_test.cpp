/// Every stored mode, at boot and by hand: which firmware each kind of region gets, what is answered, and what is left.

#include <cstdio>
#include <stdexcept>
#include <tuple>

#include "lives.h"

using namespace card_tests;

namespace {

// What a region is, in the card's words.
constexpr int at_boot = 0x8;
constexpr int never_by_itself = 0x1;
constexpr int unlocks_golden = 0x800;
constexpr int needs_unlocked = 0x1000;

// Versions of the packaged images, by the upgrade type that is asked for.
const std::string regular = "1.1.0";
const std::string mfg = "2.1.0";
const std::string unlocking = "2.2.0";
const std::string dummy_minor = "2.3.0";
const std::string dummy_major = "2.4.0";

struct Kind {
    std::string name;
    int capabilities = at_boot;
    int upgrade_type = 1;
    std::vector<int> images = {1, 3, 4};  ///< besides the regular one
    std::string version = "1.0.0";
};

const std::vector<Kind> kinds = {
    {.name = "Plain"},
    {.name = "ByHand", .capabilities = 0},
    {.name = "Never", .capabilities = at_boot | never_by_itself},
    {.name = "Mfg", .upgrade_type = 5},
    {.name = "Fixed", .upgrade_type = 2},
    {.name = "Bare", .images = {}},
    {.name = "Primary", .capabilities = at_boot | needs_unlocked},
    {.name = "MfgPrimary", .capabilities = at_boot | needs_unlocked, .upgrade_type = 5},
    {.name = "FixedPrimary", .capabilities = at_boot | needs_unlocked, .upgrade_type = 0},
    {.name = "ByHandPrimary", .capabilities = needs_unlocked},
    {.name = "CurrentPrimary", .capabilities = at_boot | needs_unlocked, .version = mfg},
    {.name = "Unlocker", .capabilities = at_boot | unlocks_golden, .images = {1, 2, 3, 4}},
    {.name = "MfgUnlocker", .capabilities = at_boot | unlocks_golden, .upgrade_type = 5, .images = {1, 2, 3, 4}},
    {.name = "ByHandUnlocker", .capabilities = unlocks_golden, .images = {1, 2, 3, 4}},
    {.name = "Unlocked", .capabilities = at_boot | unlocks_golden, .images = {1, 2, 3, 4}, .version = unlocking},
    {.name = "Both", .capabilities = at_boot | needs_unlocked | unlocks_golden, .images = {1, 2, 3, 4}},
};

const Kind &kind_of(const std::string &name) {
    for (const Kind &kind : kinds) {
        if (kind.name == name) return kind;
    }
    throw std::runtime_error("no kind of region " + name);
}

Region region_of(const Kind &kind) {
    Region region{.name = kind.name,
                  .running = kind.version,
                  .keys = "activation = 5\nupgrade_type = " + std::to_string(kind.upgrade_type) +
                          "\ncapabilities = " + std::to_string(kind.capabilities) + "\n" + duration(0.5)};
    for (const int type : kind.images) {
        const std::string number = std::to_string(type);
        region.tables += "[[fpd.region.image]]\ntype = " + number + "\nversion = \"2." + number +
                         ".0\"\nsize = 100\nfile = \"" + kind.name + "-" + number + ".img\"\n";
    }
    return region;
}

/// A region of the card: it gets `version`, or stays as it is in `state`.
struct Member {
    std::string kind;
    std::string version = {};
    std::string state = fate::done;
    bool planned_first = false;  ///< in a stage that was discarded
};

Member stays(const std::string &kind, const std::string &state) {
    return {.kind = kind, .state = state};
}
Member only_looked_at(const std::string &kind) {
    return {.kind = kind, .state = fate::received, .planned_first = true};
}

struct Row {
    std::string name;
    std::string mode;
    std::string options;  ///< of the command line
    std::vector<Member> members;
    std::vector<std::string> errors = {};
};

Life life_of(const Row &row) {
    Life life{.errors = row.errors};
    for (const Member &member : row.members) {
        const std::string &from = kind_of(member.kind).version;
        const bool upgraded = !member.version.empty();
        life.fates.push_back({.name = member.kind,
                              .attempts = upgraded ? "D" : "",
                              .state = member.state,
                              .versions = {from, upgraded ? member.version : from},
                              .queue = upgraded || member.planned_first ? 0 : -1,
                              .from = from,
                              .to = member.version});
        if (upgraded && row.options.empty()) life.marker += marker_line(member.kind, member.version);
        if (upgraded) life.runs = {row.options.empty() ? RunEnd::Reset : RunEnd::NoReset};
    }
    return life;
}

/// What check_upgrade, list_upgrade and upgrade print, each with its status after it.
std::string answers_of(const Row &row) {
    std::string list;
    for (const Member &member : row.members) {
        char line[64];
        std::snprintf(line, sizeof line, "%-16s %s\n", member.kind.c_str(), member.version.c_str());
        if (!member.version.empty()) list += line;
    }
    if (list.empty()) return "status 0\nstatus 0\nAuto FPD Upgrade done\nstatus 0\n";
    return "FPD available that need to be upgraded\nstatus 1\nFPD name         Available Version\n" + list +
           "status 0\nAuto FPD Upgrade done\nstatus 0\n";
}

void PrintTo(const Row &row, std::ostream *stream) {
    *stream << row.name;
}

class Modes : public LifeTest, public testing::WithParamInterface<Row> {
  protected:
    void describe_row(const Row &row) {
        std::vector<Region> regions;
        for (const Member &member : row.members) regions.push_back(region_of(kind_of(member.kind)));
        describe(
            {.keys = "upgrade_mode = " + row.mode, .tables = "[obfl]\nmounted = true\n", .fpds = fpd(10, regions)});
    }
    /// Asks for the plan twice, then carries it out; the log is that of the upgrade.
    Result ask_and_upgrade(const std::string &options) {
        const auto command = [&](const std::string &word) {
            return "bootup_fpd " + options + " -c " + word + "; echo status $?; ";
        };
        return shell(command("check_upgrade") + command("list_upgrade") + "rm /var/log/fpd.log; " + command("upgrade"),
                     life_speed);
    }
};

TEST_P(Modes, GiveEachRegionItsFirmware) {
    const Row &row = GetParam();
    describe_row(row);
    const Result result = ask_and_upgrade(row.options);
    EXPECT_EQ(result.out, answers_of(row));
    EXPECT_EQ(result.err, "");
    expect_life(life_of(row));
}

std::string fixed_error(const std::string &name, int type) {
    return "[FPD] [ERROR] [BuildQFpdCantUpgraded] FPD " + name + " with Upgrade type " + std::to_string(type) +
           " can't be upgraded ";
}
std::string bare_error(int type) {
    return "[FPD] [ERROR] [InitFpdDescFail] Does not have a Firmware packaged for FPD Bare err_msg no image packaged "
           "for upgrade type " +
           std::to_string(type);
}
std::vector<std::string> duplicate_errors(const std::vector<std::string> &names) {
    std::vector<std::string> errors;
    for (const std::string &name : names) {
        errors.push_back("[FPD] [ERROR] [AddFpdQueueDupEntry] adding a Duplicate FPD " + name + " found");
        errors.push_back(
            "[FPD] [ERROR] [InitFpdAddQFail] Failed to add FPD into upg_queue.queue err_msg Duplicate FPD " + name +
            " found");
    }
    return errors;
}

const std::vector<Row> one_stage = {
    {.name = "RegularAtBoot",
     .mode = "\"regular\"",
     .options = "",
     .members = {{"Plain", regular},
                 stays("ByHand", fate::received),
                 stays("Never", fate::received),
                 stays("Mfg", fate::refused),
                 stays("Fixed", fate::refused),
                 {"Bare", regular},
                 {"Primary", regular},
                 stays("MfgPrimary", fate::refused),
                 {"Unlocker", regular},
                 {"Unlocked", regular}},
     .errors = {fixed_error("Fixed", 2)}},
    {.name = "RegularByHand",
     .mode = "\"regular\"",
     .options = "-b",
     .members = {stays("Never", fate::received),
                 {"ByHand", regular},
                 {"ByHandPrimary", regular},
                 stays("FixedPrimary", fate::refused),
                 {"ByHandUnlocker", regular},
                 stays("MfgUnlocker", fate::refused),
                 {"Plain", regular}},
     .errors = {fixed_error("FixedPrimary", 0)}},
    {.name = "DummyMinorAtBoot",
     .mode = "\"dummy-minor-version\"",
     .options = "",
     .members = {{"Plain", dummy_minor},
                 stays("ByHand", fate::received),
                 stays("Mfg", fate::refused),
                 stays("Fixed", fate::refused),
                 stays("Bare", fate::no_image),
                 {"Primary", dummy_minor},
                 {"Unlocker", dummy_minor}},
     .errors = {fixed_error("Fixed", 2), bare_error(3)}},
    {.name = "DummyMinorByHand",
     .mode = "\"dummy-minor-version\"",
     .options = "-b",
     .members = {stays("MfgUnlocker", fate::refused), {"ByHand", dummy_minor}, {"Unlocked", dummy_minor}}},
    {.name = "DummyMajorAtBoot",
     .mode = "\"dummy-major-version\"",
     .options = "",
     .members = {stays("Bare", fate::no_image),
                 stays("Never", fate::received),
                 stays("MfgPrimary", fate::refused),
                 {"Both", dummy_major},
                 {"Plain", dummy_major},
                 stays("ByHandUnlocker", fate::received)},
     .errors = {bare_error(4)}},
    {.name = "DummyMajorByHand",
     .mode = "\"dummy-major-version\"",
     .options = "-b",
     .members = {{"ByHandUnlocker", dummy_major},
                 stays("Fixed", fate::refused),
                 stays("Never", fate::received),
                 stays("Mfg", fate::refused)},
     .errors = {fixed_error("Fixed", 2)}},
};

const std::vector<std::string> judged_twice = [] {
    std::vector<std::string> errors = duplicate_errors({"CurrentPrimary", "FixedPrimary", "Unlocker"});
    errors.insert(errors.end(), 2, fixed_error("FixedPrimary", 0));
    return errors;
}();

/// Manufacturing goes on to its own firmware only after a stage that found nothing.
const std::vector<Row> manufacturing = {
    {.name = "NothingIsPlannedAtBootWhereNothingNeedsAnUnlockedPrimary",
     .mode = "\"mfg\"",
     .options = "",
     .members = {stays("Plain", fate::received), stays("Never", fate::received), stays("Mfg", fate::received),
                 stays("Unlocker", fate::received), stays("ByHandPrimary", fate::received)},
     .errors = duplicate_errors({"Plain", "Never", "Mfg", "Unlocker", "ByHandPrimary"})},
    {.name = "NothingIsPlannedByHandWhereThePrimaryIsCurrentOrFixed",
     .mode = "\"mfg\"",
     .options = "-b",
     .members = {stays("CurrentPrimary", fate::current), stays("FixedPrimary", fate::refused),
                 stays("Unlocker", fate::received)},
     .errors = judged_twice},
    {.name = "OnlyWhatUnlocksIsUpgradedAtBoot",
     .mode = "\"mfg\"",
     .options = "",
     .members = {only_looked_at("Primary"),
                 {"Unlocker", unlocking},
                 {"MfgUnlocker", unlocking},
                 stays("ByHandUnlocker", fate::received),
                 stays("Unlocked", fate::current),
                 stays("Plain", fate::received),
                 stays("Mfg", fate::received),
                 stays("Bare", fate::received)}},
    {.name = "OnlyWhatUnlocksIsUpgradedByHand",
     .mode = "\"mfg\"",
     .options = "-b",
     .members = {only_looked_at("ByHandPrimary"),
                 {"ByHandUnlocker", unlocking},
                 {"Both", unlocking},
                 stays("ByHand", fate::received),
                 stays("Fixed", fate::received)}},
    {.name = "ManufacturingFirmwareAtBootWhereNothingCanUnlock",
     .mode = "\"mfg\"",
     .options = "",
     .members = {{"Primary", mfg},
                 {"MfgPrimary", mfg},
                 {"Plain", mfg},
                 {"Mfg", mfg},
                 stays("ByHand", fate::received),
                 stays("ByHandUnlocker", fate::received),
                 stays("Never", fate::received),
                 stays("Fixed", fate::refused),
                 stays("Bare", fate::no_image),
                 stays("CurrentPrimary", fate::current)},
     .errors = {fixed_error("Fixed", 2), bare_error(1)}},
    {.name = "ManufacturingFirmwareAtBootWhereAllIsUnlocked",
     .mode = "\"mfg\"",
     .options = "",
     .members = {{"MfgPrimary", mfg}, {"Unlocked", mfg}, {"Plain", mfg}}},
    {.name = "ManufacturingFirmwareByHandWhereAllIsUnlocked",
     .mode = "\"mfg\"",
     .options = "-b",
     .members =
         {{"ByHandPrimary", mfg}, {"Unlocked", mfg}, {"ByHand", mfg}, {"Mfg", mfg}, stays("Never", fate::received)}},
};

INSTANTIATE_TEST_SUITE_P(OneStage, Modes, testing::ValuesIn(one_stage), name_of<Row>);
INSTANTIATE_TEST_SUITE_P(Manufacturing, Modes, testing::ValuesIn(manufacturing), name_of<Row>);

class UnknownModes : public LifeTest, public testing::WithParamInterface<std::tuple<int, const char *>> {};

TEST_P(UnknownModes, FailEveryCardCommandAndTouchNothing) {
    const auto &[mode, options] = GetParam();
    describe({.keys = "upgrade_mode = " + std::to_string(mode), .fpds = fpd(10, {plain_region("IoFpga")})});
    std::string command;
    std::string complaints;
    std::vector<std::string> unknown;
    const std::string reason = "Unknown FPD Upgrade mode " + std::to_string(mode);
    for (const char *word : {"check_upgrade", "list_upgrade", "upgrade"}) {
        command += std::string("bootup_fpd ") + options + " -c " + word + "; echo status $?; ";
        complaints += "Local Card Auto FPD Upgrade Interface Init failed err_msg " + reason + "\n";
        unknown.push_back("[FPD] [ERROR] [FpdUpgdModeUnknown] " + reason);
    }
    const Result result = shell(command, life_speed);
    EXPECT_EQ(result.out, "status 255\nstatus 255\nstatus 255\n");
    EXPECT_EQ(result.err, complaints);
    expect_life({.fates = {{.name = "IoFpga", .state = "never seen", .versions = old}}, .runs = {}, .errors = unknown});
}

INSTANTIATE_TEST_SUITE_P(Stored, UnknownModes, testing::Combine(testing::Values(4, 7, -1), testing::Values("", "-b")));

}  // namespace
