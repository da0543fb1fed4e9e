#include "logging/Log.h"

#include <future>
#include <mutex>
#include <utility>
#include <vector>

#include "logging/RotationStrategy.h"

namespace Logging {

class LoggerImpl {
public:
    // Room for what the default set-up adds.
    LoggerImpl() { m_destinations.reserve(2); }

    std::mutex m_mutex;
    // The level and the flags are plain: they are set during start-up only, and every log statement reads
    // them.
    Level m_level = Trace;
    std::vector<std::shared_ptr<Destination>> m_destinations;
    bool m_includeTimestamp = true;
    bool m_includeLogLevel = true;
};

std::unique_ptr<Logger> Logger::m_instance;

Logger::Logger()
    : m_impl(std::make_unique<LoggerImpl>()),
      m_sizeRotationStrategy(std::make_shared<SizeRotationStrategy>()) {}

Logger::~Logger() = default;

Logger& Logger::instance() {
    // No lock: every statement comes through here, and the first call is over before a second thread logs.
    if (!m_instance) {
        m_instance = std::make_unique<Logger>();
    }
    return *m_instance;
}

void Logger::destroyInstance() {
    m_instance.reset();
}

void Logger::initAsDefault(const std::string& path) {
    if (m_initialized) {
        return;
    }
    // Before the file, so that there is a console even if the file cannot be opened.
    addDestination(DestinationFactory::makeFunctorDestination(defaultLogFunction));
    if (!path.empty()) {
        const MaxSizeBytes maxSize(static_cast<std::uint64_t>(std::int64_t{m_maxSizeBytes}));
        const MaxOldLogCount maxOldCount(m_maxOldLogCount);
        // The file is the process's: it goes to the one logger that helpers write to.
        instance().addDestination(DestinationFactory::makeFileDestination(
            path, SizeRotation, maxSize, maxOldCount, m_sizeRotationStrategy));
    }
    m_initialized = true;
}

void Logger::addDestination(std::shared_ptr<Destination> destination) {
    m_impl->m_destinations.push_back(std::move(destination));
}

void Logger::setLoggingLevel(Level level) {
    m_impl->m_level = level;
}
Level Logger::loggingLevel() const {
    return m_impl->m_level;
}

void Logger::setIncludeTimestamp(bool include) {
    m_impl->m_includeTimestamp = include;
}
bool Logger::includeTimestamp() const {
    return m_impl->m_includeTimestamp;
}

void Logger::setIncludeLogLevel(bool include) {
    m_impl->m_includeLogLevel = include;
}
bool Logger::includeLogLevel() const {
    return m_impl->m_includeLogLevel;
}

void Logger::enqueueWrite(std::string& line) {
    // Dropping the future waits for the write: destinations never run on the thread that logs, a thread never
    // has more than one line under way, and what a destination throws ends in a future that nobody reads.
    static_cast<void>(std::async(std::launch::async, &Logger::write, this, line));
}

void Logger::write(const std::string& line) {
    // Held for all destinations together, so that every one of them gets the lines in the same order.
    const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
    for (const auto& listed : m_impl->m_destinations) {
        // A handle of its own keeps the destination alive during the call.
        const std::shared_ptr<Destination> destination = listed;
        destination->write(line);
    }
}

}  // namespace Logging
