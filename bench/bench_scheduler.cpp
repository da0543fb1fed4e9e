// cmn::SingleShotTimer beside boost::asio::steady_timer: the same schedules, in the same run, one row each.
// Usage: bench_scheduler [--smoke]

#include <algorithm>
#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include "common/Semaphore.h"
#include "common/SingleShotTimer.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Delays = std::vector<std::chrono::milliseconds>;

// Cancelling by id is a linear scan, so of a long queue only some entries are cancelled.
constexpr std::size_t cancelledSample = 200;

class Cmn {
public:
    explicit Cmn(std::size_t count) { m_ids.reserve(count); }

    void schedule(std::chrono::milliseconds delay, const std::function<void()>& callback) {
        m_ids.push_back(m_timer.run(delay, callback));
    }
    void cancel(std::size_t index) { m_timer.stop(m_ids[index]); }
    void cancelAll() { m_timer.stop(); }
    // Keeps the worker busy until release().
    void hold() {
        m_timer.run(0ms, [this] {
            m_held.notify();
            m_release.wait();
        });
        m_held.wait();
    }
    void release() { m_release.notify(); }

private:
    cmn::Semaphore m_held;
    cmn::Semaphore m_release;
    std::vector<std::uint64_t> m_ids;
    cmn::SingleShotTimer m_timer;
};

class Asio {
public:
    explicit Asio(std::size_t /*count*/) : m_worker([this] { m_context.run(); }) {}
    ~Asio() {
        m_context.stop();
        m_worker.join();
    }
    Asio(const Asio&) = delete;
    Asio& operator=(const Asio&) = delete;
    Asio(Asio&&) = delete;
    Asio& operator=(Asio&&) = delete;

    void schedule(std::chrono::milliseconds delay, const std::function<void()>& callback) {
        auto& timer = m_timers.emplace_back(m_context, delay);
        timer.async_wait([callback](const boost::system::error_code& error) {
            if (!error) {
                callback();
            }
        });
    }
    void cancel(std::size_t index) { m_timers[index].cancel(); }
    void cancelAll() {
        for (auto& timer : m_timers) {
            timer.cancel();
        }
    }
    void hold() {
        boost::asio::post(m_context, [this] {
            m_held.notify();
            m_release.wait();
        });
        m_held.wait();
    }
    void release() { m_release.notify(); }

private:
    cmn::Semaphore m_held;
    cmn::Semaphore m_release;
    boost::asio::io_context m_context;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_work{m_context.get_executor()};
    std::deque<boost::asio::steady_timer> m_timers;
    std::thread m_worker;
};

double nanoseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::nano>(duration).count();
}

// Far enough in the future that nothing becomes due, in an order that a heap does not like.
Delays farDelays(std::size_t count) {
    std::mt19937 random(1);
    std::uniform_int_distribution<int> spread(0, 3600 * 1000);
    Delays delays(count);
    std::generate(delays.begin(), delays.end(),
                  [&] { return 1h + std::chrono::milliseconds(spread(random)); });
    return delays;
}

struct Changes {
    double schedule;   // ns an entry
    double cancel;     // ns an entry
    double cancelAll;  // ns an entry
};

template <typename Scheduler>
Changes measureChanges(std::size_t count) {
    const auto delays = farDelays(count);
    std::vector<std::size_t> indices(count);
    std::iota(indices.begin(), indices.end(), 0U);
    std::shuffle(indices.begin(), indices.end(), std::mt19937(2));
    indices.resize(std::min(count, cancelledSample));

    Scheduler scheduler(count);
    const std::function<void()> nothing = [] {};
    const auto start = Clock::now();
    for (const auto delay : delays) {
        scheduler.schedule(delay, nothing);
    }
    const auto scheduled = Clock::now();
    for (const auto index : indices) {
        scheduler.cancel(index);
    }
    const auto cancelled = Clock::now();
    scheduler.cancelAll();
    const auto end = Clock::now();
    return {nanoseconds(scheduled - start) / static_cast<double>(count),
            nanoseconds(cancelled - scheduled) / static_cast<double>(indices.size()),
            nanoseconds(end - cancelled) / static_cast<double>(count)};
}

// From letting the worker go, with every entry due, until the last was called; ns an entry.
template <typename Scheduler>
double measureDrain(std::size_t count) {
    cmn::Semaphore done;
    std::size_t called = 0;
    const std::function<void()> callback = [&] {
        if (++called == count) {
            done.notify();
        }
    };
    Scheduler scheduler(count);
    scheduler.hold();
    for (std::size_t i = 0; i < count; ++i) {
        scheduler.schedule(0ms, callback);
    }
    const auto start = Clock::now();
    scheduler.release();
    done.wait();
    return nanoseconds(Clock::now() - start) / static_cast<double>(count);
}

struct Lateness {
    double median;
    double p99;
    double worst;
};

// Callbacks due one after the other, evenly over `window`, after a start that leaves time to schedule them
// all.
template <typename Scheduler>
Lateness measureLateness(std::size_t count, std::chrono::milliseconds lead,
                         std::chrono::milliseconds window) {
    std::vector<Clock::time_point> due(count);
    std::vector<double> late(count);
    std::size_t called = 0;
    cmn::Semaphore done;
    Scheduler scheduler(count);
    const auto first = Clock::now() + lead;
    for (std::size_t i = 0; i < count; ++i) {
        const auto wanted = first + window * i / count;
        const auto now = Clock::now();
        const auto delay = std::chrono::duration_cast<std::chrono::milliseconds>(wanted - now);
        due[i] = now + delay;
        scheduler.schedule(delay, [&, i] {
            late[i] = nanoseconds(Clock::now() - due[i]);
            if (++called == count) {
                done.notify();
            }
        });
    }
    done.wait();
    std::sort(late.begin(), late.end());
    return {late[count / 2], late[count * 99 / 100], late.back()};
}

void printRow(const char* what, std::size_t count, double cmnValue, double asioValue) {
    std::printf("%-22s %9zu %14.0f %14.0f %9.3f\n", what, count, cmnValue, asioValue, cmnValue / asioValue);
    std::fflush(stdout);
}

struct Size {
    std::size_t count;
    std::chrono::milliseconds lead;
    std::chrono::milliseconds window;
};

void measure(const Size& size) {
    const auto cmnChanges = measureChanges<Cmn>(size.count);
    const auto asioChanges = measureChanges<Asio>(size.count);
    printRow("schedule", size.count, cmnChanges.schedule, asioChanges.schedule);
    printRow("cancel one", size.count, cmnChanges.cancel, asioChanges.cancel);
    printRow("cancel all", size.count, cmnChanges.cancelAll, asioChanges.cancelAll);
    const auto cmnDrain = measureDrain<Cmn>(size.count);
    printRow("drain", size.count, cmnDrain, measureDrain<Asio>(size.count));
    const auto cmnLate = measureLateness<Cmn>(size.count, size.lead, size.window);
    const auto asioLate = measureLateness<Asio>(size.count, size.lead, size.window);
    printRow("lateness, median", size.count, cmnLate.median, asioLate.median);
    printRow("lateness, 99 %", size.count, cmnLate.p99, asioLate.p99);
    printRow("lateness, worst", size.count, cmnLate.worst, asioLate.worst);
}

}  // namespace

int main(int argc, char** argv) {
    const bool smoke = argc == 2 && std::strcmp(argv[1], "--smoke") == 0;
    if (argc > 1 && !smoke) {
        std::fprintf(stderr, "usage: bench_scheduler [--smoke]\n");
        return 2;
    }
    constexpr std::array<Size, 3> sizes = {
        {{1'000, 100ms, 1'000ms}, {100'000, 1'000ms, 2'000ms}, {1'000'000, 6'000ms, 6'000ms}}};
    std::printf("Times in ns: per entry, or late by. Ratio: SingleShotTimer / steady_timer.\n");
    std::printf("%-22s %9s %14s %14s %9s\n", "operation", "entries", "SingleShot", "steady_timer", "ratio");
    for (const auto& size : sizes) {
        measure(size);
        if (smoke) {
            break;
        }
    }
    return 0;
}
