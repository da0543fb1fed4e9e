// What a log statement and a rotation cost, each beside the least that it could cost on the same machine in
// the same run; the ratios are printed at the end.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "logging/FileDestination.h"
#include "logging/Log.h"
#include "logging/RotationStrategy.h"

namespace {

using Logging::Logger;

constexpr const char* message = "Monitor launcher: screen lock status ";
constexpr std::size_t rotatedBytes = 6000000;

class ScratchDirectory {
public:
    ScratchDirectory() : m_path((std::filesystem::temp_directory_path() / "velm-bench-XXXXXX").string()) {
        if (mkdtemp(m_path.data()) == nullptr) {
            throw std::runtime_error("no scratch directory: " + m_path);
        }
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    ScratchDirectory(ScratchDirectory&&) = delete;
    ScratchDirectory& operator=(ScratchDirectory&&) = delete;

    std::string path(const char* name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// Many short runs, of which the fastest counts: what else the machine does must not decide the ratios.
void shortRuns(benchmark::internal::Benchmark* bench) {
    bench->UseRealTime()->MinTime(0.05)->Repetitions(10);
}

void logStatement(Logging::Level level) {
    if (Logger::instance().loggingLevel() >= level) {
        Logger::Helper helper(level);
        helper.stream_std() << message << true;
    }
}

void lineToFile(benchmark::State& state) {
    const ScratchDirectory directory;
    Logger::destroyInstance();
    Logger::instance().addDestination(std::make_shared<Logging::FileDestination>(
        directory.path("agent.log"), std::make_shared<Logging::NullRotationStrategy>(), false));
    while (state.KeepRunning()) {
        logStatement(Logging::Trace);
    }
    Logger::destroyInstance();
}
BENCHMARK(lineToFile)->Apply(shortRuns);

void floorThreadStartAndJoin(benchmark::State& state) {
    while (state.KeepRunning()) {
        std::thread([] {}).join();
    }
}
BENCHMARK(floorThreadStartAndJoin)->Apply(shortRuns);

void floorWriteAndFlush(benchmark::State& state) {
    const ScratchDirectory directory;
    std::ofstream file(directory.path("agent.log"), std::ios_base::app);
    const std::string line = "2026/11/16 05:28:20:007 [TRACE] " + std::string(message) + "1";
    while (state.KeepRunning()) {
        file << line << '\n';
        file.flush();
    }
}
BENCHMARK(floorWriteAndFlush)->Apply(shortRuns);

void filteredStatement(benchmark::State& state) {
    Logger::destroyInstance();
    Logger::instance().setLoggingLevel(Logging::Error);
    while (state.KeepRunning()) {
        logStatement(Logging::Trace);
        benchmark::ClobberMemory();
    }
    Logger::destroyInstance();
}
BENCHMARK(filteredStatement)->Apply(shortRuns);

void floorEmptyLoop(benchmark::State& state) {
    while (state.KeepRunning()) {
        benchmark::ClobberMemory();
    }
}
BENCHMARK(floorEmptyLoop)->Apply(shortRuns);

// As a log that has reached its limit: whole lines of a usual length.
const std::string& fullLog() {
    static const std::string text = [] {
        std::string lines;
        while (lines.size() < rotatedBytes) {
            lines += "2026/11/16 05:28:20:007 [TRACE] " + std::string(message) + "1\n";
        }
        return lines;
    }();
    return text;
}

void writeFullLog(const std::string& path) {
    std::ofstream file(path, std::ios_base::binary | std::ios_base::trunc);
    file << fullLog();
}

void rotation(benchmark::State& state) {
    const ScratchDirectory directory;
    const std::string path = directory.path("agent.log");
    Logging::SizeRotationStrategy strategy;
    strategy.setFileName(path);
    strategy.setBackupCount(1);
    while (state.KeepRunning()) {
        state.PauseTiming();
        writeFullLog(path);
        state.ResumeTiming();
        strategy.rotate();
    }
    if (std::filesystem::file_size(path + "1") != fullLog().size()) {
        state.SkipWithError("the rotation did not copy the log");
    }
}
BENCHMARK(rotation)->Apply(shortRuns);

// The same bytes, read and written in blocks.
void floorPlainCopy(benchmark::State& state) {
    const ScratchDirectory directory;
    const std::string path = directory.path("agent.log");
    while (state.KeepRunning()) {
        state.PauseTiming();
        writeFullLog(path);
        state.ResumeTiming();
        std::ifstream source(path, std::ios_base::binary);
        std::ofstream target(path + "1", std::ios_base::binary);
        target << source.rdbuf();
    }
}
BENCHMARK(floorPlainCopy)->Apply(shortRuns);

// Keeps the fastest run of each row.
class FastestRuns : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& /*context*/) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) {
                std::printf("%s: %s\n", run.run_name.function_name.c_str(), run.error_message.c_str());
            } else if (run.run_type == Run::RT_Iteration) {
                const double seconds =
                    run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
                const auto [row, isNew] = m_seconds.try_emplace(run.run_name.function_name, seconds);
                row->second = std::min(row->second, seconds);
            }
        }
    }

    void printTimes() const {
        for (const auto& [name, seconds] : m_seconds) {
            std::printf("%-58s %14.1f ns\n", name.c_str(), seconds * 1e9);
        }
    }

    void printRatio(const char* what, const std::string& name, const std::vector<std::string>& floor) const {
        double least = 0;
        for (const std::string& part : floor) {
            least += secondsOf(part);
        }
        if (least > 0 && secondsOf(name) > 0) {
            std::printf("%-58s %14.2f\n", what, secondsOf(name) / least);
        }
    }

private:
    double secondsOf(const std::string& name) const {
        const auto found = m_seconds.find(name);
        return found == m_seconds.end() ? 0 : found->second;
    }

    std::map<std::string, double> m_seconds;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    FastestRuns reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    std::printf("Fastest runs\n");
    reporter.printTimes();
    std::printf("\nRatios\n");
    reporter.printRatio("line to a file / (thread start and join + write and flush)", "lineToFile",
                        {"floorThreadStartAndJoin", "floorWriteAndFlush"});
    reporter.printRatio("line to a file / thread start and join", "lineToFile", {"floorThreadStartAndJoin"});
    reporter.printRatio("line to a file / write and flush", "lineToFile", {"floorWriteAndFlush"});
    reporter.printRatio("filtered statement / empty loop", "filteredStatement", {"floorEmptyLoop"});
    reporter.printRatio("rotation of 6 MB / plain copy of the same bytes", "rotation", {"floorPlainCopy"});
    return 0;
}
