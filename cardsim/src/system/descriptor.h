/// An open file that is closed with its owner.
#ifndef CARDSIM_DESCRIPTOR_H
#define CARDSIM_DESCRIPTOR_H

#include <unistd.h>

#include <string>
#include <utility>

#include "cancellation.h"

namespace cardsim {

class Descriptor {
  public:
    Descriptor() = default;
    /// Owns an open file; a negative number is none.
    explicit Descriptor(int opened) : number_(opened) {}
    Descriptor(Descriptor &&other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() { reset(); }

    int get() const { return number_; }
    bool is_open() const { return number_ >= 0; }
    /// A name for the file, for what knows files by their names alone; it goes when the file is closed.
    std::string name() const { return "/proc/self/fd/" + std::to_string(number_); }

    /// Closes the file now, never as a cancellation point. Returns false when the system did not keep all of it.
    bool reset() {
        const CancellationGuard uncancelled(PTHREAD_CANCEL_DISABLE);
        const int closing = std::exchange(number_, -1);
        return closing < 0 || close(closing) == 0;
    }

  private:
    int number_ = -1;
};

}  // namespace cardsim

#endif
