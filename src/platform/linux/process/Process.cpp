#include "platform/Process.h"

#include <malloc.h>
#include <pthread.h>

#include <csignal>

#include "platform/StandardStreams.h"
#include "platform/linux/process/LocalTime.h"
#include "platform/linux/process/StandardOutput.h"

namespace platform {

namespace {

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
