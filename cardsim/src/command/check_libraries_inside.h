/// What a process does that the libraries were loaded into before it began, as they are into the tool.
#ifndef CARDSIM_CHECK_LIBRARIES_INSIDE_H
#define CARDSIM_CHECK_LIBRARIES_INSIDE_H

#include <functional>
#include <set>
#include <string>

#include "check_libraries.h"
#include "check_libraries_card.h"
#include "check_libraries_records.h"
#include "check_libraries_report.h"

namespace cardsim {

enum class Part : char {
    load = 'l',         ///< are the libraries and all functions there
    run = 'r',          ///< the calls of a run, with good arguments
    refusal = 'b',      ///< one call with a bad argument
    bad_upgrade = 'x',  ///< one upgrade that has to be refused
    upgrade = 'u',      ///< the upgrade of a region
};

/// What one process is to do. As text it is the value of the hidden option --inside.
struct Stage {
    Part part = Part::load;
    unsigned number = 0;      ///< of the refusal, from 0
    std::set<unsigned> skip;  ///< calls that ended an earlier process like this one
};
std::string text_of(const Stage &stage);

/// The descriptor on which such a process reports.
inline constexpr int report_descriptor = 3;

/// Tells the watching process what is done, and does it.
class Reporter {
  public:
    explicit Reporter(std::set<unsigned> skip) : skip_(std::move(skip)) {}

    using Judge = std::function<Outcome(Records &)>;
    /// Announces the call, makes it and reports how it went, unless it is one to skip. Returns whether it came back
    /// and no record was damaged.
    bool call(Begun begun, const Judge &make_and_judge);
    void send(const Message &message) const;
    /// Calls are made from now on, and not reported.
    void be_quiet() { quiet_ = true; }
    /// From now on they are reported again, and none is skipped.
    void speak() {
        quiet_ = false;
        skip_.clear();
    }

  private:
    std::set<unsigned> skip_;
    unsigned count_ = 0;
    bool quiet_ = false;
};

/// Looks the card up as a run does: identity, LEDs, FPDs. `whole`: and all that is known of every region; else of the
/// names of the first object with a region alone.
void look_at_card(const LibraryCheck &check, Reporter &reporter, Card &card, bool whole);
/// The description of a region's packaged image, and its sum. Returns whether there is one to be programmed.
bool look_at_image(Reporter &reporter, const Card &card, const Region &region, FpdDesc &description);
/// Setters with the values that are there already, and the shell.
void use_settings(Reporter &reporter, const Card &card);
void use_shell(Reporter &reporter);
/// A wrong call. False: there is none of that number.
bool make_wrong_call(Reporter &reporter, const Card &card, unsigned number);
bool make_wrong_upgrade(Reporter &reporter, const Card &card, const std::string &region, unsigned number);
void upgrade_region(Reporter &reporter, const Card &card, const std::string &region);

/// The whole process: an exit status, which says nothing.
int run_inside(const LibraryCheck &check);

}  // namespace cardsim

#endif
