/// What happened to a card from a power-on until it was up or went no further: its boots, and what became of each
/// region.
///
/// Plain data, made by LifeRecord from the state before, the state after, and the part of the diagnostic log that each
/// boot wrote. Texts are as the card has them: whoever shows one makes it printable.
#ifndef CARDSIM_LIFE_H
#define CARDSIM_LIFE_H

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "card_place.h"
#include "card_state.h"
#include "run.h"
#include "state_directory.h"

namespace cardsim {

/// The diagnostic log in a card's state directory.
inline constexpr const char *diagnostic_log = "log/fpd.log";

/// A version that runs, and what is in flash.
struct RegionVersions {
    FirmwareVersion running;
    FirmwareVersion programmed;
};

struct BootLife {
    uint32_t number = 0;                ///< counting all boots of the card
    std::string began;                  ///< "power on", "power cycle", "reload requested", "watchdog expired"
    std::string ended;                  ///< one line: the card is up, what asked for a reload, what went wrong
    double seconds = 0;                 ///< of the card: those of the clock on the wall times its speed
    std::vector<fpd_log::Run> runs;     ///< of the tool, as the log of this boot tells them
    std::optional<std::string> no_log;  ///< why nothing is known of the runs
};

struct RegionLife {
    uint32_t fpd = 0;   ///< object id
    uint8_t index = 0;  ///< of the region in its FPD
    std::string name;
    RegionVersions before;
    RegionVersions after;
    std::string packaged;                     ///< for the stored upgrade mode; empty: nothing
    std::optional<fpd_log::Outcome> outcome;  ///< absent: the log does not tell
    std::string reason;                       ///< one line, never empty
    uint32_t boot = 0;                        ///< that decided the outcome; 0: none
    uint32_t attempts = 0;                    ///< to upgrade it, in all boots of this life
    bool is_due = false;  ///< the package has another version than the one that runs, and wants it to be upgraded
};

struct Life {
    std::string pid;
    uint32_t slot = 0;
    int status = 0;  ///< as `boot` ends
    std::vector<BootLife> boots;
    std::vector<RegionLife> regions;              ///< in the order of the description
    std::vector<std::string> faults_not_reached;  ///< described for this card, and not met in this life
    std::vector<std::string> made_up_images;      ///< file names
    std::vector<std::string> made_up_files;       ///< scripts and the key file, as they stand in the state directory
};

/// Takes a life down while it goes on. `place` and `state` outlive it. No function throws for want of a readable log.
class LifeRecord {
  public:
    LifeRecord(const CardPlace &place, const StateDirectory &state);

    void begin_boot(uint32_t number, const std::string &began);
    /// After the boot's last line of the log. `seconds` are of the card.
    void end_boot(const std::string &ended, double seconds);
    /// How the life that ended with this status looks from now on. Throws Error when the state cannot be read.
    Life finish(int status);

  private:
    const CardPlace &place_;
    const StateDirectory &state_;
    CardState before_;
    std::uintmax_t faults_begin_ = 0;  ///< where this life begins in faults.log
    std::uintmax_t log_begin_ = 0;     ///< where the open boot begins in the diagnostic log
    Life life_;
};

/// Bytes of the diagnostic log; 0 also for what is no plain file.
std::uintmax_t log_size(const StateDirectory &state);

/// The runs in a part of the diagnostic log, from `begin` on. Throws Error.
std::vector<fpd_log::Run> runs_in_log(const StateDirectory &state, std::uintmax_t begin);

/// What became of a region over several runs: the last word on it, where a later run that found nothing left to do does
/// not take back an upgrade.
struct RegionFate {
    std::optional<fpd_log::Outcome> outcome;
    std::string reason;
    uint32_t boot = 0;
    uint32_t attempts = 0;

    void go_on(const fpd_log::Region &region, uint32_t boot_number);
};

/// A region's name as the tool knows it and logs it.
std::string tools_name(const std::string &name);

/// Regions that are due at the end.
bool is_anything_due(const Life &life);

/// "2 boots: 5 upgraded, 1 refused; not current: FabricFpga"
std::string verdict(const Life &life);
/// The table for people, in `width` columns (0: as many as it takes), printable.
std::string life_text(const Life &life, std::size_t width);
/// The document for programs: cardsim/docs has its shape. Ends with a line break.
std::string life_json(const Life &life);

}  // namespace cardsim

#endif
