#include <algorithm>
#include <mutex>
#include <utility>

#include "platform/NotificationCenter.h"
#include "support/CallTrace.h"
#include "support/FakePlatform.h"
#include "support/FakeState.h"

struct VelmNotificationCenter {
    std::string name;
};

namespace fake {

namespace {

struct Observer {
    Registration registration;
    CFNotificationCallback callback;
};

std::mutex observersMutex;
std::vector<Observer> observers;

std::string textOf(CFStringRef string) {
    return reinterpret_cast<const char*>(string);
}

void note(const std::string& what, CFNotificationCenterRef center, const void* observer,
          CFNotificationName name) {
    CallTrace::instance().add(center->name + " centre: " + what +
                              (observer == nullptr ? " null" : " an observer") + " for " + textOf(name));
}

std::vector<Observer> observersOf(CFNotificationCenterRef center, CFNotificationName name) {
    const std::lock_guard<std::mutex> lock(observersMutex);
    std::vector<Observer> found;
    std::copy_if(
        observers.begin(), observers.end(), std::back_inserter(found), [&](const Observer& observer) {
            return observer.registration.center == center->name && observer.registration.name == textOf(name);
        });
    return found;
}

void post(CFNotificationCenterRef center, CFNotificationName name) {
    CFNotificationCenterPostNotification(center, name, nullptr, nullptr, 1);
}

}  // namespace

std::vector<Registration> registrations() {
    const std::lock_guard<std::mutex> lock(observersMutex);
    std::vector<Registration> all;
    std::transform(observers.begin(), observers.end(), std::back_inserter(all),
                   [](const Observer& observer) { return observer.registration; });
    return all;
}

void postScreenLocked() {
    post(CFNotificationCenterGetDistributedCenter(), CFSTR("com.apple.screenIsLocked"));
}

void postScreenUnlocked() {
    post(CFNotificationCenterGetDistributedCenter(), CFSTR("com.apple.screenIsUnlocked"));
}

void postTimeZoneChanged() {
    post(CFNotificationCenterGetLocalCenter(), kCFTimeZoneSystemTimeZoneDidChangeNotification);
}

void resetNotificationCenter() {
    const std::lock_guard<std::mutex> lock(observersMutex);
    observers.clear();
}

}  // namespace fake

const CFNotificationName kCFTimeZoneSystemTimeZoneDidChangeNotification =
    CFSTR("kCFTimeZoneSystemTimeZoneDidChangeNotification");

CFNotificationCenterRef CFNotificationCenterGetDistributedCenter() {
    static VelmNotificationCenter center{"distributed"};
    return &center;
}

CFNotificationCenterRef CFNotificationCenterGetLocalCenter() {
    static VelmNotificationCenter center{"local"};
    return &center;
}

void CFNotificationCenterAddObserver(CFNotificationCenterRef center, const void* observer,
                                     CFNotificationCallback callback, CFNotificationName name,
                                     const void* object,
                                     CFNotificationSuspensionBehavior suspensionBehavior) {
    {
        const std::lock_guard<std::mutex> lock(fake::observersMutex);
        fake::observers.push_back(
            {{center->name, fake::textOf(name), observer, object, suspensionBehavior}, callback});
    }
    fake::note("added", center, observer, name);
}

void CFNotificationCenterRemoveObserver(CFNotificationCenterRef center, const void* observer,
                                        CFNotificationName name, const void* object) {
    fake::note("removed", center, observer, name);
    const std::lock_guard<std::mutex> lock(fake::observersMutex);
    const auto matches = [&](const fake::Observer& candidate) {
        const fake::Registration& registration = candidate.registration;
        return observer != nullptr && registration.observer == observer && registration.object == object &&
               registration.center == center->name && registration.name == fake::textOf(name);
    };
    fake::observers.erase(std::remove_if(fake::observers.begin(), fake::observers.end(), matches),
                          fake::observers.end());
}

void CFNotificationCenterPostNotification(CFNotificationCenterRef center, CFNotificationName name,
                                          const void* object, CFDictionaryRef userInfo,
                                          Boolean /*deliverImmediately*/) {
    for (const fake::Observer& observer : fake::observersOf(center, name)) {
        observer.callback(center, const_cast<void*>(observer.registration.observer), name, object, userInfo);
    }
}
