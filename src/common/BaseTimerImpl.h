#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <future>
#include <mutex>

#include "common/BaseTimer.h"

namespace cmn {

/// A timer's state, apart from the timer so that it can be handed on by a move.
struct BaseTimer::BaseTimerImpl {
    std::atomic<bool> m_singleShot{false};
    std::atomic<std::int64_t> m_interval{0};  ///< in milliseconds
    std::function<void()> m_callback;
    std::atomic<bool> m_active{false};  ///< the timer is wanted running
    std::atomic<bool> m_inTask{false};  ///< a task is at work; stays set when an exception ended it
    std::mutex m_mutex;                 ///< held by the task, in the callback too; free only during its wait
    std::condition_variable m_condition;
    std::future<void> m_task;  ///< the present or the last task; empty before the first
};

}  // namespace cmn
