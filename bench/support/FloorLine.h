#pragma once

#include <unistd.h>

#include <future>
#include <mutex>

namespace bench {

/// The least that the agent's way of logging can cost: a thread for the line, for which the caller waits, and
/// two writes of a text that is there already, to standard output and to the file `descriptor`.
inline void writeFloorLine(int descriptor) {
    static std::mutex mutex;
    static_cast<void>(std::async(std::launch::async, [descriptor] {
        static constexpr char line[] =
            "2026/11/16 05:28:20:007 [TRACE] Monitor launcher: screen lock status 1\n";
        const std::lock_guard<std::mutex> lock(mutex);
        static_cast<void>(!write(STDOUT_FILENO, line, sizeof line - 1));
        static_cast<void>(!write(descriptor, line, sizeof line - 1));
    }));
}

}  // namespace bench
