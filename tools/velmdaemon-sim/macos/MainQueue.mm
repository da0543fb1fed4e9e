#import "macos/MainQueue.h"

#import <dispatch/dispatch.h>

#include "platform/macos/ExceptionBoundary.h"

using platform::atExceptionBoundary;

namespace sim {

void postToMainQueue(const std::function<void()>& work) noexcept {
    // A block copies what it captures, but of a reference only the reference.
    const std::function<void()> kept = work;
    dispatch_async(dispatch_get_main_queue(), ^{
        atExceptionBoundary(kept);
    });
}

void postToMainQueue(std::chrono::milliseconds delay, const std::function<void()>& work) noexcept {
    const std::function<void()> kept = work;
    const std::chrono::nanoseconds later = delay;
    dispatch_after(dispatch_time(DISPATCH_TIME_NOW, later.count()), dispatch_get_main_queue(), ^{
        atExceptionBoundary(kept);
    });
}

void runOnMainQueue(const std::function<void()>& work) noexcept {
    const std::function<void()>* const pending = &work;
    dispatch_sync(dispatch_get_main_queue(), ^{
        atExceptionBoundary(*pending);
    });
}

}  // namespace sim
