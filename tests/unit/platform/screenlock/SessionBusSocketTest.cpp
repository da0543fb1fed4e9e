#include "platform/linux/screenlock/SessionBusSocket.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "unit/platform/runloop/LoopFixture.h"

namespace {

using platform::SessionBusSocket;
using platform::sessionBusSocketPath;
namespace fs = std::filesystem;

/// A user's runtime directory, in which a file stands for the socket: only that it appears matters.
class SessionBusSocketTest : public LoopFixture {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "velm-run-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_directory = pattern;
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
        setenv("XDG_RUNTIME_DIR", m_directory.c_str(), 1);
        m_socket = std::make_unique<SessionBusSocket>(loop(), [this] { ++m_appeared; });
    }
    void TearDown() override {
        m_socket.reset();
        fs::remove_all(m_directory);
    }

    void make(const char* name) const { std::ofstream(m_directory / name).flush(); }
    bool waitUntilAppeared(int times) {
        return runUntil([this, times] { return m_appeared >= times; });
    }

    fs::path m_directory;
    int m_appeared = 0;
    std::unique_ptr<SessionBusSocket> m_socket;
};

TEST_F(SessionBusSocketTest, IsToldWhenItIsMadeOrMovedIntoPlace) {
    m_socket->await();
    make("bus");
    EXPECT_TRUE(waitUntilAppeared(1));
    make("bus.new");
    fs::rename(m_directory / "bus.new", m_directory / "bus");
    EXPECT_TRUE(waitUntilAppeared(2));
}

TEST_F(SessionBusSocketTest, IsNotToldOfOtherFiles) {
    m_socket->await();
    make("busses");
    make("wayland-0");
    make("bus");
    EXPECT_TRUE(waitUntilAppeared(1));
    EXPECT_EQ(m_appeared, 1);
}

TEST_F(SessionBusSocketTest, IsNotToldUnlessItIsAwaited) {
    make("bus");
    runFor(std::chrono::milliseconds(100));
    fs::remove(m_directory / "bus");
    m_socket->await();
    EXPECT_TRUE(m_socket->awaited());
    m_socket->stop();
    EXPECT_FALSE(m_socket->awaited());
    make("bus");
    runFor(std::chrono::milliseconds(100));
    EXPECT_EQ(m_appeared, 0);
}

TEST_F(SessionBusSocketTest, IsNotAwaitedAnyMoreOnceItsDirectoryIsGone) {
    m_socket->await();
    fs::remove_all(m_directory);
    EXPECT_TRUE(waitUntilAppeared(1));
    EXPECT_FALSE(m_socket->awaited());
    m_socket->await();
    EXPECT_FALSE(m_socket->awaited());
}

TEST_F(SessionBusSocketTest, HasThePathThatTheLibraryUses) {
    EXPECT_EQ(sessionBusSocketPath(), (m_directory / "bus").string());
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/run/other/bus", 1);
    EXPECT_EQ(sessionBusSocketPath(), "/run/other/bus");
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/run/other/bus,guid=0123", 1);
    EXPECT_EQ(sessionBusSocketPath(), "/run/other/bus");
}

TEST_F(SessionBusSocketTest, HasNoPathWhereTheAddressIsNone) {
    for (const char* address : {"unix:abstract=/tmp/dbus-1", "unix:path=/a;unix:path=/b", "unix:path=/a%20b",
                                "", "tcp:host=localhost"}) {
        setenv("DBUS_SESSION_BUS_ADDRESS", address, 1);
        EXPECT_EQ(sessionBusSocketPath(), "") << address;
    }
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    setenv("XDG_RUNTIME_DIR", "", 1);
    EXPECT_EQ(sessionBusSocketPath(), "");
    unsetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(sessionBusSocketPath(), "");
    SessionBusSocket nowhere(loop(), [] {});
    nowhere.await();
    EXPECT_FALSE(nowhere.awaited());
}

}  // namespace
