#include <event2/event.h>
#include <event2/thread.h>

#include <deque>
#include <thread>
#include <utility>

#include "Schedulers.h"

namespace bench {

namespace {

class Libevent : public Scheduler {
public:
    Libevent() {
        evthread_use_pthreads();
        event_config* config = event_config_new();
        // Its clock counts in ticks of up to 4 ms without this.
        event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);
        m_base = event_base_new_with_config(config);
        event_config_free(config);
        m_worker = std::thread([this] { event_base_loop(m_base, EVLOOP_NO_EXIT_ON_EMPTY); });
    }
    ~Libevent() override {
        event_base_loopbreak(m_base);
        m_worker.join();
        for (Entry& entry : m_entries) {
            event_free(entry.handle);
        }
        event_base_free(m_base);
    }
    Libevent(const Libevent&) = delete;
    Libevent& operator=(const Libevent&) = delete;
    Libevent(Libevent&&) = delete;
    Libevent& operator=(Libevent&&) = delete;

    void schedule(std::chrono::milliseconds delay, const std::function<void()>& callback) override {
        Entry& entry = m_entries.emplace_back();
        entry.callback = callback;
        entry.handle = evtimer_new(
            m_base, [](evutil_socket_t, short, void* self) { static_cast<Entry*>(self)->callback(); },
            &entry);
        const timeval length = {static_cast<time_t>(delay.count() / 1000),
                                static_cast<suseconds_t>(delay.count() % 1000 * 1000)};
        evtimer_add(entry.handle, &length);
    }
    void cancel(std::size_t entry) override { evtimer_del(m_entries[entry].handle); }
    void cancelAll() override {
        for (Entry& entry : m_entries) {
            evtimer_del(entry.handle);
        }
    }

private:
    struct Entry {
        std::function<void()> callback;
        event* handle = nullptr;
    };

    event_base* m_base = nullptr;
    std::deque<Entry> m_entries;
    std::thread m_worker;
};

}  // namespace

std::unique_ptr<Scheduler> makeLibevent() {
    return std::make_unique<Libevent>();
}

}  // namespace bench
