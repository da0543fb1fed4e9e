#pragma once

#include <map>
#include <string>
#include <vector>

#include "Options.h"
#include "StandIn.h"
#include "linux/Delays.h"
#include "linux/Handles.h"
#include "platform/linux/link/ProtocolVTable.h"

namespace sim {

/// The stand-in on a bus: owns the service name, hands calls to the stand-in, and tells it when agents leave.
///
/// Single-threaded, on the event loop. When the bus or the name is lost, it says so on standard error and
/// ends the loop with the fitting status.
class DaemonService {
public:
    /// Connects and asks for the name; throws Failure if that cannot be. Calls may arrive as soon as the loop
    /// runs. Everything that is passed must outlive this object.
    DaemonService(sd_event* event, const BusOptions& options, StandIn& standIn, Timeline& timeline,
                  Delays& delays);
    DaemonService(const DaemonService&) = delete;
    DaemonService& operator=(const DaemonService&) = delete;
    DaemonService(DaemonService&&) = delete;
    DaemonService& operator=(DaemonService&&) = delete;
    ~DaemonService() = default;

    /// Once the loop has ended: sends what was still to be sent, for as long as the bus takes it, but waits
    /// no longer than half a minute for a bus that does not.
    void sendTheRest();

private:
    void watchName();
    void requestName();
    Peer introduce(const std::string& sender);
    void watchLeaving(const std::string& sender);
    int called(sd_bus_message* call, sd_bus_error* error);
    void nameAcquired(sd_bus_message* signal);
    void nameLost(sd_bus_message* signal);
    void ownerChanged(sd_bus_message* signal);
    void disconnected(sd_bus_message* signal);

    sd_event* m_event;
    BusOptions m_options;
    StandIn& m_standIn;
    Timeline& m_timeline;
    Delays& m_delays;
    platform::dbus::ProtocolVTable m_table;
    BusHandle m_bus;
    std::vector<SlotHandle> m_slots;
    std::map<std::string, SlotHandle> m_leaving;
};

}  // namespace sim
