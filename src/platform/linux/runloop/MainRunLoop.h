#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/RunLoop.h"
#include "platform/linux/process/FileDescriptor.h"
#include "platform/linux/runloop/EventHandles.h"

namespace platform {

/// The main run loop: an sd-event loop that ends on SIGTERM or SIGINT, which prepareProcess() has blocked.
///
/// From when the loop has ended, both signals do what they do by default: the next one ends the process.
///
/// Runs once in the life of the process. Where the system has no descriptors left for a loop, or the loop
/// itself fails, it tries again each second, with new sources, and can still be ended. An exception that
/// leaves a posted task ends the process, as there is nobody to catch it.
class MainRunLoop final : public IRunLoop {
public:
    /// Lives until the process ends.
    static MainRunLoop& instance();
    ~MainRunLoop() override = default;
    MainRunLoop(const MainRunLoop&) = delete;
    MainRunLoop& operator=(const MainRunLoop&) = delete;

    /// Makes the objects that watch for events on the loop; what it returns is released before `run` returns.
    using MakeSources = std::function<std::shared_ptr<void>(sd_event* loop)>;
    /// Has `run` make its sources with `make`; the loop itself knows none. Before `run`, on the same thread.
    void setSources(MakeSources make);

    void run() override;

    /// Has `task` run on the loop's thread after the tasks posted before it; kept until the loop runs,
    /// dropped once it has ended. Any thread; never blocks on the loop.
    void post(std::function<void()> task);

private:
    using Tasks = std::vector<std::function<void()>>;

    MainRunLoop();

    void runUntilAskedToEnd();
    /// False if the system gave no loop, or the loop failed: then nobody has asked it to end.
    bool runLoop();
    void makeWakeUp();
    Tasks takeTasks();
    void dropTasks();
    void runTasks();

    MakeSources m_makeSources;
    std::mutex m_mutex;
    FileDescriptor m_wakeUp;
    Tasks m_tasks;
    bool m_ended = false;
};

}  // namespace platform
