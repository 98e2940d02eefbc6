/// The simulator's own cards, from their first power-on until they are up: each story as its card tells it.

#include <filesystem>
#include <map>
#include <set>

#include "card_test.h"

namespace fs = std::filesystem;
using namespace card_tests;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

namespace {

class StoryCard : public CardTest {
  protected:
    /// Boots the card until it is up after so many boots.
    void boots(const std::string &name, int count, unsigned speed) {
        take_card(name);
        const Result result = boot(speed);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        EXPECT_THAT(result.out, EndsWith("boot " + std::to_string(count) + ": the card is up\n"));
        std::size_t runs = 0;
        for (const std::string &line : lines_of(result.out)) runs += line == "Auto FPD Upgrade done";
        EXPECT_EQ(runs, static_cast<std::size_t>(count));
        EXPECT_EQ(state().boot, count);
    }
    void expect_version(const std::string &name, const std::string &version) const {
        EXPECT_EQ(state().region(name), (RegionState{version, version})) << name;
    }
    std::vector<std::string> resets() const {
        std::vector<std::string> calls;
        for (const std::string &line : scripts()) {
            if (line.starts_with("/usr/local/etc/reset_board.sh")) calls.push_back(line);
        }
        return calls;
    }
    /// No queue begins before the one in front of it is through, and some regions of a queue run side by side. A reload
    /// begins with the first queue again. The queues are given by the beginning of their images' names.
    void expect_queues_in_turn(const std::map<std::string, int> &queues) const {
        int present = 0;
        std::size_t most = 0;
        std::set<std::string> running;
        for (const CallRecord &call : of_function(calls(), "brd_fpd_upgrade")) {
            const std::string image = image_asked_for(call);
            const auto queue = std::find_if(queues.begin(), queues.end(),
                                            [&](const auto &entry) { return image.starts_with(entry.first); });
            ASSERT_NE(queue, queues.end()) << image;
            if (call.outcome == "begin") {
                EXPECT_TRUE(queue->second == present || running.empty()) << image;
                present = queue->second;
                running.insert(image);
            } else {
                running.erase(image);
            }
            most = std::max(most, running.size());
        }
        EXPECT_GE(most, 2U);
        EXPECT_THAT(running, IsEmpty());
    }
    static std::string image_asked_for(const CallRecord &call) {
        const std::size_t from = call.arguments.find("file=\"") + 6;
        return call.arguments.substr(from, call.arguments.rfind('"') - from);
    }
    std::vector<std::string> written_markers() const { return messages(tagged("WriteUpgMarkerData")); }
};

const std::string reset = "/usr/local/etc/reset_board.sh '-r' 'Auto FPD Upgrade activation' '-b' '36'";
const std::string big_reset = "/usr/local/etc/reset_board.sh '-a' '-r' 'Auto FPD Upgrade activation' '-b' '36'";
const std::string writing = "Writing Upgrade Marker Data\n";

TEST_F(StoryCard, Current) {
    boots("current", 1, 20);
    expect_version("IoFpga", "1.12.0");
    expect_version("BiosPrimary", "3.4.0");
    expect_version("BootRom", "2.0.0");
    expect_version("PowerCpld", "7.1.3");
    EXPECT_THAT(scripts(), IsEmpty());
    EXPECT_THAT(plan(), IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_THAT(messages(tagged("BuildQFpdUpgAvailable")),
                ElementsAre("FPD BootRom has minor down revision available swver 0x2000000 fwver 0x2000001"));
    EXPECT_FALSE(fs::exists(marker_file()));
}

TEST_F(StoryCard, Fresh) {
    boots("fresh", 2, 20);
    for (const auto &[name, version] : std::map<std::string, std::string>{{"IoFpga", "1.12.0"},
                                                                          {"PowerCpld", "7.1.3"},
                                                                          {"FanCpld", "2.2.0"},
                                                                          {"BiosPrimary", "3.4.0"},
                                                                          {"SyncFpga", "1.1.0"},
                                                                          {"ClockGen", "0.9.4"},
                                                                          {"PhyFirmware", "12.0.0"},
                                                                          {"PortFpga", "5.2.0"},
                                                                          {"FabricFpga", "2.0.0"},
                                                                          {"DebugCpld", "1.0.0"}}) {
        expect_version(name, version);
    }
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_THAT(plan(), ElementsAre("IoFpga 0", "PowerCpld 0", "BiosPrimary 1", "PhyFirmware 1", "PortFpga 2",
                                    "FabricFpga 2", "SyncFpga 1", "ClockGen 0"));
    EXPECT_THAT(written_markers(),
                ElementsAre(writing + marker_line("IoFpga", "1.12.0") + marker_line("PowerCpld", "7.1.3") +
                            marker_line("BiosPrimary", "3.4.0") + marker_line("PhyFirmware", "12.0") +
                            marker_line("PortFpga", "5.2.0") + marker_line("FabricFpga", "2.0.0") +
                            marker_line("SyncFpga", "1.1.0") + marker_line("ClockGen", "0.9.4")));
    EXPECT_FALSE(fs::exists(marker_file()));

    EXPECT_THAT(resets(), ElementsAre(big_reset));
    EXPECT_EQ(events().front(), "started: Auto FPD Upgrade Operation Started");
    EXPECT_EQ(events().back(), "ended: Auto FPD Upgrade Operation Ended");
    EXPECT_THAT(events_but_progress(), SizeIs(2 + 2 * 8));
    EXPECT_THAT(scripts(), Contains("/usr/local/etc/punch-watchdog-once.sh"));
    EXPECT_EQ(scripts()[scripts().size() - 2], "/usr/sbin/grub-reboot 'KALDOR-latest'");

    EXPECT_THAT(flash_log(), SizeIs(3 * 8));
    EXPECT_THAT(flash_log(), Contains("FPD 'PhyFirmware' Started to upgrade version 12.0"));
    EXPECT_THAT(flash_log(), Contains("FPD 'PhyFirmware' Upgraded to version 12.0.0"));
    EXPECT_FALSE(fs::exists(state_ / "log/fpd_obfl_log.txt"));
    EXPECT_EQ(state().led(1), (LedLook{2, 4}));
    EXPECT_EQ(state().led(2), (LedLook{1, 3}));

    expect_queues_in_turn({{"iofpga", 0},
                           {"powercpld", 0},
                           {"clockgen", 0},
                           {"bios", 1},
                           {"phy", 1},
                           {"syncfpga", 1},
                           {"portfpga", 2},
                           {"fabricfpga", 2}});
}

TEST_F(StoryCard, GoldenLocked) {
    boots("golden-locked", 3, 20);
    expect_version("IoFpga", "1.0.0");
    expect_version("BiosPrimary", "3.0.0");
    expect_version("BiosGolden", "3.0.0");
    EXPECT_THAT(written_markers(),
                ElementsAre(writing + marker_line("IoFpga", "0.5.0"), writing + marker_line("IoFpga", "1.0.0") +
                                                                          marker_line("BiosPrimary", "3.0.0") +
                                                                          marker_line("BiosGolden", "3.0.0")));
    EXPECT_THAT(resets(), ElementsAre(reset, big_reset));
    EXPECT_FALSE(fs::exists(marker_file()));
    EXPECT_EQ(state().led(1), (LedLook{3, 4}));
    std::vector<std::string> asked;
    for (const CallRecord &call : of_function(calls(), "brd_fpd_upgrade")) {
        if (call.outcome == "begin") asked.push_back(image_asked_for(call));
    }
    EXPECT_THAT(asked, testing::UnorderedElementsAre("iofpga-unlock-0.5.0.img", "iofpga-mfg-1.0.0.img",
                                                     "bios-mfg-3.0.0.img", "bios-golden-3.0.0.img"));
    EXPECT_EQ(asked.front(), "iofpga-unlock-0.5.0.img");
}

TEST_F(StoryCard, Flaky) {
    boots("flaky", 2, usual_speed);
    expect_version("IoFpga", "1.12.0");
    expect_version("PhyFirmware", "12.0.1");
    EXPECT_THAT(errors(), ElementsAre("[FPD] [ERROR] [FpdUpgHdlUpgradeFail] FPD PhyFirmware upgrade failed err_msg "
                                      "sector erase timed out"));
    EXPECT_THAT(events(), Contains(StartsWith("error: ")).Times(1));
    EXPECT_THAT(events(), Contains("error: Auto FPD Upgrade failed for 'PhyFirmware'"));
    EXPECT_THAT(events(), Contains("warning: Auto FPD Upgrade retrying for 'PhyFirmware'"));
    EXPECT_THAT(resets(), ElementsAre(reset));
    EXPECT_EQ(state().led(1), (LedLook{2, 2}));
}

/// Every limit of 180 s is waited for, four times: faster than the other cards.
TEST_F(StoryCard, Hanging) {
    boots("hanging", 2, 40);
    expect_version("IoFpga", "1.12.0");
    expect_version("FabricFpga", "1.0.0");
    EXPECT_THAT(events(), Contains("error: Auto FPD Upgrade worker stuck progressing 40 forever and killing for "
                                   "'FabricFpga'")
                              .Times(4));
    EXPECT_THAT(flash_log(), Contains("FPD 'FabricFpga' Canceling the upgrade to version 2.0.0 since no progress made "
                                      "after 40% within stipulated time")
                                 .Times(4));
    EXPECT_THAT(resets(), ElementsAre(reset));
    EXPECT_THAT(plan(), ElementsAre("IoFpga 0", "FabricFpga 0", "FabricFpga 0"));
    EXPECT_FALSE(fs::exists(marker_file()));
    EXPECT_EQ(state().led(1), (LedLook{2, 2}));
}

TEST_F(StoryCard, ReloadLoop) {
    boots("reload-loop", 3, usual_speed);
    expect_version("IoFpga", "1.12.0");
    expect_version("BootRom", "2.0.0");
    EXPECT_THAT(resets(), ElementsAre(big_reset, big_reset));
    EXPECT_THAT(written_markers(),
                ElementsAre(writing + marker_line("IoFpga", "1.12.0") + marker_line("BootRom", "2.0.1"),
                            writing + marker_line("BootRom", "2.0.1")));
    EXPECT_THAT(messages(tagged("UpgMarkerCheck")),
                Contains("Skipping Upgrade since trying to upgrade same FPDs and Versions").Times(1));
    EXPECT_EQ(read_file(marker_file()), marker_line("BootRom", "2.0.1"));
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_THAT(events(), Contains("started: Auto FPD Upgrade Operation Started").Times(2));
}

TEST_F(StoryCard, Many) {
    boots("many", 2, 20);
    const std::map<std::string, std::string> versions = {
        {"IoFpga", "1.12.0"}, {"Phy", "12.0.1"}, {"Serdes", "0.9.0"}, {"Port", "5.2.0"}};
    EXPECT_THAT(state().regions, SizeIs(24));
    for (const auto &[kind, version] : versions) {
        for (int number = 1; number <= 6; ++number) {
            const std::string name = kind + std::to_string(number);
            expect_version(name, name == "Serdes4" ? "0.8.0" : version);
        }
    }
    EXPECT_THAT(plan(), SizeIs(24 + 1));
    EXPECT_EQ(plan().back(), "Serdes4 2");
    EXPECT_THAT(messages(tagged("FpdUpgHdlUpgradeFail")),
                ElementsAre("FPD Phy3 upgrade failed err_msg no acknowledge on the bus"));
    EXPECT_THAT(events(), Contains("error: Auto FPD Upgrade failed for 'Phy3'"));
    EXPECT_THAT(events(),
                Contains("error: Auto FPD Upgrade worker started stuck forever and killing for 'Serdes4'").Times(4));
    EXPECT_THAT(events(), Contains(HasSubstr("completed for")).Times(23));
    EXPECT_THAT(resets(), ElementsAre(big_reset));
    EXPECT_FALSE(fs::exists(marker_file()));
    EXPECT_EQ(state().led(1), (LedLook{2, 2}));
    EXPECT_THAT(flash_log(), Contains(HasSubstr(" Upgraded to version ")).Times(23));

    expect_queues_in_turn({{"iofpga", 0}, {"phy", 1}, {"serdes", 2}, {"port", 3}});
}

}  // namespace
