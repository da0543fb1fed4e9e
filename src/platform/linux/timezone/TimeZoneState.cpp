#include "platform/linux/timezone/TimeZoneState.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <sstream>
#include <utility>
#include <vector>

#include "platform/linux/process/FileDescriptor.h"

namespace platform {
namespace {

constexpr std::size_t largestContent = 256UL * 1024;

// Not blocking: a pipe in the file's place must not hold up the loop.
FileDescriptor openFile(const std::string& path) {
    return FileDescriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
}

std::string contentOf(const FileDescriptor& file) {
    std::string content(largestContent, '\0');
    std::size_t length = 0;
    ssize_t count = 0;
    while (length < content.size() &&
           (count = read(file.get(), content.data() + length, content.size() - length)) > 0) {
        length += static_cast<std::size_t>(count);
    }
    content.resize(length);
    return content;
}

std::string linkTarget(const std::string& path) {
    std::array<char, PATH_MAX> target{};
    const ssize_t length = readlink(path.c_str(), target.data(), target.size());
    return length < 0 ? std::string() : std::string(target.data(), static_cast<std::size_t>(length));
}

}  // namespace

TimeZoneFile readTimeZoneFile(const std::string& directory) {
    TimeZoneFile result;
    const std::string path = directory + "/localtime";
    const std::string target = linkTarget(path);
    if (!target.empty()) {
        result.zone = absoluteNormalPath(directory, target);
    }
    const FileDescriptor file = openFile(path);
    struct stat status {};
    if (file && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode)) {
        result.content = contentOf(file);
        result.modified = status.st_mtime;
    }
    return result;
}

std::string absoluteNormalPath(const std::string& directory, const std::string& path) {
    std::istringstream steps(path.front() == '/' ? path : directory + '/' + path);
    std::vector<std::string> kept;
    for (std::string step; std::getline(steps, step, '/');) {
        if (step == ".." && !kept.empty()) {
            kept.pop_back();
        } else if (!step.empty() && step != "." && step != "..") {
            kept.push_back(step);
        }
    }
    std::string normal;
    for (const std::string& step : kept) {
        normal += '/' + step;
    }
    return normal.empty() ? "/" : normal;
}

TimeZoneState::TimeZoneState(TimeZoneFile file) : m_last(std::move(file)) {}

bool TimeZoneState::differs(const TimeZoneFile& file) const {
    const bool bothNamed = !file.zone.empty() && !m_last.zone.empty();
    return file.content != m_last.content || (bothNamed && file.zone != m_last.zone);
}

void TimeZoneState::take(TimeZoneFile file) {
    m_last = std::move(file);
}

}  // namespace platform
