#include <CoreFoundation/CoreFoundation.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "doubles/RunLoop.h"
#include "runtime/Runtime.h"

// The doubles of CoreFoundation's notification centres.

// What the compiler makes of CFSTR.
struct __CFString {
    const void* isa;
    int flags;
    const char* text;
    long length;
};
extern "C" {
int __CFConstantStringClassReference[32];
}

struct __CFNotificationCenter {
    struct Entry {
        const void* observer;
        CFNotificationCallback callback;
        std::string name;
    };

    std::mutex mutex;
    std::vector<Entry> entries;
};

namespace {

__CFNotificationCenter& center(bool distributed) {
    static auto* const centers = new __CFNotificationCenter[2];
    return centers[distributed ? 1 : 0];
}

}  // namespace

extern "C" {

const CFNotificationName kCFTimeZoneSystemTimeZoneDidChangeNotification =
    CFSTR("kCFTimeZoneSystemTimeZoneDidChangeNotification");

CFNotificationCenterRef CFNotificationCenterGetLocalCenter() {
    return &center(false);
}

CFNotificationCenterRef CFNotificationCenterGetDistributedCenter() {
    return &center(true);
}

void CFNotificationCenterAddObserver(CFNotificationCenterRef to, const void* observer,
                                     CFNotificationCallback callback, CFStringRef name, const void* object,
                                     CFNotificationSuspensionBehavior suspensionBehavior) {
    if (object != nullptr || suspensionBehavior != CFNotificationSuspensionBehaviorDeliverImmediately) {
        runtime::fail("an observation that these doubles don't know");
    }
    const std::lock_guard<std::mutex> lock(to->mutex);
    to->entries.push_back({observer, callback, name->text});
}

void CFNotificationCenterRemoveObserver(CFNotificationCenterRef from, const void* observer,
                                        CFNotificationName name, const void* object) {
    const std::lock_guard<std::mutex> lock(from->mutex);
    auto& entries = from->entries;
    entries.erase(std::remove_if(entries.begin(), entries.end(),
                                 [&](const auto& entry) {
                                     return object == nullptr && entry.observer == observer &&
                                            entry.name == name->text;
                                 }),
                  entries.end());
}
}

namespace doubles {

bool mainRunLoopHasSource() {
    const std::lock_guard<std::mutex> lock(center(true).mutex);
    return !center(true).entries.empty();
}

void post(const char* centerName, const char* name) {
    __CFNotificationCenter& to = center(std::strcmp(centerName, "distributed") == 0);
    std::vector<__CFNotificationCenter::Entry> entries;
    {
        const std::lock_guard<std::mutex> lock(to.mutex);
        entries = to.entries;
    }
    const __CFString text{&__CFConstantStringClassReference, 0, name, static_cast<long>(std::strlen(name))};
    for (const auto& entry : entries) {
        if (entry.name == name) {
            entry.callback(&to, const_cast<void*>(entry.observer), &text, nullptr, nullptr);
        }
    }
}

}  // namespace doubles
