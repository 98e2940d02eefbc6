#include "happenings.h"

#include <array>

namespace properties {

std::vector<std::string> missing(const Happenings &happenings) {
    constexpr std::array must_happen = {
        "runs of upgrade",
        "runs of check_upgrade",
        "runs of list_upgrade",
        "runs of get_config",
        "runs of set_config=enable",
        "runs of set_config=disable",
        "runs of get_upgrade_mode",
        "runs of set_upgrade_mode=mfg",
        "boot-time runs",
        "back-end runs",
        "plans in mode 'Regular'",
        "plans in mode 'Manufacturing'",
        "plans in mode 'Dummy Minor Version'",
        "plans in mode 'Dummy Major Version'",
        "plans in mode 'Unknown'",
        "manufacturing: nothing needs an unlocked Golden",
        "manufacturing: Golden is unlocked",
        "manufacturing: nothing unlocks Golden",
        "plans",
        "empty plans",
        "loads without an FPD",
        "planned FPDs",
        "sequence queues of several FPDs",
        "FPDs that wait for another in the plan",
        "dependencies resolved",
        "versions out of the compact range",
        "packaged versions of another kind",
        "markers without room",
        "marker files before the first run",
        "decision BuildFpdAddedSeqQueue",
        "decision BuildFpdDepAddedSeqQueue",
        "decision BuildQDepFpdUpgRequired",
        "decision BuildQDependFpdBad",
        "decision BuildQFpdCantUpgraded",
        "decision BuildQFpdCircularDepend",
        "decision BuildQFpdDepCantUpgraded",
        "decision BuildQFpdDepMfgOnlyUpgradeable",
        "decision BuildQFpdDependNotFound",
        "decision BuildQFpdMfgOnlyUpgradeable",
        "decision BuildQFpdMfgUpgradeable",
        "decision BuildQFpdSeqOutOfRange",
        "decision BuildQFpdUpgAvailable",
        "decision BuildQFpdUpgNotNeeded",
        "decision BuildQRevNotSupportUpgrade",
        "decision InitFpdAddQFail",
        "decision InitFpdDescFail",
        "decision InitFpdGetNameFail",
        "decision InitFpdInfoGetFail",
        "decision InitFpdMd5SumFailed",
        "decision InitFpdSkipAutoFpdUpgNotBootUp",
        "decision InitFpdSkipAutoFpdUpgNotSupported",
        "decision InitFpdSkipNotACanUnlockGolden",
        "decision InitFpdSkipNotAUpgdReqGoldenUnlockPrimary",
        "runs with auto-upgrade disabled",
        "runs that end early",
        "runs that the marker skips",
        "upgrade runs",
        "upgraded FPDs",
        "retries",
        "failures",
        "hangs at the start",
        "hangs half-way",
        "FPDs given up",
        "FPDs refused for what they depend on",
        "firmware that does not stick",
        "failing calls",
        "failing grub-reboot",
        "reloads",
        "reloads with -a",
        "upgrades that need no reload",
        "boots after a reload",
    };
    std::vector<std::string> never;
    for (const char *what : must_happen) {
        if (happenings.find(what) == happenings.end()) never.emplace_back(what);
    }
    return never;
}

}  // namespace properties
