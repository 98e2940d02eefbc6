/// The fixture of a test that runs the tool on a simulated card of its own.
#ifndef CARD_TEST_H
#define CARD_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "card_records.h"
#include "card_text.h"
#include "files.h"
#include "subprocess.h"

namespace card_tests {

/// So fast do cards run where nothing is meant to time out: the tightest limit, 3 s, is still 300 ms.
inline constexpr unsigned usual_speed = 10;

inline constexpr std::chrono::seconds usual_limit{60};

class CardTest : public testing::Test {
  protected:
    void SetUp() override { set_sanitizer_options(); }
    /// Complains of anything that a sanitizer or the card found; shows the log of a test that failed.
    void TearDown() override;

    /// Describes the card, from the text of a card.toml.
    void describe_text(const std::string &text);
    void describe(const Card &card) { describe_text(card_text(card)); }
    /// Takes a card of the simulator's own.
    void take_card(const std::string &name);

    /// Runs `bootup_fpd` on the powered card.
    Result tool(const std::vector<std::string> &arguments, unsigned speed = usual_speed);
    /// Runs a shell command on the powered card.
    Result shell(const std::string &command, unsigned speed = usual_speed);
    /// Powers the card on until it is up.
    Result boot(unsigned speed = usual_speed, const std::vector<std::string> &more = {});

    std::vector<LogRecord> log() const;
    /// "[component] [ERROR] [tag] message" of each.
    std::vector<std::string> errors() const;
    std::vector<LogRecord> tagged(const std::string &tag) const { return with_tag(log(), tag); }
    std::vector<CallRecord> calls() const;
    std::vector<std::string> scripts() const;
    /// The scripts called to raise events: "warning: Auto FPD Upgrade started for 'IoFpga'".
    std::vector<std::string> events() const;
    /// Those of them that are not the periodic ones.
    std::vector<std::string> events_but_progress() const;
    CardState state() const;
    /// The event lines without their time, of the flash file of that number; throws for one that is not as it has to
    /// be.
    std::vector<std::string> flash_log(int number = 1) const;
    std::vector<std::string> temporary_flash_log() const;
    std::filesystem::path flash_file(int number) const;
    std::filesystem::path marker_file() const;

    /// "IoFpga 0": the regions in the order in which they were planned, with their queue numbers.
    std::vector<std::string> plan() const;

    const TemporaryDirectory directory_{"card-test"};
    const std::filesystem::path root_ = directory_.path();
    const std::filesystem::path card_ = root_ / "card.toml";
    const std::filesystem::path state_ = root_ / "state";

    /// Runs `cardsim`.
    Result run(const std::vector<std::string> &arguments);

  private:
    std::vector<Result> results_;
};

/// The line of the marker file for a region and the version it is upgraded to.
std::string marker_line(const std::string &name, const std::string &version);

/// Expects the status, and all that went to standard output and standard error. Texts that are as expected go on record
/// for the message catalogue.
void expect_answer(const Result &result, int status, const std::string &out, const std::string &err = {},
                   const char *file = __builtin_FILE(), int line = __builtin_LINE());

/// tests/usage.txt with the program's name filled in.
std::string usage_text(const std::string &program);

}  // namespace card_tests

#endif
