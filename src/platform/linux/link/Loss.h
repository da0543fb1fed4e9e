#pragma once

#include "platform/LossPacing.h"

namespace platform {

/// The one loss that a link has and reports: the first that is noted counts, and it is reported only once
/// something was sent, and when the pacing of the process permits. Belongs to the link's private thread.
class Loss {
public:
    enum class Kind {
        None,
        Interruption,  ///< the owner of the service went away or was replaced
        Invalidation,  ///< the bus was lost or could not be opened
    };
    using Clock = LossPacing::Clock;

    explicit Loss(LossPacing& pacing = LossPacing::instance()) : m_pacing(pacing) {}

    void note(Kind kind) {
        if (m_kind == Kind::None) {
            m_kind = kind;
        }
    }
    Kind kind() const { return m_kind; }
    bool isNoted() const { return m_kind != Kind::None; }

    /// A call or a reply was delivered just now, from which the report keeps its distance.
    void callDelivered(Clock::time_point now) { m_pacing.callDelivered(now); }

    /// Zero gives the right to report, for once; anything else is how long to wait before asking again.
    Clock::duration acquireReport(Clock::time_point now) { return m_pacing.acquire(now); }

private:
    LossPacing& m_pacing;
    Kind m_kind = Kind::None;
};

}  // namespace platform
