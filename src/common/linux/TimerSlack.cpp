#include "common/TimerSlack.h"

#include <sys/prctl.h>

void cmn::waitPunctually() noexcept {
    // prctl(2): in nanoseconds, of the calling thread; 0 would mean the default.
    static_cast<void>(prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL));
}
