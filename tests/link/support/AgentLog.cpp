#include "link/support/AgentLog.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <fstream>
#include <regex>

#include "link/support/Await.h"

namespace link_tests {
namespace {

/// Waits until there are `wanted`. Gives up once no more have come for as long as any wait may take: a busy
/// machine may need longer for thousands.
bool awaitGrowth(std::size_t wanted, const std::function<std::size_t()>& count) {
    using Clock = std::chrono::steady_clock;
    std::size_t reached = 0;
    auto deadline = Clock::now() + waitCap;
    const auto isOver = [&] {
        const std::size_t now = count();
        if (now > reached) {
            reached = now;
            deadline = Clock::now() + waitCap;
        }
        return reached >= wanted || Clock::now() > deadline;
    };
    return await(isOver, std::chrono::hours(1)) && reached >= wanted;
}

}  // namespace

const Messages& linesOfLock() {
    static const Messages lines{message::locked, message::status1, message::sendingStatus};
    return lines;
}

const Messages& linesOfUnlock() {
    static const Messages lines{message::unlocked, message::status0, message::sendingStatus};
    return lines;
}

const Messages& linesOfZoneChange() {
    static const Messages lines{message::zoneChanged, message::zoneSignaled, message::sendingZone};
    return lines;
}

Messages operator+(Messages left, const Messages& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

LogLine parseLogLine(const std::string& line) {
    static const std::regex form(
        R"((\d{4})/(\d{2})/(\d{2}) (\d{2}):(\d{2}):(\d{2}):(\d{3}) (\[[A-Z]+\] {0,2}) (.*))");
    std::smatch part;
    LogLine parsed;
    if (!std::regex_match(line, part, form)) {
        parsed.message = line;
        return parsed;
    }
    std::tm calendar{};
    calendar.tm_year = std::stoi(part[1]) - 1900;
    calendar.tm_mon = std::stoi(part[2]) - 1;
    calendar.tm_mday = std::stoi(part[3]);
    calendar.tm_hour = std::stoi(part[4]);
    calendar.tm_min = std::stoi(part[5]);
    calendar.tm_sec = std::stoi(part[6]);
    parsed.stamp = std::chrono::seconds(::timegm(&calendar)) + std::chrono::milliseconds(std::stoi(part[7]));
    parsed.tag = part[8];
    parsed.message = part[9];
    parsed.wellFormed = true;
    return parsed;
}

int minutesEastOf(const LogLine& line) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto ahead = std::chrono::duration_cast<std::chrono::seconds>(line.stamp - now).count();
    // Zones differ by quarters of an hour at least; the seconds since the line was written do not count.
    return static_cast<int>(std::lround(static_cast<double>(ahead) / 900.0)) * 15;
}

void AgentLog::readMore() {
    std::ifstream file(m_path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(m_offset));
    std::string line;
    while (std::getline(file, line) && !file.eof()) {
        m_offset += line.size() + 1;
        m_lines.push_back(parseLogLine(line));
        m_rawLines.push_back(std::move(line));
    }
}

const std::vector<std::string>& AgentLog::rawLines() {
    readMore();
    return m_rawLines;
}

const std::vector<LogLine>& AgentLog::lines() {
    readMore();
    return m_lines;
}

std::size_t AgentLog::count(const std::string& message, std::size_t from) {
    readMore();
    const auto start = m_lines.begin() + static_cast<std::ptrdiff_t>(std::min(from, m_lines.size()));
    return static_cast<std::size_t>(
        std::count_if(start, m_lines.end(), [&](const LogLine& line) { return line.message == message; }));
}

bool AgentLog::await(const std::string& message, std::size_t from) {
    return awaitCount(message, 1, from);
}

bool AgentLog::awaitCount(const std::string& message, std::size_t count, std::size_t from) {
    return awaitGrowth(count, [&] { return this->count(message, from); });
}

bool AgentLog::awaitMessages(std::size_t count, std::size_t from) {
    return awaitGrowth(count, [&] { return messages(from).size(); });
}

Messages AgentLog::messages(std::size_t from) {
    readMore();
    Messages messages;
    for (std::size_t index = from; index < m_lines.size(); ++index) {
        if (m_lines[index].message != message::tick) {
            messages.push_back(m_lines[index].message);
        }
    }
    return messages;
}

std::vector<std::chrono::milliseconds> AgentLog::stampsOf(const std::string& message) {
    std::vector<std::chrono::milliseconds> stamps;
    for (const LogLine& line : lines()) {
        if (line.message == message) {
            stamps.push_back(line.stamp);
        }
    }
    return stamps;
}

}  // namespace link_tests
