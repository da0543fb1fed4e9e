#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace link_tests {

/// One line of the agent's log: "2026/11/16 05:28:20:007 [TRACE] message".
struct LogLine {
    std::chrono::milliseconds stamp{};  ///< the stamp's own calendar time, counted as if it were UTC
    std::string tag;
    std::string message;
    bool wellFormed = false;
};

/// The message texts that tests wait for, in the words of the log.
namespace message {
inline constexpr const char* started = "velmmonitord started";
inline constexpr const char* launcherRuns = "Monitor launcher is running";
inline constexpr const char* screenMonitorRuns = "Screen lock monitor is running";
inline constexpr const char* zoneMonitorRuns = "Time zone change monitor is running";
inline constexpr const char* xpcRuns = "xpc is running";
inline constexpr const char* tick = "Monitor launcher: requesting connect";
inline constexpr const char* established = "xpc: connection is established: 1";
inline constexpr const char* refused = "xpc: connection is established: 0";
inline constexpr const char* connected = "Monitor launcher: connected came";
inline constexpr const char* interrupted = "xpc connection was inerrupted";
inline constexpr const char* invalidated = "xpc connection invalidated";
inline constexpr const char* disconnected = "Monitor launcher: disconnected came";
inline constexpr const char* locked = "Screen lock monitor: User's screen was locked";
inline constexpr const char* unlocked = "Screen lock monitor: User's screen was unlocked";
inline constexpr const char* status1 = "Monitor launcher: screen lock status 1";
inline constexpr const char* status0 = "Monitor launcher: screen lock status 0";
inline constexpr const char* sendingStatus = "xpc service monitor: sending lock screen status";
inline constexpr const char* zoneChanged = "Timezone changed notification came";
inline constexpr const char* zoneSignaled = "Monitor launcher: time zone notification signaled";
inline constexpr const char* sendingZone = "xpc service monitor: sending time zone changed notification";
inline constexpr const char* incoming = "agent: incomming message";
}  // namespace message

using Messages = std::vector<std::string>;

/// The three lines that each event leaves, all written by one thread.
const Messages& linesOfLock();
const Messages& linesOfUnlock();
const Messages& linesOfZoneChange();
Messages operator+(Messages left, const Messages& right);

/// Reads a log file while it grows. Whole lines only; the file need not exist yet.
class AgentLog {
public:
    explicit AgentLog(std::string path) : m_path(std::move(path)) {}

    /// All lines so far, as text and taken apart.
    const std::vector<std::string>& rawLines();
    const std::vector<LogLine>& lines();

    /// How many lines there are; a place to look from later.
    std::size_t mark() { return lines().size(); }
    /// Waits for a line with exactly this message at or after `from`.
    bool await(const std::string& message, std::size_t from = 0);
    /// Waits until there are `count` such lines at or after `from`, as long as there are more and more.
    bool awaitCount(const std::string& message, std::size_t count, std::size_t from = 0);
    /// Waits until the messages since `from`, without ticks, are at least `count`, as long as there are more
    /// and more.
    bool awaitMessages(std::size_t count, std::size_t from);

    std::size_t count(const std::string& message, std::size_t from = 0);
    /// The messages since `from`, without the ticks of the reconnect timer, which come as they come.
    Messages messages(std::size_t from = 0);
    /// The stamps of the lines with this message.
    std::vector<std::chrono::milliseconds> stampsOf(const std::string& message);

private:
    void readMore();

    std::string m_path;
    std::size_t m_offset = 0;
    std::vector<std::string> m_rawLines;
    std::vector<LogLine> m_lines;
};

/// Takes a line apart.
LogLine parseLogLine(const std::string& line);

/// How far a stamp is ahead of UTC, in whole minutes, taking it for the present.
int minutesEastOf(const LogLine& line);

}  // namespace link_tests
