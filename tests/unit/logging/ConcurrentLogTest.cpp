#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "LogTestSupport.h"
#include "logging/FileDestination.h"
#include "logging/Log.h"

namespace {

using Logging::Destination;
using Logging::Logger;
using logtest::ScratchDirectory;

constexpr int threadCount = 4;
constexpr int linesEach = 50;

void runInThreads(const std::function<void(int)>& body) {
    std::vector<std::thread> threads;
    threads.reserve(threadCount);
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back(body, number);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

class ConcurrentLogTest : public logtest::LoggerFixture {
protected:
    // Lines long enough to be handed to the system in more than one piece if anything went wrong.
    static std::string text(int thread, int line) {
        return std::to_string(thread) + " " + std::to_string(line) + " " +
               std::string(200, static_cast<char>('a' + thread));
    }

    static void logFromThreads() {
        runInThreads([](int thread) {
            for (int line = 0; line < linesEach; ++line) {
                log(text(thread, line));
            }
        });
    }

    static void expectWholeLinesInEachThreadsOrder(const std::vector<std::string>& lines) {
        ASSERT_EQ(lines.size(), static_cast<std::size_t>(threadCount * linesEach));
        std::map<int, int> next;
        for (const std::string& line : lines) {
            const int thread = line[0] - '0';
            ASSERT_EQ(line, text(thread, next[thread]++));
        }
    }
};

TEST_F(ConcurrentLogTest, ThreadsNeverMixTheirLinesInAFile) {
    const ScratchDirectory directory;
    const std::string path = directory.path("agent.log");
    Logger::instance().addDestination(std::make_shared<Logging::FileDestination>(
        path, std::make_shared<Logging::NullRotationStrategy>(), false));
    showMessageOnly();
    logFromThreads();
    expectWholeLinesInEachThreadsOrder(logtest::splitLines(logtest::readFile(path)));
}

TEST_F(ConcurrentLogTest, ThreadsNeverLoseALineToARotation) {
    const ScratchDirectory directory;
    const std::string path = directory.path("agent.log");
    auto strategy = std::make_shared<Logging::SizeRotationStrategy>();
    // Five rotations, all of whose lines the ten backups hold.
    strategy->setMaximumSizeInBytes(threadCount * linesEach * 210 / 6);
    strategy->setBackupCount(10);
    Logger::instance().addDestination(std::make_shared<Logging::FileDestination>(path, strategy, true));
    showMessageOnly();
    logFromThreads();
    std::string all;
    for (int number = 10; number >= 1; --number) {
        const std::string backup = path + std::to_string(number);
        all += std::filesystem::exists(backup) ? logtest::readFile(backup) : "";
    }
    EXPECT_TRUE(std::filesystem::exists(path + "4"));
    expectWholeLinesInEachThreadsOrder(logtest::splitLines(all + logtest::readFile(path)));
}

// Notices when two threads are inside at once, and gives them time for it.
class OverlapDetector : public Destination {
public:
    OverlapDetector(std::atomic<int>& inside, std::vector<std::string>& calls)
        : m_inside(inside), m_calls(calls) {}
    void write(const std::string& line) override {
        if (++m_inside != 1) {
            m_overlapped = true;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(50));
        if (!m_overlapped) {
            m_calls.push_back(line);
        }
        --m_inside;
    }
    bool overlapped() const { return m_overlapped; }

private:
    std::atomic<int>& m_inside;
    std::vector<std::string>& m_calls;
    std::atomic<bool> m_overlapped{false};
};

TEST_F(ConcurrentLogTest, ALineReachesAllDestinationsBeforeTheNextLineReachesAny) {
    // A thread that lets go of the mutex and takes it again at once mostly gets it before one that waits, so
    // there are many places where another line could get in between.
    constexpr std::size_t destinationCount = 20;
    std::atomic<int> inside{0};
    std::vector<std::string> calls;
    std::vector<std::shared_ptr<OverlapDetector>> destinations;
    for (std::size_t number = 0; number < destinationCount; ++number) {
        destinations.push_back(std::make_shared<OverlapDetector>(inside, calls));
        Logger::instance().addDestination(destinations.back());
    }
    showMessageOnly();
    logFromThreads();
    for (const auto& destination : destinations) {
        ASSERT_FALSE(destination->overlapped());
    }
    ASSERT_EQ(calls.size(), destinationCount * threadCount * linesEach);
    for (std::size_t call = 0; call < calls.size(); ++call) {
        ASSERT_EQ(calls[call], calls[call - call % destinationCount]);
    }
}

TEST_F(ConcurrentLogTest, ADestinationThatThrowsNeverKeepsTheLock) {
    class Thrower : public Destination {
        void write(const std::string& /*line*/) override { throw std::runtime_error("cannot write"); }
    };
    const auto recorder = addRecorder();
    Logger::instance().addDestination(std::make_shared<Thrower>());
    showMessageOnly();
    logFromThreads();
    expectWholeLinesInEachThreadsOrder(recorder->lines());
}

// Keeps its caller, and with it the logger's mutex, until it is told to let go.
class GatedDestination : public Destination {
public:
    void write(const std::string& /*line*/) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_entered = true;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_open; });
    }
    void waitUntilEntered() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_entered; });
    }
    void open() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_entered = false;
    bool m_open = false;
};

// A thread logs while another one's line is held up for `pause`. True if its line bears a time from before
// the release.
bool stampIsOlderThanTheWait(std::chrono::milliseconds pause) {
    Logger::destroyInstance();
    const auto gate = std::make_shared<GatedDestination>();
    const auto recorder = std::make_shared<logtest::RecordingDestination>();
    Logger::instance().addDestination(gate);
    Logger::instance().addDestination(recorder);
    const auto log = [] { Logger::Helper helper(Logging::Trace); };
    std::thread holder(log);
    gate->waitUntilEntered();
    std::thread waiter(log);
    std::this_thread::sleep_for(pause);
    const std::string release = now_date_time();
    gate->open();
    holder.join();
    waiter.join();
    const std::vector<std::string> lines = recorder->lines();
    return lines.size() == 2 && lines[1].substr(0, release.size()) < release;
}

TEST_F(ConcurrentLogTest, TheTimeStampIsTakenBeforeTheWaitForTheMutex) {
    bool seen = false;
    for (std::chrono::milliseconds pause(20); !seen && pause < std::chrono::seconds(20); pause *= 2) {
        seen = stampIsOlderThanTheWait(pause);
    }
    EXPECT_TRUE(seen);
}

}  // namespace
