#pragma once

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <utility>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double microseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::micro>(duration).count();
}

/// Processor time of this process so far, all threads, in microseconds.
inline double processorTime() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto of = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
    };
    return of(usage.ru_utime) + of(usage.ru_stime);
}

/// The number below which `share` (0 to 1) of the samples lie. Sorts them; there must be some.
inline double percentile(std::vector<double>& samples, double share) {
    std::sort(samples.begin(), samples.end());
    const auto last = static_cast<double>(samples.size() - 1);
    return samples[static_cast<std::size_t>(last * share + 0.5)];
}

/// What one run of one contestant measured, as the one line of JSON that bench/run reads.
class Report {
public:
    void add(const char* name, double value) { m_values.emplace_back(name, value); }

    /// The usual percentiles of `samples`, which must not be empty.
    void addSamples(std::vector<double>& samples) {
        add("p50", percentile(samples, 0.5));
        add("p90", percentile(samples, 0.9));
        add("p99", percentile(samples, 0.99));
        add("max", samples.back());
    }

    void print() const {
        const char* separator = "{";
        for (const auto& [name, value] : m_values) {
            std::printf("%s\"%s\": %.4f", separator, name, value);
            separator = ", ";
        }
        std::puts("}");
    }

private:
    std::vector<std::pair<const char*, double>> m_values;
};

}  // namespace bench
