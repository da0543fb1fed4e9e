#include <fcntl.h>

#include <csignal>
#include <future>
#include <memory>
#include <thread>

#include "link/support/LingeringSocket.h"
#include "link/support/LinkTest.h"

namespace link_tests {
namespace {

/// A user who encloses a socket with a blocking last close() in what he sends to others.
class DescriptorSender {
public:
    explicit DescriptorSender(const PrivateBus& bus) : m_bus(bus), m_intruder(bus.address(), intruderUser) {}

    /// To each connection of the process, a signal that looks like one that agents follow.
    void sendTo(pid_t victim) {
        m_intruder.aimAt(victim);
        for (const std::string& name : m_intruder.victims()) {
            sendTo(name);
        }
    }
    void sendTo(const std::string& name) {
        m_intruder.peer().emit({name, "/org/freedesktop/DBus", "org.freedesktop.DBus"}, "NameOwnerChanged",
                               "h", m_socket.get());
        m_intruder.delivered();
    }
    /// Drops the sender's own reference once the bus has passed it on, so that the last one is in the hands
    /// of the receiver, if he took it; a bus that still had it would itself be held up, which is the bus's
    /// affair. A sender whose message nobody took blocks in this himself.
    void letGo() {
        const int descriptor = m_socket.get();
        EXPECT_TRUE(await([&] { return !m_bus.holds(descriptor); }));
        m_ownClose = std::thread([this] { m_socket.drop(); });
        // Its number is free as soon as the reference is gone, even while the close still blocks.
        EXPECT_TRUE(await([&] { return ::fcntl(descriptor, F_GETFD) < 0; }));
    }
    /// As `letGo`, for a message that its receiver has yet to take: the last reference is in it then.
    void letGoFirst() {
        letGo();
        m_ownClose.join();
    }
    /// Frees everyone.
    void release() {
        m_socket.release();
        if (m_ownClose.joinable()) {
            m_ownClose.join();
        }
    }
    ~DescriptorSender() { release(); }
    DescriptorSender(const DescriptorSender&) = delete;
    DescriptorSender& operator=(const DescriptorSender&) = delete;

private:
    const PrivateBus& m_bus;
    Intruder m_intruder;
    LingeringSocket m_socket;
    std::thread m_ownClose;
};

/// A program that takes what comes from a bus as sd-bus does unless told otherwise.
class TrustingReceiver {
public:
    explicit TrustingReceiver(const std::string& busAddress) : m_bus(newClient(busAddress)) {
        check(sd_bus_start(m_bus.get()), "sd_bus_start");
        m_name = uniqueNameOf(m_bus.get());
    }
    const std::string& uniqueName() const { return m_name; }
    /// Takes everything off the bus; returns once there is nothing more.
    void process() const {
        while (sd_bus_process(m_bus.get(), nullptr) > 0) {
        }
    }

private:
    BusHandle m_bus;
    std::string m_name;
};

class EnclosedDescriptor : public LinkTest {};

TEST_F(EnclosedDescriptor, HoldsUpAProgramThatAcceptsIt) {
    if (PrivateBus::isBroker()) {
        GTEST_SKIP()
            << "dbus-broker keeps a descriptor until its receiver has read it, so the last reference is "
               "never the receiver's";
    }
    bus.start();
    const TrustingReceiver receiver(bus.address());
    DescriptorSender sender(bus);
    sender.sendTo(receiver.uniqueName());
    sender.letGoFirst();
    // The control of the tests below: this attack bites.
    auto processed = std::async(std::launch::async, [&] { receiver.process(); });
    EXPECT_EQ(processed.wait_for(std::chrono::seconds(2)), std::future_status::timeout);
    sender.release();
    processed.wait();
}

TEST_F(EnclosedDescriptor, HoldsUpNoneOfTheAgentsThreads) {
    startSystem();
    startLinked();
    ASSERT_TRUE(awaitSessionRead(ownSession));
    const std::size_t mark = agent->log().mark();
    // An agent that has not read yet leaves the last reference on its way to it.
    agent->signal(SIGSTOP);
    DescriptorSender sender(bus);
    sender.sendTo(agent->pid());
    if (!PrivateBus::isBroker()) {
        sender.letGo();
    }
    agent->signal(SIGCONT);
    if (PrivateBus::isBroker()) {
        sender.letGo();
    }

    logind->setLockedHint(ownSession, true);
    ASSERT_TRUE(daemon->awaitEvents(1));
    ASSERT_TRUE(daemon->call("logLevel", "x", std::int64_t{5}).ok());
    ASSERT_TRUE(agent->log().await("xpc service: received log level: 5", mark));
    EXPECT_EQ(agent->log().count(message::disconnected), 0U);
    daemon->crash();
    ASSERT_TRUE(agent->log().await(message::disconnected, mark));
    agent->signal(SIGTERM);
    EXPECT_EQ(agent->awaitEnd(), "exit 0");
}

}  // namespace
}  // namespace link_tests
