#pragma once

#include <algorithm>
#include <chrono>

namespace platform {

/// Delays between attempts: the first is `first`, each further one is twice as long, up to `longest`.
class Backoff {
public:
    using Delay = std::chrono::milliseconds;

    constexpr Backoff(Delay first, Delay longest) noexcept
        : m_first(first), m_longest(longest), m_next(first) {}

    /// The delay before the next attempt.
    Delay next() noexcept {
        const Delay delay = m_next;
        m_next = std::min(2 * m_next, m_longest);
        return delay;
    }
    /// Starts over, after an attempt that succeeded.
    void reset() noexcept { m_next = m_first; }

private:
    Delay m_first;
    Delay m_longest;
    Delay m_next;
};

}  // namespace platform
