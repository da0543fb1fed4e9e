#include "platform/OperationQueue.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

#include "platform/linux/runloop/PrivateThreads.h"

namespace platform {
namespace {

using Operation = std::function<void()>;

/// What the queue and its threads share. The threads keep it alive, so that operations outlive the queue.
class Operations {
public:
    void add(Operation operation) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_waiting.push_back(std::move(operation));
        m_changed.notify_one();
    }

    /// Runs operations until `finish` was called and none is left.
    void run() {
        while (const Operation operation = next()) {
            operation();
        }
    }

    void finish() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_finished = true;
        m_changed.notify_all();
    }

private:
    /// Waits for the next operation; empty once there will be none.
    Operation next() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_finished || !m_waiting.empty(); });
        if (m_waiting.empty()) {
            return nullptr;
        }
        Operation operation = std::move(m_waiting.front());
        m_waiting.pop_front();
        return operation;
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Operation> m_waiting;
    bool m_finished = false;
};

class OperationQueue : public IOperationQueue {
public:
    ~OperationQueue() override { m_operations->finish(); }
    OperationQueue() = default;
    OperationQueue(const OperationQueue&) = delete;
    OperationQueue& operator=(const OperationQueue&) = delete;

    void setMaxConcurrentOperationCount(int count) override { m_width = std::max(count, 1); }

    void addOperation(Operation operation) noexcept override {
        startMissingThreads();
        // The operation may release this queue, and be over, before adding it returns.
        const std::shared_ptr<Operations> operations = m_operations;
        operations->add(std::move(operation));
    }

private:
    // A system that is out of threads now may have one when the next operation comes.
    void startMissingThreads() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        while (m_running < m_width && startThread()) {
            ++m_running;
        }
    }

    bool startThread() {
        return PrivateThreads::instance().start(
            "velm-queue", [operations = m_operations] { operations->run(); },
            [operations = m_operations] { operations->finish(); });
    }

    std::shared_ptr<Operations> m_operations = std::make_shared<Operations>();
    std::mutex m_mutex;
    int m_width = 1;
    int m_running = 0;
};

}  // namespace

std::shared_ptr<IOperationQueue> createOperationQueue() {
    return std::make_shared<OperationQueue>();
}

}  // namespace platform
