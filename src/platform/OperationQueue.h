#pragma once

#include <functional>
#include <memory>

namespace platform {

/// A queue of operations that run on threads of its own, in the order in which they were added, with the
/// operations of NSOperationQueue under its names.
///
/// It accepts without bound, on any thread, from its own operations too. What was added still runs after the
/// queue was released, and releasing it never waits: the last reference may be dropped inside one of its
/// operations. Operations must not throw. Once the main run loop has returned, nothing more runs and what is
/// added is dropped.
class IOperationQueue {
public:
    virtual ~IOperationQueue() = default;

    /// How many operations may run at once. Before the first operation is added.
    virtual void setMaxConcurrentOperationCount(int count) = 0;
    /// Appends `operation` and returns at once. Never throws: a process that has no memory left for an
    /// operation ends here rather than forget one.
    virtual void addOperation(std::function<void()> operation) noexcept = 0;
};

/// A new, empty queue. Never null.
std::shared_ptr<IOperationQueue> createOperationQueue();

}  // namespace platform
