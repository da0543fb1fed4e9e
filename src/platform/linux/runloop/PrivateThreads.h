#pragma once

#include <functional>
#include <list>
#include <mutex>
#include <thread>

namespace platform {

/// The threads that connections and operation queues run on, each owned here and joined here, so that whoever
/// lets go of a connection or a queue never waits for its thread, not even when it is that thread itself.
///
/// All operations are safe on any thread, but `drain` must not be called on one of the threads.
class PrivateThreads {
public:
    /// The process's own; the main run loop drains it before it returns. Joins what is left when the process
    /// ends.
    static PrivateThreads& instance();

    PrivateThreads() = default;
    ~PrivateThreads();
    PrivateThreads(const PrivateThreads&) = delete;
    PrivateThreads& operator=(const PrivateThreads&) = delete;

    /// Runs `body`, which must not throw, on a new thread named `name` (at most 15 bytes count,
    /// pthread_setname_np(3)). `requestStop` must make it end soon and may be called on any thread, also
    /// after it ended. False if the system gives no thread or no memory for it; then neither function is ever
    /// called. False too once `drain` has begun; then `requestStop` is called before this returns, as
    /// whatever was to run must let go of what it holds.
    bool start(const char* name, std::function<void()> body, std::function<void()> requestStop);

    /// Asks every thread to stop and waits until all have ended. No thread starts from then on.
    void drain();

private:
    struct Entry {
        std::thread thread;
        std::function<void()> requestStop;
        bool ended = false;
    };

    void joinEnded();

    std::mutex m_mutex;
    std::list<Entry> m_entries;
    bool m_draining = false;
};

}  // namespace platform
