/// A card while it boots, for whoever watches it on a terminal.
#ifndef CARDSIM_LIVE_VIEW_H
#define CARDSIM_LIVE_VIEW_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "card_description.h"
#include "run.h"
#include "run_reader.h"
#include "state_directory.h"
#include "terminal_screen.h"

namespace cardsim {

// ---- what is seen

enum class RegionPhase { running, bad, waiting, good, idle };

struct RegionMoment {
    std::string name;
    RegionPhase phase = RegionPhase::idle;
    std::string state;     ///< a word or two
    std::string versions;  ///< "1.0.0 > 2.0.0"
    std::optional<int> queue;
    int progress = 0;               ///< percent
    std::optional<double> seconds;  ///< of the card, of its last attempt
};

struct CardMoment {
    std::string pid;
    uint32_t slot = 0;
    uint32_t boot = 0;
    std::string began;   ///< why
    double seconds = 0;  ///< of the card, since the boot began
    std::string led;
    std::optional<double> watchdog_age;  ///< s of the card; absent: there is no watchdog
    double watchdog_limit = 0;           ///< s of the card
    std::string event;                   ///< the last one
    std::vector<RegionMoment> regions;
};

/// At most `rows` lines of at most `columns`. Where the regions do not fit, those that run stand first, two in a line
/// if need be, and the last line sums up the rest.
std::vector<ScreenLine> view_lines(const CardMoment &moment, std::size_t rows, std::size_t columns);

/// What a run tells of a region at a time (as of the log, in microseconds) on a card that is `speed` times as fast.
RegionMoment region_moment(const fpd_log::Region &region, fpd_log::Time now, uint32_t speed);

// ---- the watching

class LiveView {
  public:
    /// `card` and `state` outlive it.
    LiveView(const CardDescription &card, const StateDirectory &state, uint32_t speed,
             std::unique_ptr<TerminalScreen> screen);

    void begin_boot(uint32_t number, const std::string &why);
    /// Draws anew when it is time to. `watchdog_age`: since the last punch.
    void look(std::optional<std::chrono::steady_clock::duration> watchdog_age);

  private:
    using Clock = std::chrono::steady_clock;

    const CardDescription &card_;
    const StateDirectory &state_;
    uint32_t speed_;
    std::unique_ptr<TerminalScreen> screen_;
    std::unique_ptr<fpd_log::RunReader> reader_;
    std::optional<fpd_log::Run> last_run_;  ///< of this boot, when a run has ended and none is open
    std::uintmax_t log_read_ = 0;           ///< bytes of the diagnostic log
    uint32_t boot_ = 0;
    std::string began_;
    Clock::time_point begin_;
    Clock::time_point drawn_;

    void follow_log();
    CardMoment moment(std::optional<Clock::duration> watchdog_age) const;
    std::vector<RegionMoment> region_moments(const fpd_log::Run *run) const;
};

}  // namespace cardsim

#endif
