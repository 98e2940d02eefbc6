/// Closed libraries whose every answer comes from an input: counts, ids, names without an end, versions out of range,
/// dependencies that go round, results. What the input says nothing of is the answer of an ordinary card.
///
/// A region is made up when it is first asked for, and stays so unless a call's own byte says otherwise.
#ifndef BOOTUP_FPD_FUZZ_HOSTILE_LIBRARIES_H
#define BOOTUP_FPD_FUZZ_HOSTILE_LIBRARIES_H

#include "target.h"

/// Has the fake platform answer from the input, which the caller keeps. @param mode the stored upgrade mode
void answer_from(Input &input, int mode);
/// Has it answer as an ordinary card again.
void answer_in_good_faith();

#endif
