#pragma once

#include "common/BaseTimerImpl.h"
#include "common/Semaphore.h"
#include "common/SingleShotTimerImpl.h"

// Access to private state, for tests that must know that a task is in its wait, hold it outside, or look at
// what is queued. The arguments of an explicit instantiation are exempt from access control, so the public
// headers need no friend.

namespace testing_access {

template <typename Tag, auto Member>
struct Expose {
    friend constexpr auto memberOf(Tag) { return Member; }
};

struct BaseTimerTag {
    friend constexpr auto memberOf(BaseTimerTag);
};
template struct Expose<BaseTimerTag, &cmn::BaseTimer::m_impl>;

struct SingleShotTimerTag {
    friend constexpr auto memberOf(SingleShotTimerTag);
};
template struct Expose<SingleShotTimerTag, &cmn::SingleShotTimer::m_impl>;

struct SemaphoreMutexTag {
    friend constexpr auto memberOf(SemaphoreMutexTag);
};
template struct Expose<SemaphoreMutexTag, &cmn::Semaphore::m_mutex>;

struct SemaphoreConditionTag {
    friend constexpr auto memberOf(SemaphoreConditionTag);
};
template struct Expose<SemaphoreConditionTag, &cmn::Semaphore::m_condition>;

struct SemaphoreCountTag {
    friend constexpr auto memberOf(SemaphoreCountTag);
};
template struct Expose<SemaphoreCountTag, &cmn::Semaphore::m_count>;

inline auto& stateOf(cmn::BaseTimer& timer) {
    return *(timer.*memberOf(BaseTimerTag{}));
}
inline auto& stateOf(cmn::SingleShotTimer& timer) {
    return *(timer.*memberOf(SingleShotTimerTag{}));
}

inline auto& mutexOf(cmn::Semaphore& semaphore) {
    return semaphore.*memberOf(SemaphoreMutexTag{});
}
inline auto& conditionOf(cmn::Semaphore& semaphore) {
    return semaphore.*memberOf(SemaphoreConditionTag{});
}
inline auto& countOf(cmn::Semaphore& semaphore) {
    return semaphore.*memberOf(SemaphoreCountTag{});
}

}  // namespace testing_access
