#include "platform/Process.h"

#include <pthread.h>

#include <csignal>
#include <cstdlib>
#include <ctime>

namespace platform {

void prepareProcess() noexcept {
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));

    // Threads inherit the mask, so the two stay pending for the loop, which fetches them from a descriptor.
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);

    // With TZ set the C library never looks at /etc/localtime again. Only here is changing the environment
    // safe.
    unsetenv("TZ");
    tzset();
}

}  // namespace platform
