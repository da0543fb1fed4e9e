#include "platform/linux/bus/OpenBus.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "link/support/PrivateBus.h"
#include "platform/linux/bus/BusHandles.h"
#include "platform/linux/process/OutHandle.h"

namespace {

using link_tests::PrivateBus;
using platform::BusHandle;
using platform::OutHandle;

class OpenBus : public testing::Test {
protected:
    OpenBus() {
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
        unsetenv("XDG_RUNTIME_DIR");
        m_bus.start();
    }

    /// What the tree wants of each bus it opens.
    void expectOurs(int result, const BusHandle& bus) {
        ASSERT_GE(result, 0);
        EXPECT_EQ(sd_bus_can_send(bus.get(), SD_BUS_TYPE_UNIX_FD), 0) << "no descriptors";
        EXPECT_EQ(sd_bus_get_close_on_exit(bus.get()), 0) << "no flush when a loop ends";
        std::uint64_t timeout = 0;
        ASSERT_GE(sd_bus_get_method_call_timeout(bus.get(), &timeout), 0);
        EXPECT_EQ(timeout, UINT64_MAX) << "no time-out";
        const char* name = nullptr;
        EXPECT_GE(sd_bus_get_unique_name(bus.get(), &name), 0) << "a bus that admits us";
    }

    PrivateBus m_bus;
};

TEST_F(OpenBus, OpensTheSystemBusThatTheEnvironmentNames) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", m_bus.address().c_str(), 1);
    BusHandle bus;
    const int result = platform::openSystemBus(OutHandle(bus));
    expectOurs(result, bus);
}

TEST_F(OpenBus, OpensTheSessionBusThatTheEnvironmentNames) {
    setenv("DBUS_SESSION_BUS_ADDRESS", m_bus.address().c_str(), 1);
    BusHandle bus;
    const int result = platform::openUserBus(OutHandle(bus));
    expectOurs(result, bus);
}

TEST_F(OpenBus, OpensTheSessionBusInTheRuntimeDirectory) {
    const std::string scheme = "unix:path=";
    const std::string path = m_bus.address().substr(scheme.size());
    setenv("XDG_RUNTIME_DIR", path.substr(0, path.rfind('/')).c_str(), 1);
    BusHandle bus;
    const int result = platform::openUserBus(OutHandle(bus));
    expectOurs(result, bus);
}

TEST_F(OpenBus, EscapesWhatAnAddressCannotHold) {
    setenv("XDG_RUNTIME_DIR", "/tmp/a,b;c d=e%", 1);
    sd_bus* bus = nullptr;
    // An address that is taken apart wrongly is refused as such.
    EXPECT_EQ(platform::openUserBus(&bus), -ENOENT);
    EXPECT_EQ(bus, nullptr);
}

TEST_F(OpenBus, SaysThatNoSessionBusIsNamed) {
    sd_bus* bus = nullptr;
    EXPECT_EQ(platform::openUserBus(&bus), -ENOMEDIUM);
    EXPECT_EQ(bus, nullptr);
}

TEST_F(OpenBus, GivesNoBusWhereNothingListens) {
    sd_bus* bus = nullptr;
    m_bus.stop();
    EXPECT_LT(platform::openBusAt(m_bus.address(), &bus), 0);
    EXPECT_EQ(bus, nullptr);
}

}  // namespace
