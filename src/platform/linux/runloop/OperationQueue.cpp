#include "platform/OperationQueue.h"

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/linux/runloop/PrivateThreads.h"

namespace platform {
namespace {

/// What the queue and its threads share. The threads keep it alive, so that operations outlive the queue.
class Operations {
public:
    void add(std::function<void()> operation) { boost::asio::post(m_context, std::move(operation)); }

    /// Runs operations until `finish` was called and none is left.
    void run() { m_context.run(); }

    void finish() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_work.reset();
    }

private:
    boost::asio::io_context m_context;
    std::mutex m_mutex;
    std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> m_work{
        boost::asio::make_work_guard(m_context)};
};

class OperationQueue : public IOperationQueue {
public:
    ~OperationQueue() override { m_operations->finish(); }
    OperationQueue() = default;
    OperationQueue(const OperationQueue&) = delete;
    OperationQueue& operator=(const OperationQueue&) = delete;

    void setMaxConcurrentOperationCount(int count) override { m_width = std::max(count, 1); }

    void addOperation(std::function<void()> operation) noexcept override {
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
