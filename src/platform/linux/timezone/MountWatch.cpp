#include "platform/linux/timezone/MountWatch.h"

#include <fcntl.h>
#include <sys/epoll.h>

#include <cstdint>
#include <utility>

#include "platform/linux/process/OutHandle.h"
#include "platform/linux/runloop/EventCallback.h"

namespace platform {

MountWatch::MountWatch(sd_event* loop, std::function<void()> changed)
    : m_changed(std::move(changed)), m_table(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)) {
    // A change is an urgent event, and asking for it takes it: proc(5), "/proc/pid/mounts".
    if (m_table && sd_event_add_io(loop, OutHandle(m_source), m_table.get(), EPOLLPRI,
                                   &eventCallback<&MountWatch::tableChanged, MountWatch>, this) >= 0) {
        constexpr std::uint64_t intervalInMicroseconds = 1000000;
        constexpr unsigned timesInInterval = 2;
        sd_event_source_set_ratelimit(m_source.get(), intervalInMicroseconds, timesInInterval);
    }
}

void MountWatch::tableChanged() {
    m_changed();
}

}  // namespace platform
