#include "platform/linux/runloop/PrivateThreads.h"

#include <pthread.h>

#include <system_error>
#include <utility>
#include <vector>

namespace platform {

PrivateThreads& PrivateThreads::instance() {
    static PrivateThreads threads;
    return threads;
}

PrivateThreads::~PrivateThreads() {
    drain();
}

bool PrivateThreads::start(const char* name, std::function<void()> body, std::function<void()> requestStop) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_draining) {
        return false;
    }
    joinEnded();
    m_entries.emplace_back();
    Entry& entry = m_entries.back();
    try {
        entry.thread = std::thread([this, &entry, body = std::move(body)]() mutable {
            body();
            // What the body holds goes before the thread counts as ended: a join must mean that nothing is
            // left.
            body = nullptr;
            const std::lock_guard<std::mutex> endLock(m_mutex);
            entry.ended = true;
        });
    } catch (const std::system_error&) {
        m_entries.pop_back();
        return false;
    }
    entry.requestStop = std::move(requestStop);
    pthread_setname_np(entry.thread.native_handle(), name);
    return true;
}

void PrivateThreads::drain() {
    std::vector<std::function<void()>> stops;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_draining = true;
        for (const Entry& entry : m_entries) {
            stops.push_back(entry.requestStop);
        }
    }
    for (const auto& requestStop : stops) {
        requestStop();
    }
    // No entry is added or removed any more, so the list can be walked without the mutex that ending threads
    // need.
    for (Entry& entry : m_entries) {
        if (entry.thread.joinable()) {
            entry.thread.join();
        }
    }
    m_entries.clear();
}

void PrivateThreads::joinEnded() {
    for (auto entry = m_entries.begin(); entry != m_entries.end();) {
        if (entry->ended) {
            entry->thread.join();
            entry = m_entries.erase(entry);
        } else {
            ++entry;
        }
    }
}

}  // namespace platform
