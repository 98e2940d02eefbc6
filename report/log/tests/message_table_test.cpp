/// The reader's table against the catalogue of what the tool can log.

#include "message_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "message_catalogue.h"

namespace {

using fpd_log::Captures;
using fpd_log::match;
using fpd_log::Message;
using fpd_log::messages_of;
using testing::IsEmpty;

using TagAndFormat = std::pair<std::string, std::string>;

std::set<TagAndFormat> catalogue_rows() {
    std::set<TagAndFormat> rows;
    for (const catalogue::LogModuleRows &module : catalogue::log_modules)
        for (const catalogue::LogRow &row : module.rows) rows.emplace(row.tag, row.format);
    return rows;
}

std::set<TagAndFormat> table_rows() {
    std::set<TagAndFormat> rows;
    for (const Message &message : fpd_log::messages()) rows.emplace(message.tag, message.format);
    return rows;
}

std::vector<TagAndFormat> without(const std::set<TagAndFormat> &all, const std::set<TagAndFormat> &others) {
    std::vector<TagAndFormat> rest;
    std::set_difference(all.begin(), all.end(), others.begin(), others.end(), std::back_inserter(rest));
    return rest;
}

TEST(MessageTable, HasEveryMessageThatTheToolCanLogAndNoOther) {
    EXPECT_THAT(without(catalogue_rows(), table_rows()), IsEmpty()) << "logged, but not in the reader's table";
    EXPECT_THAT(without(table_rows(), catalogue_rows()), IsEmpty()) << "in the reader's table, but not logged";
}

TEST(MessageTable, NamesARegionWhereItsFormatNamesOne) {
    for (const Message &message : fpd_log::messages()) {
        const bool has_name = message.format.find("FPD %s ") != std::string_view::npos;
        EXPECT_TRUE(!has_name || message.subject >= 0) << message.tag << ": " << message.format;
    }
}

const Message &message_of(std::string_view tag) {
    return messages_of(tag).front();
}

TEST(MessageTable, FindsBothMessagesOfATagThatTwoModulesHave) {
    EXPECT_EQ(messages_of("UpgMarkerCheck").size(), 2U);
    EXPECT_EQ(messages_of("NoSuchTag").size(), 0U);
}

TEST(MessageTable, LeavesWhatIsAmbiguousToTheNameWhenTheMessageTellsItsEnd) {
    Captures captures;
    ASSERT_TRUE(match(message_of("UpdateFpdTransitionState"),
                      "FPD a transitioning state from b to c] [ at 7 transitioning state from 'x' to 'y' at 12",
                      &captures));
    EXPECT_EQ(captures[0], "a transitioning state from b to c] [ at 7");
    EXPECT_EQ(captures[1], "'x'");
    EXPECT_EQ(captures[2], "'y'");
    EXPECT_EQ(captures[3], "12");
}

TEST(MessageTable, LeavesWhatIsAmbiguousToAFreeTextAtTheEnd) {
    Captures captures;
    ASSERT_TRUE(match(message_of("FpdUpgHdlUpgradeFail"), "FPD a upgrade failed err_msg b upgrade failed err_msg c",
                      &captures));
    EXPECT_EQ(captures[0], "a");
    EXPECT_EQ(captures[1], "b upgrade failed err_msg c");
}

TEST(MessageTable, TakesNumbersAndAddressesForWhatTheyAreOnly) {
    Captures captures;
    EXPECT_TRUE(match(message_of("FpdUpgradeProgress"), "FPD a upgrade progressing percent -3", &captures));
    EXPECT_FALSE(match(message_of("FpdUpgradeProgress"), "FPD a upgrade progressing percent 3x", &captures));
    EXPECT_FALSE(match(message_of("FpdUpgradeProgress"), "FPD a upgrade progressing percent ", &captures));
    EXPECT_TRUE(match(message_of("RmFpdQueueHead"), "FPD a removed from head (nil)", &captures));
    EXPECT_FALSE(match(message_of("RmFpdQueueHead"), "FPD a removed from head 12", &captures));
}

TEST(MessageTable, TakesNoTextInWhichTheFrontAndTheEndOverlap) {
    Captures captures;
    EXPECT_FALSE(match(message_of("BuildQFpdUpgradeable"), "FPD is upgradeable", &captures));
}

}  // namespace
