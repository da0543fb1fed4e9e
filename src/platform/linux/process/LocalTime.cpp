#include "platform/linux/process/LocalTime.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "platform/linux/process/FileDescriptor.h"

namespace platform {
namespace {

// The C library looks at /etc/localtime again only when inode or time of modification differ, so it would
// miss `cp -p`; it waits for a writer if that is a pipe; and it may read what is half written. So it is given
// a file of our own to read, which holds the rules that were found and is a new one each time.
//
// TZ names that file. The library reads it again only when the text of TZ differs, so one byte of the text
// changes between two spellings of the same path. The environment itself is never touched after the start.
constexpr std::size_t longestVariable = 64;
std::array<char, longestVariable> variable{};
constexpr std::size_t spellingAt = sizeof "TZ=:/proc/self/" - 1;

// What TZ names; nothing while the C library is left to /etc/localtime.
int rulesDescriptor = -1;

FileDescriptor fileWith(const std::string& text) noexcept {
    FileDescriptor file(memfd_create("velm-local-time", MFD_CLOEXEC));
    if (file && write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        file.reset();
    }
    return file;
}

// Log lines of other threads may be having the library read TZ just now; a single byte is never half written.
void respell() noexcept {
    char& spelling = variable[spellingAt];
    __atomic_store_n(&spelling, spelling == '.' ? '/' : '.', __ATOMIC_RELEASE);
}

bool nameDescriptor(int descriptor) noexcept {
    std::snprintf(variable.data(), variable.size(), "TZ=:/proc/self/./fd/%d", descriptor);
    const char* const path = variable.data() + sizeof "TZ=:" - 1;
    return access(path, R_OK) == 0 && putenv(variable.data()) == 0;
}

}  // namespace

std::optional<std::string> readZoneRules(const std::string& path) {
    constexpr std::size_t bound = 64UL * 1024;
    constexpr std::size_t portion = 4096;
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    std::string rules;
    std::array<char, portion> buffer{};
    ssize_t count = 0;
    while (rules.size() < bound && (count = read(file.get(), buffer.data(), buffer.size())) > 0) {
        rules.append(buffer.data(), static_cast<std::size_t>(count));
    }
    rules.shrink_to_fit();
    return rules;
}

void prepareLocalTime() noexcept {
    unsetenv("TZ");
    FileDescriptor file = fileWith(readZoneRules("/etc/localtime").value_or(std::string()));
    if (file && nameDescriptor(file.get())) {
        rulesDescriptor = file.release();
    }
    tzset();
}

bool setLocalTime(const std::optional<std::string>& rules) noexcept {
    if (rulesDescriptor >= 0) {
        const FileDescriptor file = fileWith(rules.value_or(std::string()));
        if (!file || dup3(file.get(), rulesDescriptor, O_CLOEXEC) < 0) {
            return false;
        }
        respell();
    }
    tzset();
    return true;
}

}  // namespace platform
