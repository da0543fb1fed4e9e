#include <array>
#include <cstdint>

#include "logging/Log.h"

namespace Logging {

namespace {

// Each is seven characters wide, so that the messages of all levels start in the same column.
constexpr const char* FatalString = "[FATAL]";
constexpr const char* ErrorString = "[ERROR]";
constexpr const char* WarnString = "[WARN] ";
constexpr const char* InfoString = "[INFO] ";
constexpr const char* DebugString = "[DEBUG]";
constexpr const char* TraceString = "[TRACE]";

const char* tagOf(Level level) {
    static constexpr std::array<const char*, 7> tags = {"",         FatalString, ErrorString, WarnString,
                                                        InfoString, DebugString, TraceString};
    // Unsigned, negative levels lie above the scale as well: one comparison covers both ends.
    const auto index = static_cast<std::uint32_t>(level);
    return index < tags.size() ? tags[index] : InfoString;
}

}  // namespace

Logger::Helper::Helper(Level level) : m_level(level) {}

Logger::Helper::~Helper() {
    m_message = m_stream.str();
    writeToLog();
}

void Logger::Helper::writeToLog() {
    std::string line;
    // The time is taken here and not by the writer, so that it tells when the event was, not when its line
    // got its turn.
    if (Logger::instance().includeTimestamp()) {
        line += now_date_time();
        line += ' ';
    }
    if (Logger::instance().includeLogLevel()) {
        line += tagOf(m_level);
        line += ' ';
    }
    line += m_message;
    Logger::instance().enqueueWrite(line);
}

}  // namespace Logging
