#include "Schedulers.h"

#include <cstdint>
#include <vector>

#include "common/SingleShotTimer.h"

namespace bench {

namespace {

class Cmn : public Scheduler {
public:
    void schedule(std::chrono::milliseconds delay, const std::function<void()>& callback) override {
        m_ids.push_back(m_timer.run(delay, callback));
    }
    void cancel(std::size_t entry) override { m_timer.stop(m_ids[entry]); }
    void cancelAll() override { m_timer.stop(); }

private:
    std::vector<std::uint64_t> m_ids;
    cmn::SingleShotTimer m_timer;
};

}  // namespace

std::unique_ptr<Scheduler> makeScheduler(const std::string& name) {
    if (name == "velm") {
        return std::make_unique<Cmn>();
    }
#ifdef BENCH_ASIO
    if (name == "asio") {
        return makeAsio();
    }
#endif
#ifdef BENCH_LIBEVENT
    if (name == "libevent") {
        return makeLibevent();
    }
#endif
#ifdef BENCH_LIBUV
    if (name == "libuv") {
        return makeLibuv();
    }
#endif
    return nullptr;
}

}  // namespace bench
