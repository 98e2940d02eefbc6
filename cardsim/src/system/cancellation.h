/// Keeping pthread_cancel out of what it must not tear.
#ifndef CARDSIM_CANCELLATION_H
#define CARDSIM_CANCELLATION_H

#include <pthread.h>

namespace cardsim {

/// This thread can be cancelled, or cannot, while it exists: PTHREAD_CANCEL_ENABLE or PTHREAD_CANCEL_DISABLE. A scope
/// with one that enables is left by unwinding: what it opened before needs an owner.
class CancellationGuard {
  public:
    explicit CancellationGuard(int state) { pthread_setcancelstate(state, &earlier_); }
    ~CancellationGuard() { pthread_setcancelstate(earlier_, nullptr); }
    CancellationGuard(const CancellationGuard &) = delete;
    CancellationGuard &operator=(const CancellationGuard &) = delete;

    /// What held before: to a guard in a narrower scope, it lifts this one there.
    int earlier() const { return earlier_; }

  private:
    int earlier_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace cardsim

#endif
