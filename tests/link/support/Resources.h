#pragma once

#include <sys/types.h>

#include <cstddef>
#include <ostream>

namespace link_tests {

/// What a process holds at one moment, as /proc tells it.
struct Resources {
    std::size_t memory = 0;  ///< resident, in KiB
    std::size_t threads = 0;
    std::size_t descriptors = 0;
    double processorSeconds = 0;  ///< in user and system mode, since it started
};

/// Throws std::filesystem::filesystem_error if there is no such process.
Resources resourcesOf(pid_t process);

std::ostream& operator<<(std::ostream& stream, const Resources& resources);

}  // namespace link_tests
