/// Threads that run only when the input says so, a clock that moves with it, and the reports that arrive in the message
/// queue: stand-ins for the system calls by the linker. All on one real thread.
#ifndef BOOTUP_FPD_FUZZ_FAKE_SYSTEM_H
#define BOOTUP_FPD_FUZZ_FAKE_SYSTEM_H

#include <functional>

#include "target.h"

struct LocalCard;

namespace fake_system {

/// From here on the calls are the fake's. `between_steps` runs whenever the tool waits, or asks for its next report.
void begin(Input &input, std::function<void()> between_steps);
/// The reports come from this card's workers, and from others.
void use_card(const LocalCard *card);
/// Each thread must have been joined or given up on. Releases what those hold that were given up on, and returns their
/// number. The calls are the system's again.
unsigned end();

/// Times that the tool waited since the input came to its end; the clock goes on in large steps then.
unsigned waits_behind_the_input();

}  // namespace fake_system

#endif
