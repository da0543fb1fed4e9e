#pragma once

namespace platform {

/// Says in the system log that events will be missed, because the system gave the main run loop no source or
/// timer: no descriptors are left, or a filter of system calls forbids them. One line in the life of the
/// process, however often it is called, from any thread.
void tellThatLoopIsDeaf() noexcept;

}  // namespace platform
