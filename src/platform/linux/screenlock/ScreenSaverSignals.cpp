#include "platform/linux/screenlock/ScreenSaverSignals.h"

#include <utility>

#include "platform/linux/bus/BusCallback.h"
#include "platform/linux/process/OutHandle.h"

namespace platform {
namespace {

/// A saver's service and interface have the same name.
struct Service {
    const char* name;
    const char* path;
};

constexpr std::array<Service, 3> services{{
    {"org.mate.ScreenSaver", "/org/mate/ScreenSaver"},
    {"org.cinnamon.ScreenSaver", "/org/cinnamon/ScreenSaver"},
    {"org.xfce.ScreenSaver", "/org/xfce/ScreenSaver"},
}};

std::string activeChangedRule(const Service& service) {
    return std::string("type='signal',sender='") + service.name + "',interface='" + service.name +
           "',member='ActiveChanged'";
}

}  // namespace

class ScreenSaverSignals::Saver {
public:
    Saver(sd_bus* bus, const Service& service, ScreenLockState& state)
        : m_bus(bus), m_service(service), m_state(state) {
        sd_bus_add_match_async(bus, OutHandle(m_match), activeChangedRule(service).c_str(),
                               &busCallback<&Saver::activeChanged, Saver>, nullptr, this);
        m_owner = std::make_unique<BusNameOwner>(bus, service.name,
                                                 [this](const std::string& owner) { ownerChanged(owner); });
    }
    ~Saver() { m_state.saverRemoved(m_service.name); }
    Saver(const Saver&) = delete;
    Saver& operator=(const Saver&) = delete;

private:
    // Another process keeps another state, which begins silently.
    void ownerChanged(const std::string& owner) {
        m_question.reset();
        m_state.saverRemoved(m_service.name);
        if (!owner.empty()) {
            sd_bus_call_method_async(m_bus, OutHandle(m_question), owner.c_str(), m_service.path,
                                     m_service.name, "GetActive", &busCallback<&Saver::answered, Saver>, this,
                                     "");
        }
    }

    void activeChanged(sd_bus_message* message) {
        int active = 0;
        if (m_owner->sent(message) && sd_bus_message_read(message, "b", &active) >= 0) {
            m_state.saverChanged(m_service.name, active != 0);
        }
    }

    void answered(sd_bus_message* message) {
        int active = 0;
        if (sd_bus_message_is_method_error(message, nullptr) == 0 &&
            sd_bus_message_read(message, "b", &active) >= 0) {
            m_state.saverRead(m_service.name, active != 0);
        }
    }

    sd_bus* m_bus;
    const Service& m_service;
    ScreenLockState& m_state;
    SlotHandle m_match;
    std::unique_ptr<BusNameOwner> m_owner;
    SlotHandle m_question;
};

ScreenSaverSignals::ScreenSaverSignals(ScreenLockState& state) : m_state(state) {}

ScreenSaverSignals::~ScreenSaverSignals() = default;

void ScreenSaverSignals::open(sd_bus* bus) {
    for (std::size_t index = 0; index < services.size(); ++index) {
        m_savers.at(index) = std::make_unique<Saver>(bus, services.at(index), m_state);
    }
}

void ScreenSaverSignals::close() {
    m_savers = {};
}

}  // namespace platform
