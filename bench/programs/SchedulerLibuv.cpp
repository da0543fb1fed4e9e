#include <uv.h>

#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "Schedulers.h"

namespace bench {

namespace {

// libuv's timers belong to the loop's thread; what other threads want of them goes there as its manual says,
// by an async handle.
class Libuv : public Scheduler {
public:
    Libuv() {
        uv_loop_init(&m_loop);
        uv_async_init(&m_loop, &m_wake,
                      [](uv_async_t* wake) { static_cast<Libuv*>(wake->data)->runTasks(); });
        m_wake.data = this;
        m_worker = std::thread([this] { uv_run(&m_loop, UV_RUN_DEFAULT); });
    }
    ~Libuv() override {
        post([this] {
            uv_walk(
                &m_loop, [](uv_handle_t* handle, void*) { uv_close(handle, nullptr); }, nullptr);
        });
        m_worker.join();
        uv_loop_close(&m_loop);
    }
    Libuv(const Libuv&) = delete;
    Libuv& operator=(const Libuv&) = delete;
    Libuv(Libuv&&) = delete;
    Libuv& operator=(Libuv&&) = delete;

    void schedule(std::chrono::milliseconds delay, const std::function<void()>& callback) override {
        Entry& entry = m_entries.emplace_back();
        entry.callback = callback;
        entry.timer.data = &entry;
        post([this, delay, &entry] {
            uv_timer_init(&m_loop, &entry.timer);
            uv_update_time(&m_loop);
            uv_timer_start(
                &entry.timer, [](uv_timer_t* timer) { static_cast<Entry*>(timer->data)->callback(); },
                static_cast<std::uint64_t>(delay.count()), 0);
        });
    }
    void cancel(std::size_t entry) override {
        post([timer = &m_entries[entry].timer] { uv_timer_stop(timer); });
    }
    void cancelAll() override {
        post([this] {
            for (Entry& entry : m_entries) {
                uv_timer_stop(&entry.timer);
            }
        });
    }

private:
    struct Entry {
        std::function<void()> callback;
        uv_timer_t timer{};
    };

    void post(std::function<void()> task) {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_tasks.push_back(std::move(task));
        }
        uv_async_send(&m_wake);
    }
    void runTasks() {
        std::vector<std::function<void()>> tasks;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            tasks.swap(m_tasks);
        }
        for (const auto& task : tasks) {
            task();
        }
    }

    uv_loop_t m_loop{};
    uv_async_t m_wake{};
    std::mutex m_mutex;
    std::vector<std::function<void()>> m_tasks;
    std::deque<Entry> m_entries;
    std::thread m_worker;
};

}  // namespace

std::unique_ptr<Scheduler> makeLibuv() {
    return std::make_unique<Libuv>();
}

}  // namespace bench
