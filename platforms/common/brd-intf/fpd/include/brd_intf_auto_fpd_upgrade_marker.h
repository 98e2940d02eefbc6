/// The upgrade marker: which FPDs an upgrade takes to which versions, kept in a file across the reload of the card, so
/// that a card whose FPDs come back still out of date is not reloaded for ever.
///
/// Results are 0 or negative errno numbers with a text in err_msg. Main thread; one marker per process.
#ifndef BRD_INTF_AUTO_FPD_UPGRADE_MARKER_H
#define BRD_INTF_AUTO_FPD_UPGRADE_MARKER_H

#include <cstddef>

#include "brd_intf_auto_fpd_upgrade_state.h"

/// The text in memory. All zero at start and when released.
struct UpgradeMarker {
    char *text;            // owned, NUL-terminated; null: empty
    std::size_t capacity;  // bytes allocated for text
    std::size_t length;    // characters written so far; at or above capacity: an entry did not fit, and no other will
};

/// The process's marker.
UpgradeMarker &upg_marker();

/// Appends the record's name and packaged version. -ENOMEM, with the entries so far lost; -ENOBUFS for an entry that
/// does not fit, and for every one after it.
int upg_marker_add_fpd(const Fpd &fpd, char *err_msg, std::size_t err_len);
/// Compares the marker with the file, which need not be there: *same is true when they are equal to the byte.
int upg_marker_check(bool *same, char *err_msg, std::size_t err_len);
/// Writes the marker to the file and releases it; an empty one leaves the file alone.
int upg_marker_write(char *err_msg, std::size_t err_len);
/// Removes the file, if there is one.
int upg_marker_delete(char *err_msg, std::size_t err_len);
/// Drops the text in memory; the file is left alone.
void upg_marker_release();

#endif
