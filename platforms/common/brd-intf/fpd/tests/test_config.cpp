#include <climits>
#include <cstring>

#include "brd_intf_auto_fpd_upgrade_config.h"
#include "fake_platform.h"
#include "test_support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr Module config_module{"FPD", "brd_intf_auto_fpd_upgrade_config"};

struct AutoUpgradeConfig : CardTest {
    int get() { return get_auto_fpd_upgrade_config(enabled, err_msg, sizeof err_msg); }

    int enabled = -99;
};

TEST_F(AutoUpgradeConfig, IsEnabledByAStored1WithoutAWord) {
    fake_platform().auto_upgrade = 1;
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(enabled, 1);
    EXPECT_STREQ(err_msg, "");
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_THAT(fake_platform().calls(), SizeIs(1));
    EXPECT_THAT(fake_platform().calls_of("brd_intf_fpd_upgrade_cookie_get_auto_upgrade_config"), SizeIs(1));
}

TEST_F(AutoUpgradeConfig, IsReportedUnchangedForEveryOtherValue) {
    for (const int stored : {0, 2, -1, INT_MAX, INT_MIN}) {
        clear_log();
        fake_platform().auto_upgrade = stored;
        EXPECT_EQ(get(), 0);
        EXPECT_EQ(enabled, stored);
        EXPECT_STREQ(err_msg, "");
        EXPECT_THAT(log_lines(), ElementsAre(log_line(config_module, "INFO", "AutoFpdUpgCfgNotEna",
                                                      "Auto FPD Upgrade is not enabled on the system")));
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
        EXPECT_EQ(get(), rc);
        EXPECT_EQ(enabled, 1);
        EXPECT_STREQ(err_msg, "cookie is gone");
        EXPECT_THAT(log_lines(),
                    ElementsAre(log_line(config_module, "ERROR", "BrdIntfFpdUpgCfg",
                                         "BRD interface auto FPD upgrade config get failed err_msg cookie is gone")));
    }
}

TEST_F(AutoUpgradeConfig, ShowsNoEarlierTextWhenTheStoreGivesNone) {
    fake_platform().cookie_get_auto_upgrade_config = [](auto...) { return -13; };
    EXPECT_EQ(get(), -13);
    EXPECT_EQ(enabled, 1);
    EXPECT_STREQ(err_msg, "");
    expect_log(config_module, "ERROR", "BrdIntfFpdUpgCfg", "BRD interface auto FPD upgrade config get failed err_msg ");
}

TEST_F(AutoUpgradeConfig, EndsATextThatTheStoreDoesNotEnd) {
    fake_platform().cookie_get_auto_upgrade_config = [](int *, char *text, std::size_t size) {
        std::memset(text, 'x', size);
        return -13;
    };
    EXPECT_EQ(get(), -13);
    expect_log(config_module, "ERROR", "BrdIntfFpdUpgCfg",
               "BRD interface auto FPD upgrade config get failed err_msg " + std::string(255, 'x'));
}

TEST_F(AutoUpgradeConfig, Is0WhenTheStoreTellsOfNone) {
    fake_platform().cookie_get_auto_upgrade_config = [](auto...) { return 0; };
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(enabled, 0);
}

}  // namespace
