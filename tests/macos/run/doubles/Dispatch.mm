#import <dispatch/dispatch.h>
#include <poll.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "doubles/WorkQueue.h"
#include "runtime/Runtime.h"

// Doubles of libdispatch's queues and read sources over WorkQueue.

using doubles::WorkQueue;

@interface DoubleQueue : NSObject <OS_dispatch_queue>
- (instancetype)initWithQueue:(std::shared_ptr<WorkQueue>)queue;
- (WorkQueue&)queue;
@end

@implementation DoubleQueue {
    std::shared_ptr<WorkQueue> m_queue;
}
- (instancetype)initWithQueue:(std::shared_ptr<WorkQueue>)queue {
    self = [super init];
    m_queue = std::move(queue);
    return self;
}
- (WorkQueue&)queue {
    return *m_queue;
}
- (void)dealloc {
    // libdispatch ends the process for it.
    if (m_queue->isSuspended()) {
        runtime::fail("a suspended queue is released");
    }
}
@end

namespace {

struct Source {
    int descriptor;
    dispatch_queue_t queue;
    std::atomic<bool> cancelled{false};
    dispatch_block_t handler;
};

WorkQueue& queueOf(NSObject* queue) {
    return [(DoubleQueue*)queue queue];
}

}  // namespace

@interface DoubleSource : NSObject <OS_dispatch_source>
- (instancetype)initWithSource:(std::shared_ptr<Source>)source;
- (std::shared_ptr<Source>)source;
@end

@implementation DoubleSource {
    std::shared_ptr<Source> m_source;
}
- (instancetype)initWithSource:(std::shared_ptr<Source>)source {
    self = [super init];
    m_source = std::move(source);
    return self;
}
- (std::shared_ptr<Source>)source {
    return m_source;
}
- (void)dealloc {
    m_source->cancelled = true;
}
@end

const struct dispatch_source_type_s {
} _dispatch_source_type_read;

dispatch_queue_t dispatch_get_main_queue(void) {
    static DoubleQueue* const queue =
        [[DoubleQueue alloc] initWithQueue:std::make_shared<WorkQueue>(WorkQueue::Runs::WhereLent)];
    return queue;
}

dispatch_queue_t dispatch_queue_create(const char*, dispatch_queue_attr_t attributes) {
    if (attributes != DISPATCH_QUEUE_SERIAL) {
        runtime::fail("only serial queues are known here");
    }
    return [[DoubleQueue alloc] initWithQueue:std::make_shared<WorkQueue>()];
}

void dispatch_async(dispatch_queue_t queue, dispatch_block_t block) {
    // As documented, the queue lives until its work is done.
    queueOf(queue).add([queue, block] {
        static_cast<void>(queue);
        block();
    });
}

void dispatch_sync(dispatch_queue_t queue, dispatch_block_t block) {
    queueOf(queue).runAndWait([&] { block(); });
}

dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta) {
    if (when != DISPATCH_TIME_NOW) {
        runtime::fail("dispatch_time of another base than now");
    }
    return static_cast<dispatch_time_t>(delta);
}

void dispatch_after(dispatch_time_t when, dispatch_queue_t queue, dispatch_block_t block) {
    queueOf(queue).addAfter(std::chrono::nanoseconds(when), [queue, block] {
        static_cast<void>(queue);
        block();
    });
}

void dispatch_suspend(NSObject* object) {
    queueOf(object).suspend();
}

void dispatch_main(void) {
    queueOf(dispatch_get_main_queue()).serve();
}

dispatch_source_t dispatch_source_create(dispatch_source_type_t, uintptr_t handle, uintptr_t,
                                         dispatch_queue_t queue) {
    auto source = std::make_shared<Source>();
    source->descriptor = static_cast<int>(handle);
    source->queue = queue;
    return [[DoubleSource alloc] initWithSource:std::move(source)];
}

void dispatch_source_set_event_handler(dispatch_source_t source, dispatch_block_t handler) {
    [(DoubleSource*)source source]->handler = handler;
}

void dispatch_source_cancel(dispatch_source_t source) {
    [(DoubleSource*)source source]->cancelled = true;
}

void dispatch_resume(NSObject* object) {
    if (std::string("DoubleQueue") == runtime::nameOf(runtime::classOf((__bridge void*)object))) {
        queueOf(object).resume();
        return;
    }
    std::thread([source = [(DoubleSource*)object source]] {
        pollfd readable{source->descriptor, POLLIN, 0};
        while (!source->cancelled && poll(&readable, 1, -1) > 0) {
            dispatch_sync(source->queue, source->handler);
        }
    }).detach();
}
