/// What `cardsim` tells of the real tool's runs: the account at the end of `boot`, `plan`, and `compare`.

#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "card_test.h"

namespace fs = std::filesystem;
using namespace card_tests;
using nlohmann::json;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

/// A card with one region that is upgraded, but for what `region`, in it, and `card`, in [card], say.
std::string one_region(const std::string &region = {}, const std::string &card = {}) {
    return "[card]\ngroup = 3\nboard_type = 12568\nhw_version = [1, 7]\nslot = 2\npid = \"SIM-T\"\n" + card + R"toml(
[obfl]
mount_time = 0.0
[[led]]
id = 1
name = "Status"
[[fpd]]
id = 10
[[fpd.region]]
name = "IoFpga"
running = "1.0.0"
duration = 0.5
[[fpd.region.image]]
type = 0
version = "1.2.0"
file = "io.img"
size = 1000
)toml" + region;
}

class BootAccount : public CardTest {
  protected:
    Result account(const std::vector<std::string> &options, unsigned speed = 60) {
        std::vector<std::string> command = {"boot",    card_.string(), "--speed", std::to_string(speed),
                                            "--state", state_.string()};
        command.insert(command.end(), options.begin(), options.end());
        return run(command);
    }
    json account_json(unsigned speed = 60) { return json::parse(account({"--json"}, speed).out); }
    json plan_json() { return json::parse(run({"plan", card_.string(), "--state", state_.string(), "--json"}).out); }
    json rehearsed_json() {
        return json::parse(
            run({"plan", card_.string(), "--state", state_.string(), "--speed", "200", "--rehearse", "--json"}).out);
    }
    Result plan_of_next_boot() { return run({"plan", card_.string(), "--state", state_.string()}); }

    static json region(const json &document, const std::string &name) {
        for (const json &region : document.at("regions")) {
            if (region.at("name") == name) return region;
        }
        ADD_FAILURE() << "no region " << name << " in " << document.dump(2);
        return json::object();
    }
    /// Every file below a directory with its content.
    static std::map<std::string, std::string> content_of(const fs::path &directory) {
        std::map<std::string, std::string> files;
        for (const fs::directory_entry &entry : fs::recursive_directory_iterator(directory)) {
            files[entry.path().string()] = entry.is_regular_file() ? read_file(entry.path()) : "";
        }
        return files;
    }
};

struct Told {
    const char *name, *before, *after, *outcome, *reason;
    bool due;
};
constexpr Told four_reasons[] = {
    {"IoFpga", "1.11.0", "1.12.0", "upgraded", "", false},
    {"FabricFpga", "1.0.0", "1.0.0", "given_up", "stuck in ", true},
    {"PortFpga", "5.1.0", "5.1.0", "given_up", "waits for FPD FabricFpga, which ", true},
    {"BootRom", "4.0.1", "4.0.1", "refused", "md5 checksum validation failed, ", true},
    {"PowerCpld", "1.0.0", "1.0.0", "refused", "running 1.0.0 is older than 2.0.0, the oldest that can be upgraded",
     true},
    {"ClockGen", "0.9.4", "0.9.4", "current", "", false},
};

TEST_F(BootAccount, PlanTableAndDocumentGiveTheSameFourReasons) {
    take_card("four-reasons");
    const json plan = plan_json();
    const json rehearsed = rehearsed_json();
    const Result result = account({"--strict", "--json"});
    EXPECT_EQ(result.status, 5);
    const json document = json::parse(result.out);
    EXPECT_EQ(document.at("schema"), "cardsim-life");
    EXPECT_EQ(document.at("status"), 5);
    EXPECT_EQ(document.at("boots").size(), 2U);
    for (const Told &told : four_reasons) {
        SCOPED_TRACE(told.name);
        const json region = BootAccount::region(document, told.name);
        const std::string reason = region.at("reason");
        EXPECT_EQ(region.at("before").at("running"), told.before);
        EXPECT_EQ(region.at("after").at("running"), told.after);
        EXPECT_EQ(region.at("outcome"), told.outcome);
        EXPECT_EQ(region.at("due"), told.due);
        EXPECT_THAT(reason, HasSubstr(told.reason));
        EXPECT_THAT(result.err, HasSubstr(": " + reason + "\n"));
        if (told.outcome == std::string("refused")) {
            EXPECT_EQ(BootAccount::region(plan, told.name).at("reason"), reason);
        }
        if (told.due) {  // but for the times, which are measured
            EXPECT_EQ(BootAccount::region(rehearsed, told.name).at("outcome"), told.outcome);
            EXPECT_THAT(BootAccount::region(rehearsed, told.name).at("reason").get<std::string>(),
                        testing::StartsWith(told.reason));
        }
    }
    EXPECT_THAT(result.err, HasSubstr("; not current: FabricFpga, PortFpga, BootRom, PowerCpld\n"));
    EXPECT_THAT(result.err, HasSubstr("boot 2: the card is up\n")) << "lines go to standard error beside a document";
}

TEST_F(BootAccount, TellsBootsTheirReasonsAndWhatWasMadeUp) {
    take_card("flaky");
    const Result result = account({"--strict"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    const std::vector<std::string> lines = lines_of(result.out);
    EXPECT_THAT(lines, Contains(testing::ContainsRegex("^IoFpga +1\\.11\\.0 +1\\.12\\.0 +upgraded: ")));
    EXPECT_THAT(
        lines,
        Contains(testing::ContainsRegex("^PhyFirmware +11\\.3\\.0 +12\\.0\\.1 +upgraded at the second attempt: ")));
    EXPECT_THAT(lines, Contains(testing::ContainsRegex("^1 +power on +[0-9]+ s +reload requested: .*reset_board")));
    EXPECT_THAT(lines, Contains(testing::ContainsRegex("^2 +reload requested +[0-9]+ s +the card is up$")));
    EXPECT_THAT(
        lines,
        Contains(testing::ContainsRegex("^Made up: kd_bootstrap, .*; 2 images: iofpga-1\\.12\\.0\\.img, phy-12")));
    EXPECT_THAT(result.out, Not(HasSubstr("never reached"))) << "the one fault was";
    EXPECT_EQ(lines.back(), "2 boots: 1 upgraded, 1 upgraded at the second attempt; nothing is left to upgrade");
}

TEST_F(BootAccount, EndsWithAVerdictThatKnowsWhetherTheCardIsUp) {
    const std::pair<std::string, std::string> cases[] = {
        {one_region({}, "startup = \"exit 3\"\n"), "1 boot: 1 unknown; the card is not up; not current: IoFpga"},
        {one_region({}, "startup = \"true\"\n"), "1 boot: 1 unknown; not current: IoFpga"},
        {one_region("need_upgrade = false\n", "startup = \"exit 3\"\n"), "1 boot: 1 unknown; the card is not up"},
        {"[card]\ngroup = 3\nboard_type = 12568\nhw_version = [1, 7]\nslot = 2\npid = \"SIM-T\"\nstartup = \"true\"\n",
         "1 boot: no regions; nothing is left to upgrade"},
    };
    for (const auto &[card, verdict] : cases) {
        fs::remove_all(state_);
        describe_text(card);
        EXPECT_EQ(lines_of(account({}).out).back(), verdict);
    }
}

TEST_F(BootAccount, EndsWithItsVerdictInPlaceOfTheTableWhenAnUpgradeIsLeftToDo) {
    describe_text(one_region({}, "startup = \"true\"\n"));
    const std::string out = account({"--strict", "--no-table"}).out;
    EXPECT_EQ(lines_of(out).back(), "1 boot: 1 unknown; not current: IoFpga");
    EXPECT_THAT(out, Not(HasSubstr("OUTCOME")));
}

TEST_F(BootAccount, AnAnswerThatCannotBeWrittenIsNoSuccess) {
    describe_text(one_region());
    for (const std::string command : {"show", "plan", "plan --json", "boot", "boot --json"}) {
        const std::string line = "\"$0\" " + command + " \"$1\" --state \"$2\" > /dev/full";
        const Result result = run_program({"/bin/sh", "-c", line, CARDSIM_COMMAND, card_.string(), state_.string()},
                                          root_, std::chrono::seconds(60));
        EXPECT_EQ(result.status, 125) << command;
        EXPECT_THAT(result.err, HasSubstr("standard output: cannot be written: No space left on device")) << command;
    }
}

TEST_F(BootAccount, ALaterPowerOnIsAPowerCycle) {
    describe_text(one_region());
    EXPECT_EQ(region(account_json(), "IoFpga").at("outcome"), "upgraded");
    const json again = account_json();
    EXPECT_EQ(region(again, "IoFpga").at("outcome"), "current") << "the log of this boot alone";
    EXPECT_EQ(region(again, "IoFpga").at("before").at("running"), "1.2.0");
    EXPECT_EQ(again.at("boots").at(0).at("began"), "power cycle");
    EXPECT_EQ(again.at("boots").at(0).at("number"), 2);
}

TEST_F(BootAccount, FirmwareThatDoesNotStickIsDue) {
    take_card("reload-loop");
    const Result result = account({"--strict", "--json"});
    EXPECT_EQ(result.status, 5);
    const json boot_rom = region(json::parse(result.out), "BootRom");
    EXPECT_EQ(boot_rom.at("due"), true);
    EXPECT_EQ(boot_rom.at("attempts"), 2);
}

struct StrictCase {
    const char *what;
    const char *region;
    const char *card;
    int status;
};

class StrictBoot : public BootAccount, public testing::WithParamInterface<StrictCase> {};

TEST_P(StrictBoot, EndsWithFiveWhenAnUpgradeIsLeftToDo) {
    describe_text(one_region(GetParam().region, GetParam().card));
    EXPECT_EQ(account({"--strict"}).status, GetParam().status);
    fs::remove_all(state_);
    EXPECT_EQ(account({}).status, 0) << "only when it is asked for";
}

INSTANTIATE_TEST_SUITE_P(
    , StrictBoot,
    testing::Values(StrictCase{"upgraded", "", "", 0}, StrictCase{"disabled", "", "auto_upgrade = 0\n", 5},
                    StrictCase{"not_asked_for", "need_upgrade = false\n", "", 0},
                    StrictCase{"failed", "[[fpd.region.fault]]\nkind = \"fail\"\ncode = 5\ntext = \"no\"\n", "", 5},
                    StrictCase{"other_mode", "", "upgrade_mode = \"mfg\"\n", 0},
                    StrictCase{"tool_not_started", "", "startup = \"true\"\n", 5}),
    [](const testing::TestParamInfo<StrictCase> &strict) { return strict.param.what; });

TEST_F(BootAccount, TellsWhichFaultsWereNeverReached) {
    describe_text(one_region(R"toml(
[[fpd.region.fault]]
kind = "fail"
attempt = 1
code = 5
text = "first"
[[fpd.region.fault]]
kind = "slow"
attempt = 3
every = 1.0
[[fault]]
call = "brd_fpd_info_get"
nth = 1000
code = 5
[[fault]]
call = "brd_fru_hw_init"
boot = 9
code = 5
[[fault]]
call = "get_fpd_capability_info"
code = 8
)toml"));
    EXPECT_EQ(account_json().at("faults_not_reached"),
              json({"IoFpga: slow at attempt 3", "brd_fpd_info_get, call 1000", "brd_fru_hw_init, boot 9"}));
}

TEST_F(BootAccount, ALogThatCannotBeReadFailsNothing) {
    for (const auto &[startup, reason] : std::map<std::string, std::string>{
             {"ln -s /etc/passwd /var/log/fpd.log", "a symbolic link"},
             {"mkfifo /var/log/fpd.log", "neither a plain file"},
             {"true", "there is no diagnostic log"},
             {"head -c 100000 /dev/urandom >/var/log/fpd.log", "no run of the tool looked at it"}}) {
        SCOPED_TRACE(startup);
        describe_text(one_region({}, "startup = \"" + startup + "\"\n"));
        const Result result = account({});
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_THAT(result.out, HasSubstr(reason));
        fs::remove_all(state_);
    }
}

TEST_F(BootAccount, TextsOfTheCardAreShownEscaped) {
    describe_text(one_region("[[fpd.region.fault]]\nkind = \"fail\"\ncode = 5\ntext = \"\\u009b2Jgone\"\n"));
    const Result result = account({});
    EXPECT_THAT(result.out, AllOf(HasSubstr("\\xc2\\x9b2Jgone"), Not(HasSubstr("\xc2\x9b"))));
}

TEST_F(BootAccount, ShowHasNothingThatABootContradicts) {
    take_card("reload-loop");
    EXPECT_EQ(account({"--max-boots", "1"}).status, 3);
    EXPECT_THAT(run({"show", card_.string(), "--state", state_.string()}).out,
                testing::ContainsRegex("\nBootRom +[0-9.]+ +[0-9.]+, falls back to [0-9.]+ "));
    describe_text(read_file(fs::path(CARDSIM_CARDS) / "golden-locked/card.toml"));
    fs::remove_all(state_);
    EXPECT_THAT(run({"show", card_.string(), "--state", state_.string()}).out,
                testing::ContainsRegex("\nIoFpga +0\\.4\\.0 +0\\.4\\.0 +1\\.0\\.0, to unlock 0\\.5\\.0\n"));
}

// ---- plan

TEST_F(BootAccount, APlanLeavesTheCardAsItIs) {
    describe_text(one_region());
    EXPECT_EQ(plan_of_next_boot().status, 0);
    EXPECT_FALSE(fs::exists(state_)) << "a card that was never powered on";
    EXPECT_EQ(account({}).status, 0);
    const auto before = content_of(root_);
    EXPECT_EQ(plan_of_next_boot().status, 0);
    for (auto &[file, content] : content_of(root_)) {
        if (!fs::path(file).parent_path().string().starts_with(state_.string())) continue;
        EXPECT_TRUE(before.contains(file)) << file;
        EXPECT_TRUE(before.contains(file) && before.at(file) == content) << file;
    }
    EXPECT_EQ(state().boot, 1);
}

class PlanOfAStory : public BootAccount, public testing::WithParamInterface<const char *> {};

TEST_P(PlanOfAStory, IsWhatTheNextBootDoes) {
    take_card(GetParam());
    const json document = plan_json();
    EXPECT_EQ(document.at("schema"), "cardsim-plan");
    std::set<std::string> planned;
    for (const json &region : document.at("regions")) {
        if (!region.at("place").is_null()) planned.insert(region.at("name"));
    }
    std::set<std::string> tried;
    const json account = json::parse(BootAccount::account({"--json", "--max-boots", "1"}).out);
    for (const json &region : account.at("regions")) {
        if (region.at("attempts") != 0) tried.insert(region.at("name"));
    }
    EXPECT_EQ(planned, tried);
    EXPECT_THAT(planned, Not(IsEmpty()));
}

INSTANTIATE_TEST_SUITE_P(, PlanOfAStory, testing::Values("fresh", "golden-locked", "flaky", "reload-loop"),
                         [](const testing::TestParamInfo<const char *> &story) {
                             std::string name = story.param;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST_F(BootAccount, APlanKnowsTheQueuesOrderAndWhatIsNotPlanned) {
    take_card("fresh");
    std::vector<std::string> order;
    const json document = plan_json();
    for (const json &region : document.at("regions")) {
        if (!region.at("place").is_null()) order.push_back(region.at("name"));
    }
    EXPECT_THAT(order, ElementsAre("IoFpga", "PowerCpld", "ClockGen", "BiosPrimary", "PhyFirmware", "SyncFpga",
                                   "PortFpga", "FabricFpga"));
    EXPECT_THAT(plan_of_next_boot().out,
                AllOf(HasSubstr("would be upgraded after ClockGen\n"),
                      testing::ContainsRegex("DebugCpld .*not considered: not upgraded at boot")));
}

TEST_F(BootAccount, APlanKnowsThatTheMarkerWouldStopIt) {
    take_card("reload-loop");
    EXPECT_EQ(account({"--max-boots", "2"}).status, 3);
    EXPECT_THAT(plan_of_next_boot().out, HasSubstr("a boot would skip it all: the upgrade marker names the same"));
}

TEST_F(BootAccount, APlanSaysWhenNothingWouldBeLookedAt) {
    describe_text(one_region({}, "auto_upgrade = 0\n"));
    EXPECT_THAT(plan_of_next_boot().out,
                AllOf(HasSubstr("automatic upgrade is disabled\n"), HasSubstr("the tool did not look at it")));
    describe_text(one_region({}, "upgrade_mode = 9\n"));
    const Result result = plan_of_next_boot();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("the tool cannot plan: it ended with status 255"));
}

// ---- compare

class Comparison : public BootAccount {
  protected:
    /// Boots the card into a state of its own.
    std::string booted(const std::string &name, const std::string &card, unsigned speed = 60) {
        describe_text(card);
        EXPECT_LE(
            run({"boot", card_.string(), "--state", (root_ / name).string(), "--speed", std::to_string(speed)}).status,
            0);
        return (root_ / name).string();
    }
};

TEST_F(Comparison, TheSameCardHasTheSameLifeWhateverItsSpeed) {
    const Result result = run({"compare", booted("a", one_region()), booted("b", one_region(), 20)});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
}

TEST_F(Comparison, TellsWhatDiffersByRegion) {
    const std::string fails = "[[fpd.region.fault]]\nkind = \"fail\"\ncode = 5\ntext = \"no\"\n";
    const Result result = run({"compare", booted("a", one_region()), booted("b", one_region(fails))});
    EXPECT_EQ(result.status, 1);
    for (const char *line : {"^IoFpga +running +1\\.2\\.0 +1\\.0\\.0$", "^IoFpga +outcome +upgraded +failed$",
                             "^IoFpga +attempts +1 +2$"}) {
        EXPECT_THAT(lines_of(result.out), Contains(testing::ContainsRegex(line)));
    }
}

TEST_F(Comparison, WhatIsNoStateIsUnreadable) {
    const std::string state = booted("a", one_region());
    for (const std::string &other : {(root_ / "nowhere").string(), root_.string(), state + "/state.toml"}) {
        const Result result = run({"compare", state, other});
        EXPECT_EQ(result.status, 2) << other;
        EXPECT_THAT(lines_of(result.err), testing::SizeIs(1));
    }
    const std::string nowhere = root_ / "nowhere";
    EXPECT_EQ(run({"compare", nowhere, state}).err, nowhere + ": no directory\n");
}

TEST_F(Comparison, AnAnswerThatCannotBeWrittenIsNone) {
    const std::string a = booted("a", one_region()), b = booted("b", one_region("need_upgrade = false\n"));
    EXPECT_EQ(run({"compare", a, b}).status, 1);
    EXPECT_EQ(run_program({"/bin/sh", "-c", "\"$0\" compare \"$1\" \"$2\" > /dev/full", CARDSIM_COMMAND, a, b}, root_,
                          std::chrono::seconds(60))
                  .status,
              2);
}

}  // namespace
