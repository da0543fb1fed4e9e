#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "link/support/BusPeer.h"
#include "link/support/PrivateBus.h"

namespace link_tests {

/// A user's session bus with MATE's screen saver on it, which says what a test wants: a way to have many
/// edges at once while the system bus stands still.
class MateDesktop {
public:
    /// The saver belongs to `user`. Throws std::exception if it does not get its name.
    explicit MateDesktop(uid_t user);

    const std::string& busAddress() const { return m_bus.address(); }
    /// The saver says that it is active, or no longer. Who does not watch it yet misses that.
    void emit(bool active);
    /// An unlock and a lock, `rounds` times.
    void unlockAndLock(std::size_t rounds);
    /// Returns once the bus has read all that was said.
    void await() { m_saver.call(busDriver, "GetId", ""); }

private:
    PrivateBus m_bus;
    BusPeer m_saver;
};

}  // namespace link_tests
