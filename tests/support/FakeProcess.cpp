#include <utility>

#include "platform/AutoreleasePool.h"
#include "platform/HomeDirectory.h"
#include "platform/Process.h"
#include "platform/RunLoop.h"
#include "platform/SystemLog.h"
#include "support/CallTrace.h"
#include "support/FakePlatform.h"
#include "support/FakeState.h"

namespace fake {

namespace {

// Written by the test's own thread before the code under test runs.
std::optional<std::string> homeDirectory;
std::function<void()> runLoopBody;

// The innermost open pool of the thread.
thread_local platform::AutoreleasePool* currentPool = nullptr;

class FakeRunLoop final : public platform::IRunLoop {
public:
    void run() override {
        CallTrace::instance().add("run loop: run");
        if (runLoopBody) {
            runLoopBody();
        }
        CallTrace::instance().add("run loop: returned");
    }
};

}  // namespace

void setHomeDirectory(std::optional<std::string> path) {
    homeDirectory = std::move(path);
}

void setRunLoopBody(std::function<void()> body) {
    runLoopBody = std::move(body);
}

void resetProcess() {
    homeDirectory.reset();
    runLoopBody = nullptr;
}

void resetPlatform() {
    resetOperations();
    resetConnections();
    resetNotificationCenter();
    resetProcess();
}

}  // namespace fake

namespace platform {

AutoreleasePool::AutoreleasePool() noexcept : m_token(std::exchange(fake::currentPool, this)) {
    fake::CallTrace::instance().add("pool: pushed");
}

// Pools that are closed in another order than they were opened in say so, and so fail every comparison.
AutoreleasePool::~AutoreleasePool() {
    fake::CallTrace::instance().add(fake::currentPool == this ? "pool: popped" : "pool: popped out of order");
    fake::currentPool = static_cast<AutoreleasePool*>(m_token);
}

std::optional<std::string> pathInHomeDirectory(const std::string& component) {
    fake::CallTrace::instance().add("path in home directory: " + component);
    if (!fake::homeDirectory) {
        return std::nullopt;
    }
    return *fake::homeDirectory + "/" + component;
}

void prepareProcess() noexcept {
    fake::CallTrace::instance().add("process prepared");
}

IRunLoop& mainRunLoop() {
    static fake::FakeRunLoop runLoop;
    fake::CallTrace::instance().add("run loop: obtained");
    return runLoop;
}

void writeSystemLog(const char* text, const char* path) {
    fake::CallTrace::instance().add(std::string("system log: ") + text + path);
}

}  // namespace platform
