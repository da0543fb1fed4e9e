#include "platform/Process.h"

#include <csignal>

namespace platform {

void prepareProcess() noexcept {
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
}

}  // namespace platform
