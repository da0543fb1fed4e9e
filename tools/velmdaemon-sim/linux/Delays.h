#pragma once

#include <chrono>
#include <functional>
#include <list>

#include "linux/Handles.h"

namespace sim {

/// Runs work once, later, on an event loop. Work still open when this object ends is dropped.
/// Single-threaded.
class Delays {
public:
    /// `event` must outlive this object.
    explicit Delays(sd_event* event) : m_event(event) {}
    Delays(const Delays&) = delete;
    Delays& operator=(const Delays&) = delete;
    Delays(Delays&&) = delete;
    Delays& operator=(Delays&&) = delete;
    ~Delays() = default;

    /// Throws Failure if the loop takes no more timers.
    void after(std::chrono::milliseconds delay, std::function<void()> work);

private:
    struct Entry {
        void due();

        Delays* owner;
        std::function<void()> work;
        SourceHandle source;
    };

    sd_event* m_event;
    std::list<Entry> m_entries;
};

}  // namespace sim
