#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "support/CallTrace.h"
#include "support/FakePlatform.h"
#include "support/FakeState.h"

namespace fake {

namespace {

std::mutex operationsMutex;
std::deque<std::function<void()>> operations;

bool runNext() {
    std::function<void()> operation;
    {
        const std::lock_guard<std::mutex> lock(operationsMutex);
        if (operations.empty()) {
            return false;
        }
        operation = std::move(operations.front());
        operations.pop_front();
    }
    operation();
    return true;
}

class FakeOperationQueue final : public platform::IOperationQueue {
public:
    FakeOperationQueue() { CallTrace::instance().add("queue: created"); }
    ~FakeOperationQueue() override { CallTrace::instance().add("queue: released"); }
    FakeOperationQueue(const FakeOperationQueue&) = delete;
    FakeOperationQueue& operator=(const FakeOperationQueue&) = delete;

    void setMaxConcurrentOperationCount(int count) override {
        CallTrace::instance().add("queue: width " + std::to_string(count));
    }

    // Kept apart from the queue, since what was added runs also after the queue was released.
    void addOperation(std::function<void()> operation) noexcept override {
        CallTrace::instance().add("queue: operation added");
        Operations::add(std::move(operation));
    }
};

}  // namespace

void Operations::add(std::function<void()> operation) {
    const std::lock_guard<std::mutex> lock(operationsMutex);
    operations.push_back(std::move(operation));
}

std::size_t Operations::pending() {
    const std::lock_guard<std::mutex> lock(operationsMutex);
    return operations.size();
}

void Operations::runAll() {
    while (runNext()) {
    }
}

void Operations::runAllOnAnotherThread() {
    std::thread(&Operations::runAll).join();
}

void resetOperations() {
    std::deque<std::function<void()>> dropped;
    const std::lock_guard<std::mutex> lock(operationsMutex);
    dropped.swap(operations);
}

}  // namespace fake

std::shared_ptr<platform::IOperationQueue> platform::createOperationQueue() {
    return std::make_shared<fake::FakeOperationQueue>();
}
