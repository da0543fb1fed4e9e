#include "platform/LossPacing.h"

#include <algorithm>

namespace platform {

LossPacing& LossPacing::instance() {
    static LossPacing pacing(Clock::now() + interval);
    return pacing;
}

void LossPacing::callDelivered(Clock::time_point now) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_earliest = std::max(m_earliest, now + distanceToCalls);
}

LossPacing::Clock::duration LossPacing::acquire(Clock::time_point now) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (now < m_earliest) {
        return m_earliest - now;
    }
    m_earliest = now + interval;
    return Clock::duration::zero();
}

}  // namespace platform
