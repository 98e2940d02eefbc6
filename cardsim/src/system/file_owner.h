/// An open file that is closed with its owner.
#ifndef CARDSIM_FILE_OWNER_H
#define CARDSIM_FILE_OWNER_H

#include <unistd.h>

#include "cancellation.h"

namespace cardsim {

struct FileOwner {
    int handle;  ///< negative: none

    explicit FileOwner(int opened) : handle(opened) {}
    ~FileOwner() { reset(); }
    FileOwner(const FileOwner &) = delete;
    FileOwner &operator=(const FileOwner &) = delete;

    /// Closes the file now; never a cancellation point.
    void reset() {
        const CancellationDisabled uncancelled;
        if (handle >= 0) {
            close(handle);
        }
        handle = -1;
    }
};

}  // namespace cardsim

#endif
