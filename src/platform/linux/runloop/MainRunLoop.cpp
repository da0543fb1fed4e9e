#include "platform/linux/runloop/MainRunLoop.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <csignal>
#include <ctime>
#include <utility>

#include "platform/linux/process/OutHandle.h"
#include "platform/linux/runloop/DeafLoop.h"
#include "platform/linux/runloop/EventCallback.h"
#include "platform/linux/runloop/EventHandles.h"
#include "platform/linux/runloop/PrivateThreads.h"

namespace platform {
namespace {

/// The loop with what ends it and what wakes it; false where the system has no descriptors left for it.
class Loop {
public:
    bool open(int wakeUp, sd_event_io_handler_t tasksPosted, void* tasks) {
        const bool made = sd_event_new(OutHandle(m_event)) >= 0;
        return made && addSources(wakeUp, tasksPosted, tasks);
    }
    sd_event* get() const { return m_event.get(); }

private:
    // Without a handler, a signal's source ends the loop.
    bool addSources(int wakeUp, sd_event_io_handler_t tasksPosted, void* tasks) {
        sd_event* const loop = m_event.get();
        return sd_event_add_signal(loop, OutHandle(m_terminate), SIGTERM, nullptr, nullptr) >= 0 &&
               sd_event_add_signal(loop, OutHandle(m_interrupt), SIGINT, nullptr, nullptr) >= 0 &&
               sd_event_add_io(loop, OutHandle(m_wakeUp), wakeUp, EPOLLIN, tasksPosted, tasks) >= 0;
    }

    LoopHandle m_event;
    SourceHandle m_terminate;
    SourceHandle m_interrupt;
    SourceHandle m_wakeUp;
};

// How long the link and its log go on without a loop, until the next attempt to have one: nothing that the
// loop watches for is seen meanwhile. Less than the time in which an ending signal must have ended the loop.
constexpr timespec untilNextLoop{1, 0};

sigset_t endingSignals() {
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    return ending;
}

bool endingSignalComes(const timespec& within) {
    const sigset_t ending = endingSignals();
    return sigtimedwait(&ending, nullptr, &within) > 0;
}

// What is left to do could still hang, in a log file on a disk that hangs for one; who asks twice means it.
void letTheNextSignalEndTheProcess() {
    const sigset_t ending = endingSignals();
    pthread_sigmask(SIG_UNBLOCK, &ending, nullptr);
}

}  // namespace

MainRunLoop& MainRunLoop::instance() {
    static auto* const loop = new MainRunLoop;
    return *loop;
}

MainRunLoop::MainRunLoop() = default;

void MainRunLoop::setSources(MakeSources make) {
    m_makeSources = std::move(make);
}

void MainRunLoop::run() {
    runUntilAskedToEnd();
    letTheNextSignalEndTheProcess();
    dropTasks();
    PrivateThreads::instance().drain();
}

void MainRunLoop::post(std::function<void()> task) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_ended) {
        return;
    }
    m_tasks.push_back(std::move(task));
    // Fails only when the count is at its end, and then the loop is awake.
    eventfd_write(m_wakeUp.get(), 1);
}

void MainRunLoop::runUntilAskedToEnd() {
    while (!runLoop() && !endingSignalComes(untilNextLoop)) {
    }
}

bool MainRunLoop::runLoop() {
    makeWakeUp();
    Loop loop;
    if (!loop.open(m_wakeUp.get(), &eventCallback<&MainRunLoop::runTasks, MainRunLoop>, this)) {
        tellThatLoopIsDeaf();
        return false;
    }
    const std::shared_ptr<void> sources = m_makeSources ? m_makeSources(loop.get()) : nullptr;
    return sd_event_loop(loop.get()) >= 0;
}

void MainRunLoop::makeWakeUp() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_wakeUp) {
        // Counts what may have been posted already.
        m_wakeUp = FileDescriptor(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK));
    }
}

MainRunLoop::Tasks MainRunLoop::takeTasks() {
    eventfd_t count = 0;
    eventfd_read(m_wakeUp.get(), &count);
    const std::lock_guard<std::mutex> lock(m_mutex);
    return std::exchange(m_tasks, {});
}

void MainRunLoop::dropTasks() {
    Tasks dropped;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_ended = true;
    dropped.swap(m_tasks);
}

void MainRunLoop::runTasks() {
    for (const auto& task : takeTasks()) {
        task();
    }
}

}  // namespace platform
