#include "platform/Process.h"

#include <csignal>

#include "platform/StandardStreams.h"

namespace platform {

void prepareProcess() noexcept {
    occupyStandardStreams();
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
}

}  // namespace platform
