#include "platform/NotificationCenter.h"

#include <algorithm>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/linux/runloop/MainRunLoop.h"

namespace {

/// One callback under way.
struct Call {
    std::thread::id thread;
    /// Its own registration is being removed from inside it.
    bool removing = false;
};

/// One call of AddObserver. What changes is guarded by the centre's mutex.
struct Registration {
    void* observer;
    CFNotificationCallback callback;
    std::string name;
    bool removed = false;
    std::list<Call> calls;

    bool matches(const void* otherObserver, const char* otherName) const {
        return observer == otherObserver && name == otherName;
    }
};

using Registrations = std::vector<std::shared_ptr<Registration>>;

const char* textOf(CFNotificationName name) {
    return reinterpret_cast<const char*>(name);
}

}  // namespace

struct VelmNotificationCenter {
    enum class Delivery { OnPostersThread, OnMainRunLoop };

    explicit VelmNotificationCenter(Delivery delivery) : m_delivery(delivery) {}

    void add(const void* observer, CFNotificationCallback callback, const char* name);
    void remove(const void* observer, const char* name);
    void post(const std::string& name);

private:
    class CallUnderWay;

    Registrations registeredFor(const std::string& name);
    void deliver(const Registrations& registrations, const std::string& name);
    void forgetRemoved();
    bool isAwaited(const void* observer, const char* name, bool inside) const;
    bool markRemovingFromInside(const void* observer, const char* name);

    const Delivery m_delivery;
    std::mutex m_mutex;
    std::condition_variable m_callEnded;
    Registrations m_registrations;
};

/// Marks one callback as running from construction to destruction, also when it throws.
class VelmNotificationCenter::CallUnderWay {
public:
    CallUnderWay(VelmNotificationCenter& center, Registration& registration)
        : m_center(center), m_registration(registration) {
        const std::lock_guard<std::mutex> lock(m_center.m_mutex);
        m_wanted = !m_registration.removed;
        if (m_wanted) {
            m_call = m_registration.calls.insert(m_registration.calls.end(), {std::this_thread::get_id()});
        }
    }
    ~CallUnderWay() {
        if (m_wanted) {
            const std::lock_guard<std::mutex> lock(m_center.m_mutex);
            m_registration.calls.erase(m_call);
            m_center.forgetRemoved();
            m_center.m_callEnded.notify_all();
        }
    }
    CallUnderWay(const CallUnderWay&) = delete;
    CallUnderWay& operator=(const CallUnderWay&) = delete;

    /// False if the registration was removed in the meantime: then the callback must not be called.
    bool wanted() const { return m_wanted; }

private:
    VelmNotificationCenter& m_center;
    Registration& m_registration;
    std::list<Call>::iterator m_call;
    bool m_wanted = false;
};

void VelmNotificationCenter::add(const void* observer, CFNotificationCallback callback, const char* name) {
    auto registration = std::make_shared<Registration>();
    registration->observer = const_cast<void*>(observer);
    registration->callback = callback;
    registration->name = name;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_registrations.push_back(std::move(registration));
}

void VelmNotificationCenter::remove(const void* observer, const char* name) {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (const auto& registration : m_registrations) {
        registration->removed = registration->removed || registration->matches(observer, name);
    }
    forgetRemoved();
    const bool inside = markRemovingFromInside(observer, name);
    m_callEnded.notify_all();
    m_callEnded.wait(lock, [&] { return !isAwaited(observer, name, inside); });
}

void VelmNotificationCenter::post(const std::string& name) {
    Registrations registrations = registeredFor(name);
    if (registrations.empty()) {
        return;
    }
    if (m_delivery == Delivery::OnPostersThread) {
        deliver(registrations, name);
        return;
    }
    platform::MainRunLoop::instance().post(
        [this, name, registrations = std::move(registrations)] { deliver(registrations, name); });
}

Registrations VelmNotificationCenter::registeredFor(const std::string& name) {
    Registrations found;
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::copy_if(
        m_registrations.begin(), m_registrations.end(), std::back_inserter(found),
        [&name](const auto& registration) { return !registration->removed && registration->name == name; });
    return found;
}

void VelmNotificationCenter::deliver(const Registrations& registrations, const std::string& name) {
    for (const auto& registration : registrations) {
        const CallUnderWay call(*this, *registration);
        if (call.wanted()) {
            registration->callback(this, registration->observer,
                                   reinterpret_cast<CFNotificationName>(name.c_str()), nullptr, nullptr);
        }
    }
}

// A removed registration stays listed while it runs, so that a second removal waits for the callback as well.
void VelmNotificationCenter::forgetRemoved() {
    const auto isOver = [](const auto& registration) {
        return registration->removed && registration->calls.empty();
    };
    m_registrations.erase(std::remove_if(m_registrations.begin(), m_registrations.end(), isOver),
                          m_registrations.end());
}

bool VelmNotificationCenter::isAwaited(const void* observer, const char* name, bool inside) const {
    for (const auto& registration : m_registrations) {
        if (!registration->removed || !registration->matches(observer, name)) {
            continue;
        }
        for (const Call& call : registration->calls) {
            // Two callbacks that both remove themselves would wait for each other for ever.
            if (call.thread != std::this_thread::get_id() && !(inside && call.removing)) {
                return true;
            }
        }
    }
    return false;
}

bool VelmNotificationCenter::markRemovingFromInside(const void* observer, const char* name) {
    bool inside = false;
    for (const auto& registration : m_registrations) {
        for (Call& call : registration->calls) {
            if (registration->matches(observer, name) && call.thread == std::this_thread::get_id()) {
                call.removing = true;
                inside = true;
            }
        }
    }
    return inside;
}

const CFNotificationName kCFTimeZoneSystemTimeZoneDidChangeNotification =
    CFSTR("kCFTimeZoneSystemTimeZoneDidChangeNotification");

// Neither centre is ever destroyed: static objects of others may still remove their observers at exit.
CFNotificationCenterRef CFNotificationCenterGetDistributedCenter() {
    static auto* const center = new VelmNotificationCenter(VelmNotificationCenter::Delivery::OnMainRunLoop);
    return center;
}

CFNotificationCenterRef CFNotificationCenterGetLocalCenter() {
    static auto* const center = new VelmNotificationCenter(VelmNotificationCenter::Delivery::OnPostersThread);
    return center;
}

void CFNotificationCenterAddObserver(CFNotificationCenterRef center, const void* observer,
                                     CFNotificationCallback callback, CFNotificationName name,
                                     const void* /*object*/,
                                     CFNotificationSuspensionBehavior /*suspensionBehavior*/) {
    center->add(observer, callback, textOf(name));
}

void CFNotificationCenterRemoveObserver(CFNotificationCenterRef center, const void* observer,
                                        CFNotificationName name, const void* /*object*/) {
    if (observer != nullptr) {
        center->remove(observer, textOf(name));
    }
}

void CFNotificationCenterPostNotification(CFNotificationCenterRef center, CFNotificationName name,
                                          const void* /*object*/, CFDictionaryRef /*userInfo*/,
                                          Boolean /*deliverImmediately*/) {
    center->post(textOf(name));
}
