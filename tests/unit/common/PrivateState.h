#pragma once

#include "common/BaseTimerImpl.h"

// Access to the timers' private state, for tests that must know that a task is in its wait, or hold it
// outside. The arguments of an explicit instantiation are exempt from access control, so the public headers
// need no friend.

namespace testing_access {

template <typename Tag, auto Member>
struct Expose {
    friend constexpr auto memberOf(Tag) { return Member; }
};

struct BaseTimerTag {
    friend constexpr auto memberOf(BaseTimerTag);
};
template struct Expose<BaseTimerTag, &cmn::BaseTimer::m_impl>;

inline auto& stateOf(cmn::BaseTimer& timer) {
    return *(timer.*memberOf(BaseTimerTag{}));
}

}  // namespace testing_access
