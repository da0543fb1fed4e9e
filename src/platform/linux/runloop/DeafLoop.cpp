#include "platform/linux/runloop/DeafLoop.h"

#include <atomic>

#include "platform/SystemLog.h"

namespace platform {

void tellThatLoopIsDeaf() noexcept {
    static std::atomic<bool> told{false};
    if (!told.exchange(true)) {
        writeSystemLog(
            "[ERROR] No descriptors or timers left for the event loop; "
            "screen locks and time zone changes may be missed",
            "");
    }
}

}  // namespace platform
