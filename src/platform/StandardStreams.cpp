#include "platform/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

namespace platform {

void occupyStandardStreams() noexcept {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (fcntl(stream, F_GETFD) < 0) {
            static_cast<void>(open("/dev/null", O_RDWR));
        }
    }
}

}  // namespace platform
