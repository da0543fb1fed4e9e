#include "platform/Process.h"

#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>

#include "platform/linux/process/LocalTime.h"
#include "platform/linux/process/StandardOutput.h"

namespace platform {

namespace {

// Otherwise the log file or a bus would get the number of a closed stream, and what is meant for the stream.
void occupyStandardStreams() {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (fcntl(stream, F_GETFD) < 0) {
            static_cast<void>(open("/dev/null", O_RDWR));
        }
    }
}

// Otherwise each of the first threads gets a heap of its own, whose pages it keeps to itself for a few
// hundred bytes. There is no traffic here for which threads would wait for each other. mallopt(3).
void keepOneHeap() {
    static_cast<void>(mallopt(M_ARENA_MAX, 1));
}

}  // namespace

void prepareProcess() noexcept {
    occupyStandardStreams();
    keepOneHeap();
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    neverWaitForStandardOutput();

    // Threads inherit the mask, so the two stay pending for the loop, which fetches them from a descriptor.
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);

    prepareLocalTime();
}

}  // namespace platform
