#include "platform/LossPacing.h"

namespace platform {

LossPacing& LossPacing::instance() {
    static LossPacing pacing;
    return pacing;
}

LossPacing::Clock::duration LossPacing::acquire(Clock::time_point now) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_reported && now < m_lastReport + interval) {
        return m_lastReport + interval - now;
    }
    m_reported = true;
    m_lastReport = now;
    return Clock::duration::zero();
}

}  // namespace platform
