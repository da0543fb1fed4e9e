#include "platform/OperationQueue.h"

#import <Foundation/Foundation.h>

#include "platform/macos/ExceptionBoundary.h"

namespace platform {
namespace {

class OperationQueue : public IOperationQueue {
public:
    void setMaxConcurrentOperationCount(int count) override {
        [m_queue setMaxConcurrentOperationCount:count];
    }

    void addOperation(std::function<void()> operation) noexcept override {
        @autoreleasepool {
            [m_queue addOperationWithBlock:^{
                atExceptionBoundary([&] { operation(); });
            }];
        }
    }

private:
    NSOperationQueue* m_queue = [[NSOperationQueue alloc] init];
};

}  // namespace

std::shared_ptr<IOperationQueue> createOperationQueue() {
    return std::make_shared<OperationQueue>();
}

}  // namespace platform
