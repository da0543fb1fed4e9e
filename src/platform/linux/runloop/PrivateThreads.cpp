#include "platform/linux/runloop/PrivateThreads.h"

#include <pthread.h>

#include <new>
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
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_draining) {
        lock.unlock();
        requestStop();
        return false;
    }
    joinEnded();
    // On a list of its own until it has its thread.
    std::list<Entry> started;
    try {
        Entry& entry = started.emplace_back();
        entry.thread = std::thread([this, &entry, body = std::move(body)]() mutable {
            body();
            // What the body holds goes before the thread counts as ended: a join must mean that nothing is
            // left.
            body = nullptr;
            const std::lock_guard<std::mutex> endLock(m_mutex);
            entry.ended = true;
        });
    } catch (const std::system_error&) {
        return false;
    } catch (const std::bad_alloc&) {
        return false;
    }
    started.front().requestStop = std::move(requestStop);
    pthread_setname_np(started.front().thread.native_handle(), name);
    m_entries.splice(m_entries.end(), started);
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
