#pragma once

#include <functional>

#include "platform/linux/process/FileDescriptor.h"
#include "platform/linux/runloop/EventHandles.h"

namespace platform {

/// Tells when a file system is mounted or unmounted, which inotify does not. A mount table that changes all
/// the time wakes the process twice a second at most. Everything on the loop's thread.
class MountWatch {
public:
    /// `changed` is called after each change, for several close together once. `loop` must outlive this
    /// object. Where the mount table cannot be watched nothing is ever told.
    MountWatch(sd_event* loop, std::function<void()> changed);
    ~MountWatch() = default;
    MountWatch(const MountWatch&) = delete;
    MountWatch& operator=(const MountWatch&) = delete;

private:
    void tableChanged();

    std::function<void()> m_changed;
    FileDescriptor m_table;
    SourceHandle m_source;
};

}  // namespace platform
