#include "platform/Process.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

namespace platform {

namespace {

// Otherwise the log file would get the number of a closed stream, and what is meant for the stream.
void occupyStandardStreams() {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (fcntl(stream, F_GETFD) < 0) {
            static_cast<void>(open("/dev/null", O_RDWR));
        }
    }
}

}  // namespace

void prepareProcess() noexcept {
    occupyStandardStreams();
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
}

}  // namespace platform
