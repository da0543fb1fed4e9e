#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

#include "common/Semaphore.h"
#include "common/SingleShotTimer.h"

namespace cmn {

/// One scheduled callback. Cancelling edits entries where they lie, so that the heap need not be searched for
/// one to take out; the worker throws the remains away when they come to the top.
struct SingleShotTimer::TimerEntry {
    std::uint64_t id = 0;                           ///< 0: not to be called
    std::chrono::steady_clock::time_point dueTime;  ///< the clock's epoch: due at once
    std::function<void()> callback;                 ///< empty: to be thrown away

    bool operator>(const TimerEntry& other) const { return dueTime > other.dueTime; }
};

/// A scheduler's state, apart from the scheduler so that the worker is not concerned with moves.
struct SingleShotTimer::SingleShotTimerImpl {
    /// The earliest due on top.
    struct Queue : std::priority_queue<TimerEntry, std::vector<TimerEntry>, std::greater<>> {
        /// The entries as they are stored; whoever changes a due time must keep the heap a heap.
        std::vector<TimerEntry>& stored() { return c; }
    };

    bool m_stopped = false;      ///< the worker thread's own
    std::uint64_t m_lastId = 0;  ///< guarded by m_mutex
    Queue m_queue;               ///< guarded by m_mutex
    Semaphore m_semaphore;       ///< one notification for each change that the worker must look at
    std::thread m_worker;
    std::mutex m_mutex;  ///< not held while a callback runs, nor while m_semaphore is used
};

}  // namespace cmn
