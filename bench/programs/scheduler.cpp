// One-shot timers, by several schedulers. Usage: bench_scheduler WHAT SCHEDULER COUNT
//
// WHAT: add, drain, cancel_one, cancel_all (until a callback that was scheduled behind them all has run, so
// that what a scheduler puts off is counted too), lateness.

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "Schedulers.h"
#include "common/Semaphore.h"
#include "support/Report.h"

namespace {

using namespace std::chrono_literals;
using bench::Clock;
using bench::Report;
using bench::Scheduler;

// Cancelling one is a linear scan by contract, so of a long queue only some are cancelled.
constexpr std::size_t cancelledSample = 200;

// So far ahead that nothing becomes due, in an order that a heap does not like.
std::vector<std::chrono::milliseconds> farDelays(std::size_t count) {
    std::mt19937 random(1);
    std::uniform_int_distribution<int> spread(0, 3600 * 1000);
    std::vector<std::chrono::milliseconds> delays(count);
    std::generate(delays.begin(), delays.end(),
                  [&] { return 1h + std::chrono::milliseconds(spread(random)); });
    return delays;
}

void scheduleFar(Scheduler& scheduler, std::size_t count) {
    const std::function<void()> nothing = [] {};
    for (const auto delay : farDelays(count)) {
        scheduler.schedule(delay, nothing);
    }
}

// Until the scheduler's thread has done all that was asked of it before.
void settle(Scheduler& scheduler) {
    cmn::Semaphore done;
    scheduler.schedule(0ms, [&] { done.notify(); });
    done.wait();
}

double perEntry(Clock::time_point start, std::size_t count) {
    return bench::microseconds(Clock::now() - start) * 1000 / static_cast<double>(count);
}

void add(Scheduler& scheduler, std::size_t count, Report& report) {
    const auto start = Clock::now();
    scheduleFar(scheduler, count);
    settle(scheduler);
    report.add("per_entry", perEntry(start, count));
}

void cancelOne(Scheduler& scheduler, std::size_t count, Report& report) {
    scheduleFar(scheduler, count);
    settle(scheduler);
    std::vector<std::size_t> entries(count);
    std::iota(entries.begin(), entries.end(), 0U);
    std::shuffle(entries.begin(), entries.end(), std::mt19937(2));
    entries.resize(std::min(count, cancelledSample));
    const auto start = Clock::now();
    for (const auto entry : entries) {
        scheduler.cancel(entry);
    }
    settle(scheduler);
    report.add("per_entry", perEntry(start, entries.size()));
}

void cancelAll(Scheduler& scheduler, std::size_t count, Report& report) {
    scheduleFar(scheduler, count);
    settle(scheduler);
    const auto start = Clock::now();
    scheduler.cancelAll();
    settle(scheduler);
    report.add("per_entry", perEntry(start, count));
}

// From letting the worker go, with every entry due, until the last was called.
void drain(Scheduler& scheduler, std::size_t count, Report& report) {
    cmn::Semaphore held;
    cmn::Semaphore release;
    cmn::Semaphore done;
    std::size_t called = 0;
    scheduler.schedule(0ms, [&] {
        held.notify();
        release.wait();
    });
    held.wait();
    const std::function<void()> callback = [&] {
        if (++called == count) {
            done.notify();
        }
    };
    for (std::size_t i = 0; i < count; ++i) {
        scheduler.schedule(0ms, callback);
    }
    const auto start = Clock::now();
    release.notify();
    done.wait();
    report.add("per_entry", perEntry(start, count));
}

// Callbacks due one after the other, 3 ms apart.
void lateness(Scheduler& scheduler, std::size_t count, Report& report) {
    std::vector<Clock::time_point> due(count);
    std::vector<double> late(count);
    std::size_t called = 0;
    cmn::Semaphore done;
    const auto first = Clock::now() + 50ms;
    const double processorBefore = bench::processorTime();
    for (std::size_t i = 0; i < count; ++i) {
        const auto now = Clock::now();
        const auto delay = std::chrono::duration_cast<std::chrono::milliseconds>(first + 3ms * i - now);
        due[i] = now + delay;
        scheduler.schedule(delay, [&, i] {
            late[i] = bench::microseconds(Clock::now() - due[i]);
            if (++called == count) {
                done.notify();
            }
        });
    }
    done.wait();
    report.add("processor", (bench::processorTime() - processorBefore) / static_cast<double>(count));
    report.addSamples(late);
}

const std::map<std::string, void (*)(Scheduler&, std::size_t, Report&)> measurements = {
    {"add", add},           {"drain", drain}, {"cancel_one", cancelOne}, {"cancel_all", cancelAll},
    {"lateness", lateness},
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4 || measurements.count(argv[1]) == 0) {
        std::fputs("usage: bench_scheduler WHAT SCHEDULER COUNT\n", stderr);
        return 2;
    }
    const std::unique_ptr<Scheduler> scheduler = bench::makeScheduler(argv[2]);
    if (!scheduler) {
        return 77;
    }
    Report report;
    measurements.at(argv[1])(*scheduler, static_cast<std::size_t>(std::atoi(argv[3])), report);
    report.print();
    return 0;
}
