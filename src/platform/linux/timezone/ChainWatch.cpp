#include "platform/linux/timezone/ChainWatch.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "platform/linux/process/OutHandle.h"
#include "platform/linux/runloop/EventCallback.h"

namespace platform {
namespace {

constexpr std::uint32_t lossOfDirectory = IN_MOVE_SELF | IN_DELETE_SELF;
constexpr std::uint32_t changesOfNames = IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_CLOSE_WRITE | IN_DELETE;

}  // namespace

ChainWatch::ChainWatch(sd_event* loop, std::function<void()> changed)
    : m_loop(loop), m_changed(std::move(changed)) {}

int ChainWatch::watch(const LinkChain& chain) {
    m_directories.clear();
    int firstError = 0;
    for (const auto& [path, names] : chain.directories) {
        const int error = watchDirectory(path, names);
        firstError = firstError < 0 ? firstError : error;
    }
    return firstError;
}

int ChainWatch::watchDirectory(const std::string& path, const std::set<std::string>& names) {
    // Of a directory that is only passed through just its going matters; much may happen in it.
    const std::uint32_t events = lossOfDirectory | (names.empty() ? 0 : changesOfNames);
    auto directory = std::make_unique<Directory>(Directory{this, names, nullptr});
    const int error =
        sd_event_add_inotify(m_loop, OutHandle(directory->source), path.c_str(), events | IN_ONLYDIR,
                             &eventCallback<&Directory::happened, Directory>, directory.get());
    if (error >= 0) {
        m_directories.push_back(std::move(directory));
    }
    // One that may be passed through but not read hardly ever goes.
    return names.empty() && error == -EACCES ? 0 : std::min(error, 0);
}

void ChainWatch::Directory::happened(const inotify_event& event) const {
    constexpr std::uint32_t anythingMayHaveChanged =
        lossOfDirectory | IN_IGNORED | IN_UNMOUNT | IN_Q_OVERFLOW;
    const bool concerns = event.len > 0 && names.count(event.name) > 0;
    if (concerns || (event.mask & anythingMayHaveChanged) != 0) {
        owner->m_changed();
    }
}

}  // namespace platform
