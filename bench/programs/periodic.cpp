// A periodic timer's lateness: how much longer than its interval each tick took. Usage: bench_periodic TIMER
// TICKS

#include <sys/timerfd.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/BaseTimer.h"
#include "common/Semaphore.h"
#include "support/Report.h"

namespace {

using bench::Clock;

constexpr std::chrono::milliseconds interval(5);

// Notes when the ticks came.
class Ticks {
public:
    explicit Ticks(std::size_t wanted) : m_wanted(wanted) { m_times.reserve(wanted + 1); }

    /// False once there are enough.
    bool tick() {
        m_times.push_back(Clock::now());
        return m_times.size() <= m_wanted;
    }
    std::vector<double> lateness() const {
        std::vector<double> late;
        for (std::size_t i = 1; i < m_times.size(); ++i) {
            late.push_back(bench::microseconds(m_times[i] - m_times[i - 1] - interval));
        }
        return late;
    }

private:
    std::size_t m_wanted;
    std::vector<Clock::time_point> m_times;
};

void velm(Ticks& ticks) {
    cmn::Semaphore done;
    cmn::BaseTimer timer(interval, nullptr, false);
    timer.setCallback([&] {
        if (!ticks.tick()) {
            timer.stop();
            done.notify();
        }
    });
    timer.run();
    done.wait();
}

void waitFor(Ticks& ticks) {
    std::thread([&] {
        std::mutex mutex;
        std::condition_variable condition;
        std::unique_lock<std::mutex> lock(mutex);
        do {
            condition.wait_for(lock, interval);
        } while (ticks.tick());
    }).join();
}

// The kernel keeps the rhythm, with no slack of its own: the least that a tick can be late.
void timerDescriptor(Ticks& ticks) {
    std::thread([&] {
        const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
        const itimerspec once = {{0, 0}, {0, std::chrono::nanoseconds(interval).count()}};
        std::uint64_t expirations = 0;
        do {
            timerfd_settime(timer, 0, &once, nullptr);
            static_cast<void>(!read(timer, &expirations, sizeof expirations));
        } while (ticks.tick());
        close(timer);
    }).join();
}

const std::map<std::string, void (*)(Ticks&)> timers = {
    {"velm", velm}, {"wait_for", waitFor}, {"timerfd", timerDescriptor}};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 || timers.count(argv[1]) == 0) {
        std::fputs("usage: bench_periodic TIMER TICKS\n", stderr);
        return 2;
    }
    Ticks ticks(static_cast<std::size_t>(std::atoi(argv[2])));
    const double processorBefore = bench::processorTime();
    timers.at(argv[1])(ticks);
    auto late = ticks.lateness();
    bench::Report report;
    report.add("processor", (bench::processorTime() - processorBefore) / static_cast<double>(late.size()));
    report.addSamples(late);
    report.print();
    return 0;
}
