#pragma once

#include <sys/inotify.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/linux/runloop/EventHandles.h"
#include "platform/linux/timezone/LinkChain.h"

namespace platform {

/// Watches what a chain of links depends on, each step in its directory: most ways of setting a zone put
/// another file in the old one's place, which a watch on the file itself would not see. Everything on the
/// loop's thread.
class ChainWatch {
public:
    /// `changed` is called for each event that may have made the chain another. It must not watch again
    /// itself. `loop` must outlive this object.
    ChainWatch(sd_event* loop, std::function<void()> changed);
    ~ChainWatch() = default;
    ChainWatch(const ChainWatch&) = delete;
    ChainWatch& operator=(const ChainWatch&) = delete;

    /// Watches `chain` in the place of what was watched before. Zero, or the negative errno of the first
    /// directory that cannot be watched; the others are watched all the same.
    int watch(const LinkChain& chain);

private:
    struct Directory {
        ChainWatch* owner;
        std::set<std::string> names;
        SourceHandle source;

        void happened(const inotify_event& event) const;
    };

    int watchDirectory(const std::string& path, const std::set<std::string>& names);

    sd_event* m_loop;
    std::function<void()> m_changed;
    std::vector<std::unique_ptr<Directory>> m_directories;
};

}  // namespace platform
