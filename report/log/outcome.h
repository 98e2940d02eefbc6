/// What became of a region, and why, in one line: from the messages that decide it.
#ifndef FPD_LOG_OUTCOME_H
#define FPD_LOG_OUTCOME_H

#include <optional>
#include <string>

#include "message_table.h"
#include "run.h"

namespace fpd_log {

struct Verdict {
    Outcome outcome = Outcome::unfinished;
    std::string reason;
};

/// Of a message that decides it by itself; nullopt: it does not.
std::optional<Verdict> verdict_of(Meaning meaning, const Captures &captures, const Region &region);

/// Of a state that a region entered, where no message said more before; nullopt: the region goes on from that state.
/// `upgrading`: the run has started to upgrade.
std::optional<Verdict> verdict_of_state(std::string_view state, bool upgrading, const Region &region);

/// Of what is left undecided when the log tells no more.
struct Undecided {
    enum class Step { found, queued, working } step = Step::found;
};
Verdict verdict_of_undecided(Undecided undecided, const Region &region, const Run &run);

/// "stuck in 'FPD Upgrade Progressing' at 40 % for 180.2 s (limit 180 s)"; times in µs.
std::string stuck_reason(std::string_view state, int progress, std::int64_t time, std::int64_t limit);

}  // namespace fpd_log

#endif
