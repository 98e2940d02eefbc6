/// Whole lives of simulated cards. A test tells what becomes of each region; everything that the card is left with has
/// to follow from it.
#ifndef LIVES_H
#define LIVES_H

#include <map>
#include <string>
#include <vector>

#include "card_test.h"

namespace card_tests {

/// The tightest limit, 3 s for a worker to start, is still 150 ms.
inline constexpr unsigned life_speed = 20;

/// The last states of regions, as the log names them.
namespace fate {
inline const std::string received = "'FPD Capability Received'";
inline const std::string no_image = "'FPD Description Failed'";
inline const std::string refused = "'FPD Can't be Upgraded'";
inline const std::string no_dependency = "'FPD Dependency Failed'";
inline const std::string available = "'FPD Upgrade Available'";
inline const std::string current = "'FPD Upgrade not needed'";
inline const std::string planned = "'FPD Queued for Upgrade'";
inline const std::string progressing = "'FPD Upgrade Progressing'";
inline const std::string failed = "'FPD Upgrade Failed'";
inline const std::string done = "'FPD Upgrade Done'";
}  // namespace fate

/// Running and programmed versions of a region.
inline const RegionState old{"1.0.0", "1.0.0"};
inline const RegionState programmed{"1.0.0", "1.1.0"};
inline const RegionState upgraded{"1.1.0", "1.1.0"};

/// What becomes of one region.
struct Fate {
    std::string name;
    /// A letter for each upgrade attempt, a '|' between two runs.
    ///     D done
    ///     F fails before its first report, G half-way, H at 100 percent
    ///     S silent from its start, T from half-way, U from 100 percent; X as S, and deaf to its cancellation
    ///     K killed with the whole card, or the whole tool, after its first report
    std::string attempts = {};
    std::string state = fate::done;
    RegionState versions = upgraded;
    int queue = -1;  ///< number of its sequence queue where it was planned last; -1: never planned
    std::string from = "1.0.0";
    std::string to = "1.1.0";
};

/// How a run that was carried out ends.
enum class RunEnd { NoReset, GrubRefused, Reset, BigReset, Killed, PowerLost };

/// Everything that a card is left with by the runs of its life.
struct Life {
    std::vector<Fate> fates{};                  ///< of all its regions, in the card's order, all of FPD 10
    std::vector<RunEnd> runs{};                 ///< those that upgraded, or tried to
    std::vector<std::string> errors{};          ///< in the diagnostic log, besides those of the attempts
    std::string marker{};                       ///< text of the marker file; empty: there is none
    int boots = 1;                              ///< number of the last boot
    int flash_file = 1;                         ///< number of the file that holds the event log; 0: the temporary one
    std::vector<std::string> flash_commands{};  ///< "start", "stop"
    LedLook led{2, 4};
};

/// The region with the faults that its attempts need; those of the first run, as they are the same on every boot.
Region with_attempts(Region region, const std::string &attempts);

/// The errors of a dependent that is given up when its turn comes.
std::vector<std::string> given_up(const std::string &name, const std::string &dependency, const std::string &state);

/// The name of a table's row is that of its test.
template <typename Row>
std::string name_of(const testing::TestParamInfo<Row> &info) {
    return info.param.name;
}

class LifeTest : public CardTest {
  protected:
    /// Powers the card on and expects it to be up after the last of these boots, each with a run that ends well.
    void power_on(int first_boot, int last_boot);
    /// Runs an upgrade on the powered card and expects that it could be run.
    void upgrade(const std::vector<std::string> &options = {});
    void expect_life(const Life &life) const;

  private:
    void expect_regions(const Life &life) const;
    void expect_attempts(const Fate &fate, std::size_t region) const;
    void expect_errors(const Life &life) const;
    void expect_scripts(const Life &life) const;
    void expect_events(const Life &life) const;
    void expect_punches(const Life &life) const;
    void expect_flash_log(const Life &life) const;
};

}  // namespace card_tests

#endif
