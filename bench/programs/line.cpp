// A log statement, by several loggers. Usage: bench_line LOGGER THREADS LINES FILE
//
// Every logger gets the same statements and brings a time stamp, a level and the message to FILE, flushed
// line by line, and to standard output. "floor" is the least that the agent's way of logging can cost.

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Loggers.h"
#include "logging/Log.h"
#include "support/FloorLine.h"
#include "support/Report.h"

namespace {

using Statement = std::function<void(int)>;

Statement velm(const std::string& file) {
    Logging::Logger::instance().initAsDefault(file);
    return [](int number) {
        if (Logging::Logger::instance().loggingLevel() >= Logging::Trace) {
            Logging::Logger::Helper helper(Logging::Trace);
            helper.stream_std() << "Monitor launcher: screen lock status " << number;
        }
    };
}

Statement leastOfThreads(const std::string& file) {
    const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    return [descriptor](int /*number*/) { bench::writeFloorLine(descriptor); };
}

const std::map<std::string, Statement (*)(const std::string&)> loggers = {
    {"velm", velm},
    {"floor", leastOfThreads},
#ifdef BENCH_SPDLOG
    {"spdlog", bench::spdlogStatement},
#endif
#ifdef BENCH_GLOG
    {"glog", bench::glogStatement},
#endif
#ifdef BENCH_BOOST_LOG
    {"boost_log", bench::boostLogStatement},
#endif
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5 || loggers.count(argv[1]) == 0) {
        std::fputs("usage: bench_line LOGGER THREADS LINES FILE\n", stderr);
        return argc == 5 ? 77 : 2;
    }
    // The report needs the standard output that the lines must not have.
    const int report = dup(STDOUT_FILENO);
    const int console = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(console, STDOUT_FILENO);

    const auto threads = static_cast<std::size_t>(std::atoi(argv[2]));
    const int lines = std::atoi(argv[3]) / static_cast<int>(threads);
    const Statement statement = loggers.at(argv[1])(argv[4]);
    std::vector<std::vector<double>> times(threads);
    const double processorBefore = bench::processorTime();
    const auto start = bench::Clock::now();
    std::vector<std::thread> running;
    for (auto& mine : times) {
        running.emplace_back([&mine, &statement, lines] {
            mine.reserve(static_cast<std::size_t>(lines));
            for (int i = 0; i < lines; ++i) {
                const auto before = bench::Clock::now();
                statement(i);
                mine.push_back(bench::microseconds(bench::Clock::now() - before));
            }
        });
    }
    for (auto& thread : running) {
        thread.join();
    }
    const double total = bench::microseconds(bench::Clock::now() - start);
    const double processor = bench::processorTime() - processorBefore;

    std::vector<double> all;
    for (const auto& mine : times) {
        all.insert(all.end(), mine.begin(), mine.end());
    }
    std::fflush(stdout);
    dup2(report, STDOUT_FILENO);
    bench::Report result;
    result.add("per_line", total / static_cast<double>(all.size()));
    result.add("processor", processor / static_cast<double>(all.size()));
    result.addSamples(all);
    result.print();
    // What other loggers do at exit is not measured, and is theirs.
    std::fflush(stdout);
    _exit(0);
}
