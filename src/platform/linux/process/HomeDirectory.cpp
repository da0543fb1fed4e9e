#include "platform/HomeDirectory.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace platform {
namespace {

bool isAbsolute(const char* path) {
    return path != nullptr && path[0] == '/';
}

std::optional<std::string> homeOfPasswordEntry() {
    constexpr std::size_t largestEntry = std::size_t{1} << 20;
    for (std::size_t size = 1024; size <= largestEntry; size *= 2) {
        std::vector<char> text(size);
        passwd entry{};
        passwd* found = nullptr;
        const int error = getpwuid_r(getuid(), &entry, text.data(), text.size(), &found);
        if (error == ERANGE) {
            continue;
        }
        if (error != 0 || found == nullptr || !isAbsolute(found->pw_dir)) {
            return std::nullopt;
        }
        return found->pw_dir;
    }
    return std::nullopt;
}

// A user's service manager and a login both say where home is; the entry serves where neither started us.
std::optional<std::string> homeDirectory() {
    const char* const home = std::getenv("HOME");
    return isAbsolute(home) ? std::optional<std::string>(home) : homeOfPasswordEntry();
}

}  // namespace

std::optional<std::string> pathInHomeDirectory(const std::string& component) {
    std::optional<std::string> path = homeDirectory();
    if (path) {
        path->erase(path->find_last_not_of('/') + 1);
        const std::size_t start = component.find_first_not_of('/');
        *path += '/';
        path->append(component, start == std::string::npos ? component.size() : start, std::string::npos);
    }
    return path;
}

}  // namespace platform
