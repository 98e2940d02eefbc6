#include <climits>
#include <cstdio>

#include "brd_intf_auto_fpd_upgrade_config.h"
#include "fake_platform.h"
#include "test_support.h"

namespace {

using testing::ElementsAre;

constexpr Module config_module{"FPD", "brd_intf_auto_fpd_upgrade_config"};

struct AutoUpgradeConfig : CardTest {
    int get() { return get_auto_fpd_upgrade_config(enabled, err_msg, sizeof err_msg); }

    int enabled = -99;
};

TEST_F(AutoUpgradeConfig, IsReportedUnchangedAndLoggedWhereItIsNot1) {
    expect_unlogged(get(), 0);
    EXPECT_EQ(enabled, 1);
    EXPECT_THAT(fake_platform().calls(),
                ElementsAre(FakeCall{"brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config", ""}));
    for (const int stored : {0, 2, -1, INT_MAX, INT_MIN}) {
        clear_log();
        fake_platform().auto_upgrade = stored;
        expect_result(get(), 0);
        EXPECT_EQ(enabled, stored);
        expect_only_log(config_module, "INFO", "AutoFpdUpgCfgNotEna", "Auto FPD Upgrade is not enabled on the system");
    }
}

TEST_F(AutoUpgradeConfig, CountsAsEnabledWhenTheStoreFails) {
    for (const int rc : {-13, 7}) {
        clear_log();
        enabled = -99;
        fake_platform().cookie_get_auto_upgrade_config = [&](int *value, char *text, std::size_t size) {
            EXPECT_EQ(enabled, 1);
            EXPECT_EQ(text, err_msg);
            *value = 0;
            std::snprintf(text, size, "cookie is gone");
            return rc;
        };
        expect_result(get(), rc, "cookie is gone");
        EXPECT_EQ(enabled, 1);
        expect_only_log(config_module, "ERROR", "BrdIntfFpdUpgCfg",
                        "BRD interface auto FPD upgrade config get failed err_msg cookie is gone");
    }
}

TEST_F(AutoUpgradeConfig, Is0WhenTheStoreTellsOfNone) {
    fake_platform().cookie_get_auto_upgrade_config = [](auto...) { return 0; };
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(enabled, 0);
}

}  // namespace
