#include "platform/linux/screenlock/ScreenSaverSignals.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <utility>

#include "platform/linux/bus/BusCallback.h"
#include "platform/linux/process/OutHandle.h"
#include "platform/linux/runloop/OneShotTimer.h"

namespace platform {
namespace {

// A saver that crashed or is replaced is back by then.
constexpr std::chrono::seconds longestAbsence{2};

constexpr const char* screenShield = "org.gnome.Shell.ScreenShield";
constexpr const char* kdeLocker = "org.kde.screensaver";
constexpr const char* commonSaver = "org.freedesktop.ScreenSaver";

// Both keep the hint, and their savers' "active" may mean a blank screen only.
constexpr std::array<const char*, 2> lockersWithHint{screenShield, kdeLocker};

/// A saver's service and interface have the same name.
struct Service {
    const char* name;
    const char* path;
};

// In this order they are asked for: what rules another out comes before it, so that it is known by then.
constexpr std::array<Service, 5> services{{
    {"org.mate.ScreenSaver", "/org/mate/ScreenSaver"},
    {"org.cinnamon.ScreenSaver", "/org/cinnamon/ScreenSaver"},
    {"org.xfce.ScreenSaver", "/org/xfce/ScreenSaver"},
    {"org.gnome.ScreenSaver", "/org/gnome/ScreenSaver"},
    {commonSaver, "/org/freedesktop/ScreenSaver"},
}};

// `owned` are the names that have an owner.
bool isRuledOut(const std::string& saver, const std::set<std::string>& owned) {
    if (saver == "org.gnome.ScreenSaver") {
        return owned.count(screenShield) > 0;
    }
    // Beside any other, this one is the same saver under its common name, or one for other purposes.
    const auto others = owned.size() - owned.count(saver);
    return saver == commonSaver && others > 0;
}

// Its "active" means that the screen is blanked, whether locked or not.
bool isLightLocker(std::uint32_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/comm");
    std::string name;
    std::getline(file, name);
    return name == "light-locker";
}

std::string activeChangedRule(const Service& service) {
    return std::string("type='signal',sender='") + service.name + "',interface='" + service.name +
           "',member='ActiveChanged'";
}

}  // namespace

class ScreenSaverSignals::Saver {
public:
    /// `owned` is told whenever the name gets or loses its owner.
    Saver(sd_bus* bus, const Service& service, ScreenLockState& state, std::function<void(bool)> owned)
        : m_bus(bus),
          m_service(service),
          m_state(state),
          m_owned(std::move(owned)),
          m_absence(sd_bus_get_event(bus), [this] { m_state.saverStaysAway(m_service.name); }) {
        sd_bus_add_match_async(bus, OutHandle(m_match), activeChangedRule(service).c_str(),
                               &busCallback<&Saver::activeChanged, Saver>, nullptr, this);
        m_name = std::make_unique<BusNameOwner>(bus, service.name,
                                                [this](const std::string& owner) { ownerChanged(owner); });
    }
    ~Saver() { forget(); }
    Saver(const Saver&) = delete;
    Saver& operator=(const Saver&) = delete;

    const char* name() const { return m_service.name; }

    void setRuledOut(bool ruledOut) {
        if (std::exchange(m_ruledOut, ruledOut) != ruledOut) {
            if (m_ruledOut) {
                forget();
            } else {
                ask();
            }
        }
    }

private:
    bool counts() const { return !m_owner.empty() && m_accepted && !m_ruledOut; }

    // Another process keeps another state.
    void ownerChanged(const std::string& owner) {
        const bool counted = counts();
        m_question.reset();
        m_owner = owner;
        m_accepted = false;
        if (counted) {
            m_state.saverVanished(m_service.name);
            m_absence.start(longestAbsence);
        }
        m_owned(!owner.empty());
        if (owner.empty()) {
            return;
        }
        if (m_service.name == std::string(commonSaver)) {
            askWhoItIs();
        } else {
            accept();
        }
    }

    void askWhoItIs() {
        sd_bus_call_method_async(m_bus, OutHandle(m_question), "org.freedesktop.DBus",
                                 "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                 "GetConnectionUnixProcessID", &busCallback<&Saver::identified, Saver>, this,
                                 "s", m_owner.c_str());
    }

    void identified(sd_bus_message* message) {
        std::uint32_t process = 0;
        const bool known = sd_bus_message_is_method_error(message, nullptr) == 0 &&
                           sd_bus_message_read(message, "u", &process) >= 0;
        if (!known || !isLightLocker(process)) {
            accept();
        }
    }

    void accept() {
        m_accepted = true;
        ask();
    }

    void ask() {
        if (counts()) {
            sd_bus_call_method_async(m_bus, OutHandle(m_question), m_owner.c_str(), m_service.path,
                                     m_service.name, "GetActive", &busCallback<&Saver::answered, Saver>, this,
                                     "");
        }
    }

    void forget() {
        if (m_accepted) {
            m_question.reset();
        }
        m_absence.stop();
        m_state.saverForgotten(m_service.name);
    }

    void activeChanged(sd_bus_message* message) {
        int active = 0;
        if (counts() && m_name->sent(message) && sd_bus_message_read(message, "b", &active) >= 0) {
            m_absence.stop();
            m_state.saverChanged(m_service.name, active != 0);
        }
    }

    void answered(sd_bus_message* message) {
        int active = 0;
        if (sd_bus_message_is_method_error(message, nullptr) == 0 &&
            sd_bus_message_read(message, "b", &active) >= 0) {
            m_absence.stop();
            m_state.saverRead(m_service.name, active != 0);
        }
    }

    sd_bus* m_bus;
    const Service& m_service;
    ScreenLockState& m_state;
    std::function<void(bool)> m_owned;
    OneShotTimer m_absence;
    SlotHandle m_match;
    std::unique_ptr<BusNameOwner> m_name;
    SlotHandle m_question;
    std::string m_owner;
    /// Whether the owner is known to be one that says when it locks.
    bool m_accepted = false;
    bool m_ruledOut = false;
};

ScreenSaverSignals::ScreenSaverSignals(ScreenLockState& state) : m_state(state) {}

ScreenSaverSignals::~ScreenSaverSignals() = default;

void ScreenSaverSignals::open(sd_bus* bus) {
    for (const std::string name : lockersWithHint) {
        m_lockers.push_back(std::make_unique<BusNameOwner>(
            bus, name, [this, name](const std::string& owner) { ownedNow(name, !owner.empty()); }));
    }
    for (const Service& service : services) {
        m_savers.push_back(std::make_unique<Saver>(
            bus, service, m_state, [this, &service](bool owned) { ownedNow(service.name, owned); }));
    }
}

void ScreenSaverSignals::close() {
    m_savers.clear();
    m_lockers.clear();
    m_owned.clear();
}

void ScreenSaverSignals::ownedNow(const std::string& name, bool owned) {
    if (owned) {
        m_owned.insert(name);
    } else {
        m_owned.erase(name);
    }
    for (const auto& saver : m_savers) {
        saver->setRuledOut(isRuledOut(saver->name(), m_owned));
    }
}

}  // namespace platform
