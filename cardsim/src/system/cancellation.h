/// Keeping pthread_cancel out of what it must not tear.
#ifndef CARDSIM_CANCELLATION_H
#define CARDSIM_CANCELLATION_H

#include <pthread.h>

namespace cardsim {

/// This thread cannot be cancelled while it exists.
class CancellationDisabled {
  public:
    CancellationDisabled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &earlier_); }
    ~CancellationDisabled() { pthread_setcancelstate(earlier_, nullptr); }
    CancellationDisabled(const CancellationDisabled &) = delete;
    CancellationDisabled &operator=(const CancellationDisabled &) = delete;

    int earlier() const { return earlier_; }

  private:
    int earlier_ = PTHREAD_CANCEL_ENABLE;
};

/// This thread can be cancelled again, if it could before `disabled`, while it exists. A function with such a scope is
/// left by unwinding: what it opened before needs an owner.
class CancellationAsBefore {
  public:
    explicit CancellationAsBefore(const CancellationDisabled &disabled) {
        pthread_setcancelstate(disabled.earlier(), nullptr);
    }
    ~CancellationAsBefore() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); }
    CancellationAsBefore(const CancellationAsBefore &) = delete;
    CancellationAsBefore &operator=(const CancellationAsBefore &) = delete;
};

}  // namespace cardsim

#endif
