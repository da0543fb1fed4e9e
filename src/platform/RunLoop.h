#pragma once

namespace platform {

/// The main thread's event loop. While it runs, it delivers the distributed notifications and watches for
/// what the platform posts.
class IRunLoop {
public:
    virtual ~IRunLoop() = default;

    /// Runs the loop on the calling thread, which must be the main thread, until the process is asked to end
    /// (on Linux by SIGTERM or SIGINT; on macOS it does not return). On return, delivery of notifications has
    /// stopped, the private threads of connections and queues have ended, and no callback is under way or
    /// will come.
    virtual void run() = 0;
};

/// The one main run loop; lives until the process ends.
IRunLoop& mainRunLoop();

}  // namespace platform
